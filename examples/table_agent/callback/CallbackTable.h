#pragma once

#include <grpcpp/alarm.h>
#include <grpcpp/grpcpp.h>

#define ASIO_STANDALONE
#include <asio/post.hpp>
#include <asio/thread_pool.hpp>
#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "examples/table_agent/Checksum.h"
#include "examples/table_agent/Table.grpc.pb.h"

namespace table_agent {

// What TableService does, written with gRPC's callback API. Its callbacks come on several threads,
// and some within the operation that they are an answer to: hence the one recursive mutex.
class CallbackTable : public Table::CallbackService {
 public:
  // [drain]
  // Ends what could go on for long.
  void drain() {
    const std::lock_guard lock(mutex_);
    draining_ = true;
    for (auto* watch : std::set(watches_))
      watch->finish({grpc::StatusCode::UNAVAILABLE, "the agent ends"});
    for (auto* session : std::set(sessions_))
      session->finish({grpc::StatusCode::UNAVAILABLE, "the agent ends"});
  }
  // [drain]

 private:
  // [table]
  void set(const entry_msg& entry) {
    const std::lock_guard lock(mutex_);
    entries_[entry.key()] = entry;
    tell(entry.key());
  }

  void tell(const std::string& key) {
    for (auto* watch : watches_)
      watch->changed(key);
    for (auto* session : sessions_)
      session->changed();
  }

  std::recursive_mutex mutex_;
  std::map<std::string, entry_msg> entries_;
  bool draining_ = false;
  // [table]

  // [create]
  grpc::ServerUnaryReactor* Create(grpc::CallbackServerContext* context, const entry_msg* entry,
                                   nothing_msg*) override {
    auto* reactor = context->DefaultReactor();
    const std::lock_guard lock(mutex_);
    if (entries_.contains(entry->key())) {
      reactor->Finish({grpc::StatusCode::ALREADY_EXISTS, entry->key()});
      return reactor;
    }
    set(*entry);
    reactor->Finish(grpc::Status::OK);
    return reactor;
  }
  // [create]

  // [delete]
  grpc::ServerUnaryReactor* Delete(grpc::CallbackServerContext* context, const key_msg* key,
                                   nothing_msg*) override {
    auto* reactor = context->DefaultReactor();
    const std::lock_guard lock(mutex_);
    if (entries_.erase(key->key()) == 0) {
      reactor->Finish({grpc::StatusCode::NOT_FOUND, key->key()});
      return reactor;
    }
    tell(key->key());
    reactor->Finish(grpc::Status::OK);
    return reactor;
  }
  // [delete]

  // [upload]
  class Uploading : public grpc::ServerReadReactor<entry_msg> {
   public:
    Uploading(CallbackTable& table, count_msg& count) : table_(table), count_(count) {
      StartRead(&entry_);
    }
    void OnReadDone(bool ok) override {
      if (!ok) return Finish(grpc::Status::OK);
      table_.set(entry_);
      count_.set_count(count_.count() + 1);
      StartRead(&entry_);
    }
    void OnDone() override { delete this; }

   private:
    CallbackTable& table_;
    count_msg& count_;
    entry_msg entry_;
  };

  grpc::ServerReadReactor<entry_msg>* Upload(grpc::CallbackServerContext*,
                                             count_msg* count) override {
    return new Uploading(*this, *count);
  }
  // [upload]

  // [watch]
  class Watching : public grpc::ServerWriteReactor<change_msg> {
   public:
    explicit Watching(CallbackTable& table) : table_(table) {
      const std::lock_guard lock(table_.mutex_);
      table_.watches_.insert(this);
      for (const auto& [key, entry] : table_.entries_)
        changed(key);
      waiting_.push_back(std::nullopt);
      if (table_.draining_) finish({grpc::StatusCode::UNAVAILABLE, "the agent ends"});
      next();
    }
    void changed(const std::string& key) {
      const auto [place, isNew] = folded_.try_emplace(key, 0);
      if (!isNew) {
        ++place->second;
        return;
      }
      waiting_.push_back(key);
      next();
    }
    void finish(const grpc::Status& status) {
      if (!std::exchange(finished_, true)) Finish(status);
    }
    void OnWriteDone(bool ok) override {
      const std::lock_guard lock(table_.mutex_);
      writing_ = false;
      ok ? next() : finish(grpc::Status::CANCELLED);
    }
    void OnCancel() override {
      const std::lock_guard lock(table_.mutex_);
      finish(grpc::Status::CANCELLED);
    }
    void OnDone() override {
      {
        const std::lock_guard lock(table_.mutex_);
        table_.watches_.erase(this);
      }
      delete this;
    }

