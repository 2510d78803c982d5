#pragma once

#include <VornSdkRpc/Rpc.h>
#include <VornSdkRpc/RpcEvents.h>
#include <VornSdkRpc/RpcOffload.h>
#include <VornSdkRpc/RpcPublished.h>

#define ASIO_STANDALONE
#include <asio/post.hpp>
#include <asio/thread_pool.hpp>
#include <string>

#include "examples/table_agent/Checksum.h"
#include "examples/table_agent/Table.grpc.pb.h"

namespace table_agent {

namespace rpc = VornSdkRpc::rpc;
using namespace std::chrono_literals;

// A table that clients change and watch: one RPC of each kind that agents have, on the kit.
class TableService : public rpc::Service<Table> {
 public:
  // [methods]
  TableService() : Service("Table") {
    method(&Async::RequestCreate,
           [this](const entry_msg& entry, nothing_msg&) { return create(entry); });
    method(&Async::RequestDelete,
           [this](const key_msg& key, nothing_msg&) { return remove(key.key()); });
    method(&Async::RequestUpload, [this](rpc::Reader<entry_msg>& entries, count_msg& count) {
      return upload(entries, count);
    });
    method(&Async::RequestWatch,
           [this](rpc::Writer<change_msg>& watch, const nothing_msg&) { return tell(watch); });
    method(&Async::RequestSession,
           [this](rpc::ReaderWriter<nothing_msg, count_msg>& session) { return talk(session); });
    method(&Async::RequestChecksum, [this](rpc::Call& call, const entry_msg& entry,
                                           count_msg& sum) { return checksum(call, entry, sum); });
  }
  // [methods]

 private:
  // [table]
  void set(const entry_msg& entry) {
    entries_.set(entry.key(), entry);
    changed_.set();
  }

  rpc::Published<std::string, entry_msg> entries_;
  rpc::Events changed_;
  // [table]

  // [create]
  grpc::Status create(const entry_msg& entry) {
    if (entries_.find(entry.key())) return {grpc::StatusCode::ALREADY_EXISTS, entry.key()};
    set(entry);
    return grpc::Status::OK;
  }
  // [create]

  // [delete]
  grpc::Status remove(const std::string& key) {
    if (!entries_.remove(key)) return {grpc::StatusCode::NOT_FOUND, key};
    changed_.set();
    return grpc::Status::OK;
  }
  // [delete]

  // [upload]
  rpc::Task<> upload(rpc::Reader<entry_msg>& entries, count_msg& count) {
    entry_msg entry;
    while (co_await entries.read(entry)) {
      set(entry);
      count.set_count(count.count() + 1);
    }
    co_return entries.cancelled() ? grpc::Status::CANCELLED : grpc::Status::OK;
  }
  // [upload]

  // [watch]
  rpc::Task<> tell(rpc::Writer<change_msg>& watch) {
    rpc::Event news;
    decltype(entries_)::Watcher watcher(entries_, news);
    while (co_await watch.wait(news)) {
      while (const auto item = watcher.next()) {
        change_msg change;
        change.set_folded(item->folded());
        if (item->kind() == rpc::News::value) *change.mutable_set() = item->value();
        if (item->kind() == rpc::News::removal) change.set_removed(item->key());
        if (item->kind() == rpc::News::synced) change.set_synced(true);
        if (item->kind() == rpc::News::snapshot) continue;
        if (!co_await watch.write(change)) co_return grpc::Status::CANCELLED;
      }
    }
    co_return watch.endStatus();
  }
  // [watch]

  // [session]
  rpc::Task<> talk(rpc::ReaderWriter<nothing_msg, count_msg>& session) {
    rpc::Event news;
    const rpc::Events::Subscription subscription(changed_, news);
    nothing_msg beat;
    count_msg count;
    for (auto last = session.now();;) {
      const rpc::Woke woke = co_await session.read(beat, news, last + 3s);
      if (woke == rpc::Woke::time)
        co_return grpc::Status(grpc::StatusCode::DEADLINE_EXCEEDED, "no heartbeat");
      if (!woke) co_return session.endStatus();
      if (woke == rpc::Woke::message) last = session.now();
      if (woke != rpc::Woke::event) continue;
      count.set_count(static_cast<std::uint32_t>(entries_.size()));
      if (!co_await session.write(count)) co_return grpc::Status::CANCELLED;
    }
  }
  // [session]

  // [checksum]
  rpc::Task<> checksum(rpc::Call& call, const entry_msg& entry, count_msg& sum) {
    const auto onPool = [this](auto work) { asio::post(pool_, std::move(work)); };
    const auto work = [value = entry.value()] { return checksumOf(value); };
    const auto result = co_await rpc::offload(call, onPool, work);
    if (!result) co_return grpc::Status::CANCELLED;
    sum.set_count(*result);
    co_return grpc::Status::OK;
  }

  asio::thread_pool pool_{2};
  // [checksum]
};

}  // namespace table_agent
