#include <VornSdkRpc/Policy.h>
#include <gmock/gmock.h>
#include <vorn/error.h>

#include <optional>

namespace VornSdkRpc {
namespace {

using testing::HasSubstr;

const PolicyPeer kPlain;
const PolicyPeer kNoCertificate{.names = {""}, .local = {}};
const PolicyPeer kSpiffe{
    .names = {"spiffe://net/a", "https://net/a", "a.net", "b.net", "CN=a,O=net"}, .local = {}};
const PolicyPeer kAlice{.names = {}, .local = {"uid:1000", "user:alice", "gid:100", "group:users"}};
const PolicyPeer kImpostor{.names = {"user:root", "uid:0", "CN=user:root"}, .local = {}};

using Headers = std::vector<std::pair<std::string, std::string>>;

struct Call {
  const PolicyPeer& peer = kPlain;
  std::string path = "/a.B/C";
  Headers headers = {};
};

// The rule that decides, "+NAME" or "-NAME"; "-" when none matches.
std::string decided(const Policy& policy, const Call& call) {
  PolicyRequest::Headers headers;
  for (const auto& [key, value] : call.headers)
    headers.emplace(key, value);
  const auto [allowed, rule] = policy.decide({call.peer, call.path, headers});
  if (rule == PolicyDecision::kNoRule) return allowed ? "+" : "-";
  EXPECT_EQ(policy.rules()[rule].allows, allowed);
  return (allowed ? "+" : "-") + policy.rules()[rule].name;
}

// A policy whose one rule allows what `conditions` match.
std::string ruleOf(const std::string& conditions) {
  return std::string(R"({"name": "p", "allow_rules": [{"name": "r")") +
         (conditions.empty() ? "" : ", ") + conditions + "}]}";
}
std::string principals(const std::string& list) {
  return ruleOf(R"("source": {"principals": [)" + list + "]}");
}
std::string paths(const std::string& list) {
  return ruleOf(R"("request": {"paths": [)" + list + "]}");
}
std::string headers(const std::string& list) {
  return ruleOf(R"("request": {"headers": [)" + list + "]}");
}

TEST(Policy, DecidesAsTheFormatSays) {
  const std::string both = R"({"name": "p",
    "deny_rules": [{"name": "d", "request": {"paths": ["/a.B/C"]}}],
    "allow_rules": [{"name": "first", "request": {"paths": ["/a.B/D"]}}, {"name": "rest"}]})";
  const std::string twoHeaders = headers(R"({"key": "x", "values": ["1", "2*"]},
                                            {"key": "y", "values": ["*"]})");
  const struct {
    const char* sentence;
    std::string policy;
    Call call;
    const char* decision;
  } cases[] = {
      {"no allow rules, nothing is allowed", R"({"name": "p", "allow_rules": []})", {}, "-"},
      {"a deny rule is asked first", both, {}, "-d"},
      {"then the allow rules, in order", both, {.path = "/a.B/D"}, "+first"},
      {"then the next one", both, {.path = "/a.B/E"}, "+rest"},
      {"else it is denied", paths(R"("/x")"), {}, "-"},
      {"a rule with neither matches everything", ruleOf(""), {}, "+r"},
      {"empty parts are not checked", ruleOf(R"("source": {}, "request": {})"), {}, "+r"},
      {"empty lists are not checked",
       ruleOf(R"("source": {"principals": []}, "request": {"paths": [], "headers": []})"),
       {},
       "+r"},

      {"one path must match", paths(R"("/x", "/a.B/C")"), {}, "+r"},
      {"exactly", paths(R"("/a.B/C")"), {.path = "/a.B/CC"}, "-"},
      {"letters count", paths(R"("/a.b/c")"), {}, "-"},
      {"by prefix", paths(R"("/a.B/*")"), {}, "+r"},
      {"a prefix alone", paths(R"("/a.B/C*")"), {}, "+r"},
      {"by another prefix", paths(R"("/a.B/D*")"), {}, "-"},
      {"by suffix", paths(R"("*/C")"), {}, "+r"},
      {"by another suffix", paths(R"("*/D")"), {}, "-"},
      {"by presence", paths(R"("*")"), {}, "+r"},
      {"presence is not empty", paths(R"("*")"), {.path = ""}, "-"},
      {"an asterisk within is itself", paths(R"("/a*C")"), {}, "-"},
      {"an asterisk behind the first is itself", paths(R"("*B/*")"), {}, "-"},
      {"the asterisk that is meant", paths(R"("*B/*")"), {.path = "/B/*"}, "+r"},

      {"without TLS no principal matches", principals(R"("", "*", "a*", "*a")"), {}, "-"},
      {"TLS without a certificate is the empty string",
       principals(R"("")"),
       {kNoCertificate},
       "+r"},
      {"and nothing else", principals(R"("*", "a*", "CN=a")"), {kNoCertificate}, "-"},
      {"a URI name", principals(R"("spiffe://net/*")"), {kSpiffe}, "+r"},
      {"another URI name", principals(R"("https://net/a")"), {kSpiffe}, "+r"},
      {"a DNS name", principals(R"("x", "b.net")"), {kSpiffe}, "+r"},
      {"the subject", principals(R"("CN=a,O=net")"), {kSpiffe}, "+r"},
      {"the common name alone is no subject", principals(R"("a")"), {kSpiffe}, "-"},
      {"any certificate", principals(R"("*")"), {kSpiffe}, "+r"},
      {"a certificate is not the empty string", principals(R"("")"), {kSpiffe}, "-"},

      {"a local user", principals(R"("user:alice")"), {kAlice}, "+r"},
      {"a number", principals(R"("uid:1000")"), {kAlice}, "+r"},
      {"not the beginning of one", principals(R"("uid:100", "uid:10000")"), {kAlice}, "-"},
      {"a group", principals(R"("group:users")"), {kAlice}, "+r"},
      {"a group's number", principals(R"("gid:1*")"), {kAlice}, "+r"},
      {"any proven user", principals(R"("*")"), {kAlice}, "+r"},
      {"any user of the host", principals(R"("user:*")"), {kAlice}, "+r"},
      {"is not one with a certificate", principals(R"("user:*", "uid:*")"), {kSpiffe}, "-"},
      {"a certificate is no local user",
       principals(R"("user:root", "uid:*", "user:*")"),
       {kImpostor},
       "-"},
      {"a local user is no certificate", principals(R"("*alice", "u*")"), {kAlice}, "-"},
      {"nor the empty string", principals(R"("")"), {kAlice}, "-"},

      {"all headers must match", twoHeaders, {.headers = {{"x", "1"}, {"y", "z"}}}, "+r"},
      {"one of them does not", twoHeaders, {.headers = {{"x", "3"}, {"y", "z"}}}, "-"},
      {"one of them is not there", twoHeaders, {.headers = {{"x", "1"}}}, "-"},
      {"one of its values", twoHeaders, {.headers = {{"x", "22"}, {"y", "z"}}}, "+r"},
      {"presence of a header", twoHeaders, {.headers = {{"x", "1"}, {"y", ""}}}, "-"},
      {"several values are joined by commas",
       headers(R"({"key": "x", "values": ["1,2,3"]})"),
       {.headers = {{"x", "1"}, {"x", "2"}, {"x", "3"}}},
       "+r"},
      {"and are not matched alone",
       headers(R"({"key": "x", "values": ["1", "2", "3"]})"),
       {.headers = {{"x", "1"}, {"x", "2"}, {"x", "3"}}},
       "-"},
      {"a key has no case",
       headers(R"({"key": "X-Env", "values": ["*"]})"),
       {.headers = {{"x-env", "lab"}}},
       "+r"},
      {"principal, path and header together",
       ruleOf(R"("source": {"principals": ["user:alice"]},
                 "request": {"paths": ["/a.B/C"], "headers": [{"key": "x", "values": ["1"]}]})"),
       {kAlice, "/a.B/C", {{"x", "1"}}},
       "+r"},
      {"one of the three is another",
       ruleOf(R"("source": {"principals": ["user:alice"]},
                 "request": {"paths": ["/a.B/C"], "headers": [{"key": "x", "values": ["1"]}]})"),
       {kSpiffe, "/a.B/C", {{"x", "1"}}},
       "-"},
  };
  for (const auto& [sentence, policy, call, decision] : cases)
    EXPECT_EQ(decided(Policy::parse(policy), call), decision) << sentence;
}

// What parse() says of a text that it refuses; empty when it takes it.
std::string refusalOf(const std::string& json) try {
  Policy::parse(json);
  return "";
} catch (const vorn::configuration_error& error) {
  return error.what();
}

std::string headerKey(const std::string& key) {
  return headers(R"({"key": ")" + key + R"(", "values": ["*"]})");
}

TEST(Policy, IsRefusedAsAWholeAtTheNamedPlace) {
  const std::pair<std::string, std::string> cases[] = {
      {R"({"name": "p", "allow_rules": []})", ""},
      {R"({"allow_rules": []})", "name: is missing"},
      {R"({"name": "", "allow_rules": []})", "name: is empty"},
      {R"({"name": 1, "allow_rules": []})", "name: is not a string"},
      {R"({"name": "p"})", "allow_rules: is missing"},
      {R"({"name": "p", "allow_rules": {}})", "allow_rules: is not a list"},
      {R"({"name": "p", "allow_rules": null})", "allow_rules: is not a list"},
      {R"({"name": "p", "allow_rules": [], "deny_rule": []})", "deny_rule: unknown field"},
      {R"({"name": "p", "allow_rules": [], "deny_rules": [1]})", "deny_rules[0]: is not an object"},
      {R"({"name": "p", "allow_rules": [{}]})", "allow_rules[0].name: is missing"},
      {R"({"name": "p", "allow_rules": [{"name": "a"}, {"name": "b", "users": []}]})",
       "allow_rules[1].users: unknown field"},
      {R"({"name": "p", "allow_rules": [{"name": "a"}, {"name": "a"}]})",
       "allow_rules[1].name: another rule of the list is called a"},
      {R"({"name": "p", "allow_rules": [{"name": "a"}], "deny_rules": [{"name": "a"}]})", ""},
      {ruleOf(R"("source": {"principal": []})"), "allow_rules[0].source.principal: unknown field"},
      {ruleOf(R"("source": [])"), "allow_rules[0].source: is not an object"},
      {principals("\"a\", 7"), "allow_rules[0].source.principals[1]: is not a string"},
      {ruleOf(R"("request": {"path": []})"), "allow_rules[0].request.path: unknown field"},
      {paths("null"), "allow_rules[0].request.paths[0]: is not a string"},
      {headers(R"({"values": ["a"]})"), "allow_rules[0].request.headers[0].key: is missing"},
      {headers(R"({"key": "a"})"), "allow_rules[0].request.headers[0].values: is missing"},
      {headers(R"({"key": "a", "values": []})"),
       "allow_rules[0].request.headers[0].values: is empty: nothing would match"},
      {headers(R"({"key": "a", "values": ["b"], "regex": "c"})"),
       "allow_rules[0].request.headers[0].regex: unknown field"},
      {headerKey(""), "allow_rules[0].request.headers[0].key: is empty"},
      {headerKey(":path"),
       "allow_rules[0].request.headers[0].key: no rule may ask for the header :path"},
      {headerKey("Grpc-Timeout"), "no rule may ask for the header grpc-timeout"},
      {headerKey("Host"), "no rule may ask for the header host"},
      {headerKey("connection"), "no rule may ask for the header connection"},
      {headerKey("keep-alive"), "no rule may ask for the header keep-alive"},
      {headerKey("proxy-authenticate"), "no rule may ask for the header proxy-authenticate"},
      {headerKey("proxy-authorization"), "no rule may ask for the header proxy-authorization"},
      {headerKey("TE"), "no rule may ask for the header te"},
      {headerKey("trailer"), "no rule may ask for the header trailer"},
      {headerKey("transfer-encoding"), "no rule may ask for the header transfer-encoding"},
      {headerKey("upgrade"), "no rule may ask for the header upgrade"},
      {headerKey("user-agent"), ""},
      {R"({"name": "p", "allow_rules": [], "allow_rules": []})", "is already set"},
      {R"({"name": "p", "allow_rules": [{"name": "r", "name": "s"}]})", "is already set"},
      {"", "the policy: is no JSON object"},
      {"[]", "the policy: is no JSON object"},
      {R"({"name": "p", "allow_rules": [)", "the policy: is no JSON object"},
      {R"({"name": "p", "allow_rules": []} {})", "the policy: is no JSON object"},
      {"{\"name\": \"\xff\", \"allow_rules\": []}", "the policy: is no JSON object"},
      {std::string((1 << 20) + 1, ' '), "the policy: is longer than 1 MiB"},
  };
  for (const auto& [json, refusal] : cases) {
    const auto said = refusalOf(json);
    if (refusal.empty())
      EXPECT_EQ(said, "") << json;
    else
      EXPECT_THAT(said, HasSubstr(refusal)) << json.substr(0, 200);
  }
}

}  // namespace
}  // namespace VornSdkRpc
