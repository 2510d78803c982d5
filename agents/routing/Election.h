#pragma once

#include <grpcpp/server_context.h>
#include <vorn/mutex.h>

#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "agents/routing/Backlog.h"
#include "agents/routing/StateFile.h"

namespace routing_agent {

// A number of 128 bits.
struct ElectionId {
  std::uint64_t high = 0, low = 0;
  auto operator<=>(const ElectionId&) const = default;
};

// NUMBER or HIGH:NUMBER, decimals of 64 bits each, not all zero. Anything else: none.
std::optional<ElectionId> electionIdOf(std::string_view text);
std::string toString(const ElectionId& id);

// Which of several clients may change anything. A call takes part by its metadata "election-id".
// The largest id that was seen is the primary's, and from the first one on, changes need the
// primary's. When a larger one comes, the changes of the former primary that still wait on the
// backlog are dropped. As long as nobody has used an id, everybody may change.
//
// Used on the serving thread, where nothing else is said.
class Election {
 public:
  // Tells one primary's time from another's; 0: of nobody.
  using Term = std::uint64_t;

  // `file` keeps what clients set, and has to forget what is dropped; null: nothing does. It must
  // outlive this, and this the backlog's changes.
  explicit Election(StateFile* file = nullptr) : file_(file) {}

  // Whether a call may change anything: PERMISSION_DENIED when it is not the primary's. An id that
  // is larger than all before is the primary's from here on. Throws vorn::invalid_argument_error
  // for metadata that is no id.
  grpc::Status admit(const grpc::ServerContext& call);
  grpc::Status admit(const std::optional<ElectionId>& id);

  // The term of the present primary.
  Term term() const { return term_; }
  // That of a call: 0 for one that is no primary's, one that is over for a former primary's. Throws
  // as admit().
  Term termOf(const grpc::ServerContext& call) const;

  // Whether another primary has come since. Any thread.
  bool isOver(Term term) const { return term != 0 && term != term_; }
  grpc::Status over() const;

  // A change of the present primary's for the backlog, which counts as `count`. It does nothing
  // when another primary has come before it is begun; `dropped` is called as soon as that comes.
  Backlog::Change guarded(Backlog::Change change, std::function<void()> dropped, std::size_t count);

  const std::optional<ElectionId>& primary() const { return primary_; }
  std::uint64_t dropped() const { return dropped_; }  // changes, so far; any thread

 private:
  static constexpr Term kFormer = ~Term{0};

  // A change, for as long as it is on the backlog.
  struct Waiting {
    std::function<void()> dropped;
    std::size_t count;
    bool begun = false;  // guarded by the mutex
  };

  void takeOver(const ElectionId& id);
  std::uint64_t dropWaiting();

  StateFile* const file_;
  std::optional<ElectionId> primary_;
  std::atomic<std::uint64_t> dropped_ = 0;
  std::deque<std::weak_ptr<Waiting>> waiting_;  // the present primary's, and some that are done
  vorn::mutex mutex_;                           // held while a guarded change is programmed
  std::atomic<Term> term_ = 0;                  // changed with the mutex held
};

}  // namespace routing_agent
