#include "agents/routing/Election.h"

#include <Kiv/Log.h>
#include <vorn/error.h>

#include <charconv>
#include <chrono>
#include <utility>
#include <vector>

namespace routing_agent {

namespace {

constexpr const char* kMetadata = "election-id";

Kiv::LogDescriptor descriptor = {
    "ROUTING_AGENT_PRIMARY_CHANGED",
    "the client with election id %s is primary, after %s; changes of the former one that waited "
    "and were dropped: %s",
    "From here on its changes alone are taken. It has to set what was dropped, if that is still "
    "wanted. When nobody was to take over, see the records of calls for who has used this id. "
    "Others may follow without a line for a minute.",
    "\x01", 5};
Kiv::LogHandle handle(&descriptor, std::chrono::minutes(1), 1.0, 0, 0);

bool parse(std::string_view text, std::uint64_t& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

// Of a call that has one.
std::optional<ElectionId> idOf(const grpc::ServerContext& call) {
  const auto& metadata = call.client_metadata();
  const auto found = metadata.find(kMetadata);
  if (found == metadata.end()) return std::nullopt;
  const std::string_view text(found->second.data(), found->second.size());
  const auto id = electionIdOf(text);
  if (!id) {
    throw vorn::invalid_argument_error(
        "election-id is neither NUMBER nor HIGH:NUMBER, of 64 bits each and not zero", kMetadata);
  }
  return id;
}

}  // namespace

std::optional<ElectionId> electionIdOf(std::string_view text) {
  ElectionId id;
  if (const auto colon = text.find(':'); colon != text.npos) {
    if (!parse(text.substr(0, colon), id.high)) return std::nullopt;
    text.remove_prefix(colon + 1);
  }
  if (!parse(text, id.low) || id == ElectionId()) return std::nullopt;
  return id;
}

std::string toString(const ElectionId& id) {
  return (id.high == 0 ? "" : std::to_string(id.high) + ":") + std::to_string(id.low);
}

grpc::Status Election::admit(const grpc::ServerContext& call) { return admit(idOf(call)); }

grpc::Status Election::admit(const std::optional<ElectionId>& id) {
  if (id && (!primary_ || *primary_ < *id)) takeOver(*id);
  if (!primary_ || id == primary_) return grpc::Status::OK;
  return {
      grpc::StatusCode::PERMISSION_DENIED,
      id ? "election id " + toString(*id) + " is not the primary's, which is " + toString(*primary_)
         : "only the primary, whose election id is " + toString(*primary_) +
               ", may change anything: this call has none"};
}

Election::Term Election::termOf(const grpc::ServerContext& call) const {
  const auto id = idOf(call);
  if (!id || !primary_ || *primary_ < *id) return 0;
  return *id == *primary_ ? term() : kFormer;
}

grpc::Status Election::over() const {
  return {grpc::StatusCode::ABORTED,
          "another client is primary now" +
              (primary_ ? ", with election id " + toString(*primary_) : "") +
              ": changes that still waited were dropped"};
}

Backlog::Change Election::guarded(Backlog::Change change, std::function<void()> dropped,
                                  std::size_t count) {
  if (!primary_) return change;
  while (!waiting_.empty() && waiting_.front().expired())
    waiting_.pop_front();
  const std::shared_ptr<Waiting> waiting(new Waiting{std::move(dropped), count});
  waiting_.push_back(waiting);
  return [this, term = term(), waiting, change = std::move(change)] {
    const vorn::lock_guard lock(mutex_);
    if (isOver(term)) return;
    waiting->begun = true;
    change();
  };
}

void Election::takeOver(const ElectionId& id) {
  const auto former = std::exchange(primary_, id);
  const auto dropped = dropWaiting();
  dropped_ += dropped;
  if (file_ && dropped != 0) file_->rewriteSoon();
  Kiv::log(handle, toString(id), former ? toString(*former) : std::string("nobody"),
           std::to_string(dropped));
}

// Answers how many.
std::uint64_t Election::dropWaiting() {
  std::vector<std::shared_ptr<Waiting>> dropped;
  {
    const vorn::lock_guard lock(mutex_);
    ++term_;
    for (const auto& waiting : std::exchange(waiting_, {})) {
      auto change = waiting.lock();
      if (change && !change->begun) dropped.push_back(std::move(change));
    }
  }
  std::uint64_t count = 0;
  for (const auto& change : dropped) {
    change->dropped();
    count += change->count;
  }
  return count;
}

}  // namespace routing_agent