   private:
    void next() {
      if (writing_ || finished_ || waiting_.empty()) return;
      change_.Clear();
      if (const auto& key = waiting_.front(); !key) {
        change_.set_synced(true);
      } else {
        const auto entry = table_.entries_.find(*key);
        if (entry == table_.entries_.end()) {
          change_.set_removed(*key);
        } else {
          *change_.mutable_set() = entry->second;
        }
        change_.set_folded(folded_.at(*key));
        folded_.erase(*key);
      }
      waiting_.pop_front();
      writing_ = true;
      StartWrite(&change_);
    }

    CallbackTable& table_;
    std::deque<std::optional<std::string>> waiting_;  // keys, and the mark
    std::map<std::string, std::uint64_t> folded_;     // of the keys that wait
    change_msg change_;
    bool writing_ = false;
    bool finished_ = false;
  };

  grpc::ServerWriteReactor<change_msg>* Watch(grpc::CallbackServerContext*,
                                              const nothing_msg*) override {
    return new Watching(*this);
  }

  std::set<Watching*> watches_;
  // [watch]

  // [session]
  class Talking : public grpc::ServerBidiReactor<nothing_msg, count_msg> {
   public:
    explicit Talking(CallbackTable& table) : table_(table) {
      const std::lock_guard lock(table_.mutex_);
      table_.sessions_.insert(this);
      setAlarm();
      if (table_.draining_) finish({grpc::StatusCode::UNAVAILABLE, "the agent ends"});
      StartRead(&beat_);
    }
    void changed() {
      news_ = true;
      write();
    }
    void finish(const grpc::Status& status) {
      if (!std::exchange(finished_, true)) Finish(status);
    }
    void OnReadDone(bool ok) override {
      const std::lock_guard lock(table_.mutex_);
      if (!ok) return finish(grpc::Status::OK);
      last_ = std::chrono::system_clock::now();
      StartRead(&beat_);
    }
    void OnWriteDone(bool ok) override {
      const std::lock_guard lock(table_.mutex_);
      writing_ = false;
      ok ? write() : finish(grpc::Status::CANCELLED);
    }
    void OnCancel() override {
      const std::lock_guard lock(table_.mutex_);
      finish(grpc::Status::CANCELLED);
    }
    void OnDone() override {
      std::unique_lock lock(table_.mutex_);
      table_.sessions_.erase(this);
      done_ = true;
      alarm_.Cancel();
      if (alarmSet_) return;  // its callback deletes this
      lock.unlock();
      delete this;
    }

   private:
    void setAlarm() {
      alarmSet_ = true;
      alarm_.Set(last_ + std::chrono::seconds(3), [this](bool) { alarmHasFired(); });
    }
    void alarmHasFired() {
      std::unique_lock lock(table_.mutex_);
      alarmSet_ = false;
      if (done_) {
        lock.unlock();
        delete this;
      } else if (finished_) {
        return;
      } else if (std::chrono::system_clock::now() >= last_ + std::chrono::seconds(3)) {
        finish({grpc::StatusCode::DEADLINE_EXCEEDED, "no heartbeat"});
      } else {
        setAlarm();
      }
    }
    void write() {
      if (writing_ || finished_ || !std::exchange(news_, false)) return;
      count_.set_count(static_cast<std::uint32_t>(table_.entries_.size()));
      writing_ = true;
      StartWrite(&count_);
    }

    CallbackTable& table_;
    nothing_msg beat_;
    count_msg count_;
    std::chrono::system_clock::time_point last_ = std::chrono::system_clock::now();
    grpc::Alarm alarm_;
    bool alarmSet_ = false;
    bool news_ = false;
    bool writing_ = false;
    bool finished_ = false;
    bool done_ = false;
  };

  grpc::ServerBidiReactor<nothing_msg, count_msg>* Session(grpc::CallbackServerContext*) override {
    return new Talking(*this);
  }

  std::set<Talking*> sessions_;
  // [session]

  // [checksum]
  grpc::ServerUnaryReactor* Checksum(grpc::CallbackServerContext* context, const entry_msg* entry,
                                     count_msg* sum) override {
    auto* reactor = context->DefaultReactor();
    asio::post(pool_, [entry, sum, reactor] {
      sum->set_count(checksumOf(entry->value()));
      reactor->Finish(grpc::Status::OK);
    });
    return reactor;
  }

  asio::thread_pool pool_{2};
  // [checksum]
};

}  // namespace table_agent
