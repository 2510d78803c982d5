#include <VornSdkRpc/Policy.h>

#include <google/protobuf/struct.pb.h>
#include <google/protobuf/util/json_util.h>
#include <vorn/error.h>

#include <algorithm>
#include <array>
#include <initializer_list>
#include <set>
#include <utility>

namespace VornSdkRpc {

namespace {

using google::protobuf::Struct;
using google::protobuf::Value;

constexpr std::size_t kLongest = 1 << 20;

// ------------------------------------------------------------------------------------------------
// What a policy is made of

// One string of a policy, as it matches.
class TextMatch {
 public:
  explicit TextMatch(std::string text) : text_(std::move(text)) {
    if (text_ == "*") {
      kind_ = Kind::presence;
    } else if (text_.starts_with('*')) {
      kind_ = Kind::suffix;
      text_.erase(0, 1);
    } else if (text_.ends_with('*')) {
      kind_ = Kind::prefix;
      text_.pop_back();
    }
  }

  bool matches(std::string_view value) const {
    switch (kind_) {
      case Kind::presence:
        return !value.empty();
      case Kind::prefix:
        return value.starts_with(text_);
      case Kind::suffix:
        return value.ends_with(text_);
      case Kind::exact:
        break;
    }
    return value == text_;
  }

  bool isPresence() const { return kind_ == Kind::presence; }

 private:
  enum class Kind { exact, prefix, suffix, presence };

  std::string text_;
  Kind kind_ = Kind::exact;
};

bool matchesOne(const std::vector<TextMatch>& matches, std::string_view value) {
  return std::ranges::any_of(matches, [&](const auto& match) { return match.matches(value); });
}

bool isLocal(std::string_view principal) {
  return std::ranges::any_of(std::array{"uid:", "user:", "gid:", "group:"},
                             [principal](const char* kind) { return principal.starts_with(kind); });
}

// One string of source.principals.
class Principal {
 public:
  explicit Principal(const std::string& text) : local_(isLocal(text)), match_(text) {}

  bool matches(const PolicyPeer& peer) const {
    const auto matches = [this](const auto& name) { return match_.matches(name); };
    if (local_) return std::ranges::any_of(peer.local, matches);
    if (match_.isPresence() && !peer.local.empty()) return true;
    return std::ranges::any_of(peer.names, matches);
  }

 private:
  bool local_;
  TextMatch match_;
};

struct Header {
  bool matches(const PolicyRequest::Headers& headers) const {
    const auto [first, last] = headers.equal_range(grpc::string_ref(key.data(), key.size()));
    if (first == last) return false;
    const auto text = [](const grpc::string_ref& value) {
      return std::string_view(value.data(), value.size());
    };
    if (std::next(first) == last) return matchesOne(values, text(first->second));
    std::string joined(text(first->second));
    for (auto more = std::next(first); more != last; ++more)
      joined.append(",").append(text(more->second));
    return matchesOne(values, joined);
  }

  std::string key;
  std::vector<TextMatch> values;
};

struct Conditions {
  bool match(const PolicyRequest& request) const {
    return (principals.empty() ||
            std::ranges::any_of(principals,
                                [&](const auto& one) { return one.matches(request.peer); })) &&
           (paths.empty() || matchesOne(paths, request.path)) &&
           std::ranges::all_of(headers,
                               [&](const auto& one) { return one.matches(request.headers); });
  }

  std::vector<Principal> principals;
  std::vector<TextMatch> paths;
  std::vector<Header> headers;
};

// ------------------------------------------------------------------------------------------------
// Reading one

[[noreturn]] void refuse(const std::string& path, const std::string& what) {
  throw vorn::configuration_error((path.empty() ? "the policy" : path) + ": " + what);
}

std::string inside(const std::string& path, std::string_view field) {
  return (path.empty() ? "" : path + ".") + std::string(field);
}

// A JSON value and where it stands.
struct Place {
  std::string text() const {
    if (value.kind_case() != Value::kStringValue) refuse(path, "is not a string");
    return value.string_value();
  }

  // Calls take(Place) for every item.
  template <typename Take>
  void forEach(Take take) const {
    if (value.kind_case() != Value::kListValue) refuse(path, "is not a list");
    int index = 0;
    for (const auto& item : value.list_value().values())
      take(Place{item, path + "[" + std::to_string(index++) + "]"});
  }

  const Value& value;
  std::string path;
};

// A JSON object, where it stands, and that it has no fields but the known ones.
class Object {
 public:
  Object(const Struct& fields, std::string path, std::initializer_list<std::string_view> known)
      : fields_(fields), path_(std::move(path)) {
    std::set<std::string> unknown;
    for (const auto& [name, value] : fields.fields()) {
      if (std::ranges::find(known, name) == known.end()) unknown.insert(name);
    }
    if (!unknown.empty()) refuse(inside(path_, *unknown.begin()), "unknown field");
  }
  Object(const Place& place, std::initializer_list<std::string_view> known)
      : Object(fieldsOf(place), place.path, known) {}

  // Calls take(Place) for a field, if it is there.
  template <typename Take>
  void with(std::string_view name, Take take) const {
    const auto field = fields_.fields().find(std::string(name));
    if (field != fields_.fields().end()) take(Place{field->second, inside(path_, name)});
  }

