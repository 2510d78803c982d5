#pragma once

#include <VornSdkRpc/CallNote.h>
#include <VornSdkRpc/MessagePrinters.h>
#include <VornSdkRpc/PeerInfo.h>
#include <VornSdkRpc/Rpc.h>
#include <vorn/tracer.h>

#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "agents/routing/Backlog.h"
#include "agents/routing/Check.h"
#include "agents/routing/Election.h"
#include "agents/routing/RoutingAgent.grpc.pb.h"
#include "agents/routing/StateFile.h"
#include "agents/routing/Tables.h"

namespace routing_agent {

namespace rpc = VornSdkRpc::rpc;

// Whether the caller may change anything: everybody on this host, and from elsewhere those whose
// connection has proven an identity. `listen` are the addresses that the agent listens on.
inline bool mayChange(const grpc::ServerContext& context, const std::vector<std::string>& listen) {
  for (const auto& address : listen) {
    if (VornSdkRpc::isLocalIpAddr(context.peer(), address)) return true;
  }
  const auto identity = context.auth_context();
  return identity && !identity->FindPropertyValues("peer-authenticated").empty();
}

// The operation of a message that sets or deletes something, as records of calls have it.
template <typename Message>
const char* operationOf(const Message& message) {
  return message.request_delete() ? "delete" : "set";
}

inline grpc::Status ok() { return grpc::Status::OK; }
inline grpc::Status notFound(const std::string& what) {
  return {grpc::StatusCode::NOT_FOUND, "there is no " + what};
}
inline grpc::Status mayNot() {
  return {grpc::StatusCode::PERMISSION_DENIED,
          "only local and authenticated peers may change anything"};
}
inline grpc::Status tooMuchWaits() {
  return {grpc::StatusCode::RESOURCE_EXHAUSTED, "too many changes wait to be programmed"};
}

inline grpc::Status tablesFull() {
  return {grpc::StatusCode::RESOURCE_EXHAUSTED,
          "the agent's tables are full: delete something, or give it a larger --table-mib"};
}

// Records of the state file, by their messages.
inline StateFile::Kind kindOf(const ip_route_msg&) { return StateFile::kRoute; }
inline StateFile::Kind kindOf(const ip_prefix_msg&) { return StateFile::kRouteRemoved; }
inline StateFile::Kind kindOf(const nexthop_group_msg&) { return StateFile::kGroup; }
inline StateFile::Kind kindOf(const mpls_route_msg&) { return StateFile::kMplsRoute; }
inline StateFile::Kind kindOf(const cbf_nexthop_group_redirect_msg&) {
  return StateFile::kRedirect;
}
inline StateFile::Kind kindOf(const sbfd_echo_session_msg&) { return StateFile::kSession; }
inline StateFile::Kind kindOf(const rpc_server_state_config_msg&) { return StateFile::kState; }

// The keys of a table as they will be once everything on the backlog is done. Serving thread.
template <typename Key, typename Table>
class Wanted {
 public:
  // Begins with what is in the table, which must outlive this.
  explicit Wanted(const Table& table) : table_(table) {
    table.forEach([this](const Key& key, const auto&) { keys_.insert(keys_.end(), key); });
  }

  bool contains(const Key& key) const { return keys_.contains(key); }
  std::size_t size() const { return keys_.size(); }
  bool insert(const Key& key) { return keys_.insert(key).second; }
  void erase(const Key& key) { keys_.erase(key); }

  // Nothing on the backlog changes the key any more.
  void settle(const Key& key) {
    if (table_.find(key)) {
      keys_.insert(key);
    } else {
      keys_.erase(key);
    }
  }

 private:
  const Table& table_;
  std::set<Key> keys_;
};

// What every service of the agent works on.
struct Workings {
  Tables& tables;
  Backlog& backlog;
  Election& election;
  const std::vector<std::string> listen;  // the addresses that the agent listens on
  StateFile* file = nullptr;              // keeps what clients have set; null: nothing does
  std::size_t tableLimit = 0;             // bytes that the tables may take, about; 0: any number
};

// What the agent's services have in common.
template <typename Generated>
class AgentService : public rpc::Service<Generated> {
 protected:
  AgentService(std::string name, const Workings& workings)
      : rpc::Service<Generated>(std::move(name)),
        tables_(workings.tables),
        backlog_(workings.backlog),
        election_(workings.election),
        listen_(workings.listen),
        file_(workings.file),
        tableLimit_(workings.tableLimit) {}

