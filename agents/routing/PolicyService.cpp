#include "agents/routing/PolicyService.h"

#include <VornSdkRpc/CallNote.h>
#include <vorn/error.h>

namespace routing_agent {

namespace {

VornSdkRpc::Policy parsed(const std::string& text) try {
  return VornSdkRpc::Policy::parse(text);
} catch (const vorn::configuration_error& error) {
  throw vorn::invalid_argument_error(error.what(), "policy");
}

VornSdkRpc::PolicyPeer peerOf(const policy_probe_msg& asked) {
  VornSdkRpc::PolicyPeer peer;
  for (const auto& principal : asked.principal())
    VornSdkRpc::addPrincipal(peer, principal);
  return peer;
}

}  // namespace

PolicyService::PolicyService(const VornSdkRpc::PolicyFile* file,
                             VornSdkRpc::Certificates* certificates)
    : Service("Policy"), file_(file), certificates_(certificates) {
  method(&Async::RequestProbe, [this](grpc::ServerContext& context, const policy_probe_msg& asked,
                                      policy_answer_msg& answer) {
    VornSdkRpc::noteOperation(context, "probe", asked.method());
    answer = probe(asked);
    return grpc::Status::OK;
  });
  method(&Async::RequestGet,
         [this](grpc::ServerContext& context, const get_policy_msg&, policy_msg& policy) {
           VornSdkRpc::noteOperation(context, "get", "policy");
           policy = get();
           return grpc::Status::OK;
         });
  method(&Async::RequestWithdraw,
         [this](grpc::ServerContext& context, const withdraw_msg&, withdrawn_msg& withdrawn) {
           VornSdkRpc::noteOperation(context, "withdraw", "callers", 0);
           withdrawn = withdraw();
           VornSdkRpc::noteOperation(context, "withdraw", "callers", withdrawn.calls());
           return grpc::Status::OK;
         });
}

policy_answer_msg PolicyService::probe(const policy_probe_msg& asked) const {
  const auto policy = asked.policy().empty() ? inForce().guard()->policy() : parsed(asked.policy());
  VornSdkRpc::PolicyRequest::Headers headers;
  for (const auto& header : asked.header())
    headers.emplace(header.key(), header.value());
  const auto [allowed, rule] = policy.decide({peerOf(asked), asked.method(), headers});
  policy_answer_msg answer;
  answer.set_allowed(allowed);
  if (rule != VornSdkRpc::PolicyDecision::kNoRule) answer.set_rule(policy.rules()[rule].name);
  answer.set_policy(policy.name());
  return answer;
}

policy_msg PolicyService::get() const {
  const auto state = inForce().guard()->state();
  policy_msg message;
  message.set_name(state.name);
  message.set_generation(state.generation);
  message.set_loaded_seconds(
      static_cast<std::uint64_t>(std::chrono::system_clock::to_time_t(state.loaded)));
  for (const auto& rule : state.rules) {
    auto& added = *message.add_rule();
    added.set_name(rule.name);
    added.set_allows(rule.allows);
    added.set_hits(rule.hits);
  }
  message.set_unmatched(state.unmatched);
  message.set_dry_run(state.dryRun);
  message.set_error(file_->error());
  return message;
}

// What has just been written is looked at first: who asks means that.
withdrawn_msg PolicyService::withdraw() const {
  if (!certificates_) throw vorn::configuration_error("the agent has no TLS");
  if (!certificates_->reload()) throw vorn::configuration_error(certificates_->error());
  withdrawn_msg message;
  message.set_calls(certificates_->withdraw());
  return message;
}

const VornSdkRpc::PolicyFile& PolicyService::inForce() const {
  if (!file_) throw vorn::configuration_error("the agent has no policy: it was started without");
  return *file_;
}

}  // namespace routing_agent
