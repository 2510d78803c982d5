#include <VornSdkRpc/RpcStatus.h>

#include <google/protobuf/any.pb.h>
#include <google/protobuf/duration.pb.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/util/time_util.h>

#include <algorithm>
#include <cstdint>
#include <utility>

namespace VornSdkRpc::rpc {

namespace {

using google::protobuf::io::CodedOutputStream;
using google::protobuf::io::StringOutputStream;

// A client takes 8 KiB of metadata: the text, three times as long on the wire at most, and the
// details, four thirds.
constexpr std::size_t kLongestText = 1024;
constexpr std::size_t kLongestDescription = 256;
constexpr std::size_t kMostViolations = 1500;

constexpr std::uint32_t tagOf(std::uint32_t field, std::uint32_t wireType) {
  return field << 3U | wireType;
}

void addNumber(std::string& message, std::uint32_t field, std::uint32_t number) {
  StringOutputStream stream(&message);
  CodedOutputStream out(&stream);
  out.WriteTag(tagOf(field, 0));
  out.WriteVarint32(number);
}

void addBytes(std::string& message, std::uint32_t field, const std::string& bytes) {
  StringOutputStream stream(&message);
  CodedOutputStream out(&stream);
  out.WriteTag(tagOf(field, 2));
  out.WriteVarint32(static_cast<std::uint32_t>(bytes.size()));
  out.WriteString(bytes);
}

void addDetail(std::string& status, const char* type, const std::string& value) {
  if (value.empty()) return;
  google::protobuf::Any detail;
  detail.set_type_url(std::string("type.googleapis.com/google.rpc.") + type);
  detail.set_value(value);
  addBytes(status, 3, detail.SerializeAsString());
}

}  // namespace

StatusError::StatusError(grpc::StatusCode code, std::string_view message)
    : code_(code), message_(message.substr(0, kLongestText)) {}

StatusError::~StatusError() = default;

StatusError& StatusError::wrongField(std::string_view field, std::string_view description) & {
  std::string violation;
  addBytes(violation, 1, std::string(field.substr(0, kLongestDescription)));
  addBytes(violation, 2, std::string(description.substr(0, kLongestDescription)));
  if (badRequest_.size() + violation.size() < kMostViolations) addBytes(badRequest_, 1, violation);
  return *this;
}

StatusError&& StatusError::wrongField(std::string_view field, std::string_view description) && {
  return std::move(wrongField(field, description));
}

StatusError& StatusError::retryAfter(std::chrono::milliseconds delay) & {
  using google::protobuf::util::TimeUtil;
  const auto shown = std::clamp<std::int64_t>(delay.count(), 0, 365LL * 24 * 3600 * 1000);
  retryInfo_.clear();
  addBytes(retryInfo_, 1, TimeUtil::MillisecondsToDuration(shown).SerializeAsString());
  return *this;
}

StatusError&& StatusError::retryAfter(std::chrono::milliseconds delay) && {
  return std::move(retryAfter(delay));
}

grpc::Status StatusError::status() const {
  if (badRequest_.empty() && retryInfo_.empty()) return {code_, message_};
  std::string details;
  addNumber(details, 1, static_cast<std::uint32_t>(code_));
  addBytes(details, 2, message_);
  addDetail(details, "BadRequest", badRequest_);
  addDetail(details, "RetryInfo", retryInfo_);
  return {code_, message_, details};
}

}  // namespace VornSdkRpc::rpc