  Place required(std::string_view name) const {
    const auto field = fields_.fields().find(std::string(name));
    if (field == fields_.fields().end()) refuse(inside(path_, name), "is missing");
    return {field->second, inside(path_, name)};
  }

 private:
  static const Struct& fieldsOf(const Place& place) {
    if (place.value.kind_case() != Value::kStructValue) refuse(place.path, "is not an object");
    return place.value.struct_value();
  }

  const Struct& fields_;
  const std::string path_;
};

std::string nameOf(const Object& object) {
  const Place place = object.required("name");
  auto name = place.text();
  if (name.empty()) refuse(place.path, "is empty");
  return name;
}

// A header's key in lower case; one that the format leaves out is refused.
std::string keyOf(const Object& header) {
  static constexpr std::string_view kOfTheHop[] = {"host",
                                                   "connection",
                                                   "keep-alive",
                                                   "proxy-authenticate",
                                                   "proxy-authorization",
                                                   "te",
                                                   "trailer",
                                                   "transfer-encoding",
                                                   "upgrade"};
  const Place place = header.required("key");
  std::string key = place.text();
  std::ranges::transform(key, key.begin(), [](unsigned char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a')
                                          : static_cast<char>(letter);
  });
  if (key.empty()) refuse(place.path, "is empty");
  if (key.starts_with(':') || key.starts_with("grpc-") ||
      std::ranges::find(kOfTheHop, key) != std::end(kOfTheHop)) {
    refuse(place.path, "no rule may ask for the header " + key);
  }
  return key;
}

Header headerOf(const Place& place) {
  const Object object(place, {"key", "values"});
  Header header{.key = keyOf(object), .values = {}};
  const Place values = object.required("values");
  values.forEach([&](const Place& value) { header.values.emplace_back(value.text()); });
  if (header.values.empty()) refuse(values.path, "is empty: nothing would match");
  return header;
}

Conditions conditionsOf(const Object& rule) {
  Conditions conditions;
  rule.with("source", [&](const Place& source) {
    Object(source, {"principals"}).with("principals", [&](const Place& principals) {
      principals.forEach([&](const Place& one) { conditions.principals.emplace_back(one.text()); });
    });
  });
  rule.with("request", [&](const Place& place) {
    const Object request(place, {"paths", "headers"});
    request.with("paths", [&](const Place& paths) {
      paths.forEach([&](const Place& one) { conditions.paths.emplace_back(one.text()); });
    });
    request.with("headers", [&](const Place& headers) {
      headers.forEach([&](const Place& one) { conditions.headers.push_back(headerOf(one)); });
    });
  });
  return conditions;
}

// protobuf's words on a text that is no JSON are several lines; the first says it.
Struct fieldsOf(std::string_view json) {
  if (json.size() > kLongest) refuse("", "is longer than 1 MiB");
  Struct fields;
  const auto status =
      google::protobuf::util::JsonStringToMessage({json.data(), json.size()}, &fields);
  if (!status.ok()) {
    const std::string text(status.message().data(), status.message().size());
    refuse("", "is no JSON object: " + text.substr(0, std::min(text.find('\n'), std::size_t{256})));
  }
  return fields;
}

}  // namespace

void addPrincipal(PolicyPeer& peer, std::string_view principal) {
  if (isLocal(principal))
    peer.local.emplace_back(principal);
  else
    peer.names.push_back(principal);
}

struct Policy::Content {
  void add(const Place& list, bool allows) {
    std::set<std::string> names;
    list.forEach([&](const Place& place) {
      const Object rule(place, {"name", "source", "request"});
      auto ruleName = nameOf(rule);
      if (!names.insert(ruleName).second)
        refuse(inside(place.path, "name"), "another rule of the list is called " + ruleName);
      conditions.push_back(conditionsOf(rule));
      rules.push_back({.name = std::move(ruleName), .allows = allows});
    });
  }

  std::string name;
  std::vector<PolicyRule> rules;
  std::vector<Conditions> conditions;  // of the rules
};

Policy Policy::parse(std::string_view json) {
  const Struct fields = fieldsOf(json);
  const Object object(fields, "", {"name", "allow_rules", "deny_rules"});
  auto content = std::make_shared<Content>();
  content->name = nameOf(object);
  object.with("deny_rules", [&](const Place& list) { content->add(list, false); });
  content->add(object.required("allow_rules"), true);
  return Policy(std::move(content));
}

PolicyDecision Policy::decide(const PolicyRequest& request) const {
  // Deny rules come first in the list.
  const auto matching = std::ranges::find_if(
      content_->conditions, [&](const auto& conditions) { return conditions.match(request); });
  if (matching == content_->conditions.end())
    return {.allowed = false, .rule = PolicyDecision::kNoRule};
  const auto index = static_cast<std::size_t>(matching - content_->conditions.begin());
  return {.allowed = content_->rules[index].allows, .rule = index};
}

const std::string& Policy::name() const { return content_->name; }

const std::vector<PolicyRule>& Policy::rules() const { return content_->rules; }

}  // namespace VornSdkRpc