  // Whether the tables take nothing new.
  bool full() const { return tableLimit_ != 0 && tables_.bytes() >= tableLimit_; }

  // Whether the caller may change anything, and may now.
  grpc::Status mayChangeNow(const grpc::ServerContext& context) {
    return mayChange(context, listen_) ? election_.admit(context) : mayNot();
  }

  // One line for each message that arrives, at level 8.
  template <typename Message>
  void traceArrival(const Message& message) const {
    if (this->tracer_.enabled(8)) this->tracer_.trace8("received %s", toString(message).c_str());
  }

  // A message that asks for a change: checked, and put on the backlog after the bookkeeping of what
  // is wanted. Possible for callers who may, while the backlog has room; deleting a key, when it is
  // there. Throws vorn::invalid_argument_error when the message can't be used.
  template <typename Message, typename Key, typename Table>
  grpc::Status change(grpc::ServerContext& context, const Message& message,
                      Wanted<Key, Table>& wanted, const Key& key, bool deletes, const char* what,
                      Backlog::Change program, Backlog::Kind kind = Backlog::single) {
    traceArrival(message);
    if (auto status = mayChangeNow(context); !status.ok()) return status;
    check(message);
    if (deletes && !wanted.contains(key)) return notFound(what);
    if (!deletes && full() && !wanted.contains(key)) return tablesFull();
    const bool isNew = !deletes && wanted.insert(key);
    const auto status =
        keepAndProgram(message, std::move(program), [&wanted, key] { wanted.settle(key); }, kind);
    if (status.ok() ? deletes : isNew) wanted.erase(key);
    return status;
  }

  // Puts a change on the backlog, once it is in the state file; a bulk one may be in the file only
  // after keepAll(). `dropped` is called if another primary comes before it is programmed.
  template <typename Message>
  grpc::Status keepAndProgram(const Message& message, Backlog::Change program,
                              std::function<void()> dropped,
                              Backlog::Kind kind = Backlog::single) try {
    if (!backlog_.hasRoom(kind)) return tooMuchWaits();
    if (file_ && kind == Backlog::single) file_->keep(kindOf(message), message);
    if (file_ && kind == Backlog::bulk) file_->add(kindOf(message), message);
    if (file_ && file_->isFull()) file_->flush();
    auto change = election_.guarded(std::move(program), std::move(dropped), 1);
    if (!backlog_.add(std::move(change), message.SpaceUsedLong(), kind)) return tooMuchWaits();
    rewriteFile();
    return ok();
  } catch (const StateFile::Error& error) {
    return notKept(error);
  }

  // Puts changes that came together on the backlog as one, as bulk ones.
  template <typename Messages>
  grpc::Status keepAndProgramAll(const Messages& messages, std::size_t bytes,
                                 Backlog::Change program, std::function<void()> dropped) try {
    if (!backlog_.hasRoom(Backlog::bulk)) return tooMuchWaits();
    for (const auto& message : messages)
      if (file_) file_->add(kindOf(message), message);
    if (file_ && file_->isFull()) file_->flush();
    const auto count = static_cast<std::size_t>(messages.size());
    auto change = election_.guarded(std::move(program), std::move(dropped), count);
    if (!backlog_.add(std::move(change), bytes, Backlog::bulk, count)) return tooMuchWaits();
    rewriteFile();
    return ok();
  } catch (const StateFile::Error& error) {
    return notKept(error);
  }

  // Has every change so far in the state file.
  grpc::Status keepAll() try {
    if (file_) file_->flush();
    return ok();
  } catch (const StateFile::Error& error) {
    return notKept(error);
  }

  // Has what was dropped taken out of the state file.
  grpc::Status forgetDropped() try {
    rewriteFile();
    return ok();
  } catch (const StateFile::Error& error) {
    return notKept(error);
  }

  Tables& tables_;
  Backlog& backlog_;
  Election& election_;
  const std::vector<std::string> listen_;

 private:
  // When the state file wants that: behind all changes that are in it.
  void rewriteFile() {
    if (!file_ || !file_->wantsRewrite()) return;
    file_->flush();
    file_->markRewrite();
    if (!backlog_.add([file = file_] { file->rewrite(); }, 0)) file_->rewriteLater();
  }

  grpc::Status notKept(const StateFile::Error& error) const {
    this->tracer_.error("%s", error.what());
    return {grpc::StatusCode::RESOURCE_EXHAUSTED, error.what()};
  }

  StateFile* const file_;
  const std::size_t tableLimit_;
};

}  // namespace routing_agent
