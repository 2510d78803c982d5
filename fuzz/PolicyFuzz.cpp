// Whatever text is given for a policy: it is read or refused in words, and one that is read decides
// by one of its rules, deny rules first, and for a name by itself.

#include <VornSdkRpc/Policy.h>
#include <vorn/error.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/Require.h"

using namespace VornSdkRpc;

namespace {

void checkDecision(const Policy& policy, const PolicyRequest& request) {
  const auto [allowed, rule] = policy.decide(request);
  if (rule == PolicyDecision::kNoRule) return require(!allowed);
  require(rule < policy.rules().size() && policy.rules()[rule].allows == allowed);
}

// A policy with one rule, and that for what `text` spells.
void checkName(const std::string& text) {
  static const Policy policy = Policy::parse(
      R"({"name": "p", "deny_rules": [], "allow_rules": [{"name": "r", "request": {"paths": ["/x*"]}}]})");
  require(policy.decide({{}, text, {}}).allowed == text.starts_with("/x"));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  checkName(text);
  try {
    static const Policy policy = Policy::parse(text);
    require(!policy.name().empty());
    bool allowing = false;
    for (const auto& rule : policy.rules()) {
      require(!rule.name.empty() && (rule.allows || !allowing));
      allowing = rule.allows;
    }
    PolicyPeer peer;
    const PolicyRequest::Headers headers{{"x", "1"}, {"x", "2"}};
    checkDecision(policy, {peer, "/a.B/C", {}});
    peer.names = {""};
    checkDecision(policy, {peer, "/a.B/C", headers});
    peer.names = {"spiffe://a", "CN=a"};
    checkDecision(policy, {peer, "", headers});
    peer.names.clear();
    peer.local = {"uid:0", "user:root"};
    checkDecision(policy, {peer, text, headers});
  } catch (const vorn::configuration_error& error) {
    require(*error.what() != '\0');
  }
  return 0;
}
