#include "agents/routing/StateFile.h"

#include <Kiv/Log.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vorn/tracer.h>
#include <zlib.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

#include "agents/routing/Check.h"

namespace routing_agent {

namespace {

// A file is a Header, then records: a RecordHeader and the bytes of the message. All numbers are in
// the machine's order.
struct Header {
  std::array<char, 12> magic{'r', 'o', 'u', 't', 'i', 'n', 'g', 's', 't', 'a', 't', 'e'};
  std::uint32_t version = 1;
};

struct RecordHeader {
  std::uint32_t kind = 0;
  std::uint32_t size = 0;
  std::uint32_t sum = 0;        // of the message's bytes
  std::uint32_t headerSum = 0;  // of what is above: a size that is wrong is not taken for the end
};

constexpr std::size_t kMaxRecord = std::size_t{16} << 20;  // more than gRPC takes in a message
constexpr std::size_t kCopied = std::size_t{1} << 20;      // bytes at once
constexpr std::size_t kSmall = std::size_t{1} << 20;       // below, a file is never written anew

Kiv::LogDescriptor failedDescriptor = {
    "ROUTING_AGENT_STATE_FILE_FAILED", "%s; the file goes on growing until it can be written anew",
    "The agent can't replace its state file by a smaller one. Make room on the file system, or "
    "give the agent the right to write into the folder of the file.",
    "\x01", 4};
Kiv::LogHandle failedHandle(&failedDescriptor, std::chrono::minutes(1), 1.0, 1, 0);

std::uint32_t sumOf(std::string_view bytes) {
  return static_cast<std::uint32_t>(
      crc32_z(0, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size()));
}

template <typename Plain>
std::string_view bytesOf(const Plain& plain) {
  return {reinterpret_cast<const char*>(&plain), sizeof plain};
}

std::uint32_t headerSumOf(const RecordHeader& header) {
  return sumOf(bytesOf(header).substr(0, offsetof(RecordHeader, headerSum)));
}

void append(std::string& buffer, StateFile::Kind kind,
            const google::protobuf::MessageLite& message) {
  const auto begin = buffer.size();
  buffer.resize(begin + sizeof(RecordHeader));
  message.AppendToString(&buffer);
  const auto bytes = std::string_view(buffer).substr(begin + sizeof(RecordHeader));
  RecordHeader header{kind, static_cast<std::uint32_t>(bytes.size()), sumOf(bytes)};
  header.headerSum = headerSumOf(header);
  buffer.replace(begin, sizeof header, bytesOf(header));
}

template <typename Message, typename Key, typename Table>
void setOrRemove(const Message& message, const Key& key, Table& table) {
  if (message.request_delete()) {
    table.remove(key);
  } else {
    table.set(key, message);
  }
}

// The parts of a file, one after the other.
class Reader {
 public:
  explicit Reader(int fd) : fd_(fd) {}

  // The next `size` bytes, fewer at the file's end. Valid until the next call.
  std::string_view next(std::size_t size) {
    if (buffer_.size() - begin_ < size) {
      buffer_.erase(0, std::exchange(begin_, 0));
      fill(size);
    }
    const auto bytes = std::string_view(buffer_).substr(begin_, size);
    begin_ += bytes.size();
    return bytes;
  }

 private:
  void fill(std::size_t size) {
    while (buffer_.size() < size) {
      const auto had = buffer_.size();
      buffer_.resize(had + std::max(size, kCopied));
      const auto count = ::read(fd_, buffer_.data() + had, buffer_.size() - had);
      buffer_.resize(had + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
      if (count < 0 && errno != EINTR) throw StateFile::Error(std::strerror(errno));
      if (count == 0) return;
    }
  }

  const int fd_;
  std::string buffer_;
  std::size_t begin_ = 0;
};

}  // namespace

StateFile::StateFile(std::string path, Tables& tables)
    : path_(std::move(path)),
      tables_(tables),
      file_(open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0600)) {
  if (file_ < 0) failedTo("open");
  struct stat found{}, named{};
  if (fstat(file_, &found) != 0) failedTo("look at");
  if (!S_ISREG(found.st_mode)) fail("it is no regular file");
  own(file_);
  if (stat(path_.c_str(), &named) != 0 || named.st_ino != found.st_ino)
    fail("another agent has just replaced it");
  if (found.st_size == 0) {
    begin(file_);
  } else {
    read(file_, tables);
  }
  rewritten_ = size_;
}

StateFile::~StateFile() {
  stopping_ = true;
  if (rewriter_.joinable()) rewriter_.join();
}

void StateFile::fail(const std::string& why) const {
  throw Error("state file " + path_ + ": " + why);
}

void StateFile::failedTo(const char* what) const {
  fail(std::string("cannot ") + what + " it: " + std::strerror(errno));
}

void StateFile::own(int fd) const {
  if (flock(fd, LOCK_EX | LOCK_NB) == 0) return;
  if (errno == EWOULDBLOCK) fail("another agent uses it");
  failedTo("lock");
}

// ------------------------------------------------------------------------------------------------
// Reading

// An empty file gets its header in one write; one that was cut off there is told as no state file.
void StateFile::begin(int fd) {
  writeAll(fd, 0, bytesOf(Header()));
  size_ = sizeof(Header);
}

void StateFile::read(int fd, Tables& tables) {
  Reader reader(fd);
  Header header;
  const auto first = reader.next(sizeof header);
  if (first.size() < sizeof header) fail("it is no state file");
  std::memcpy(&header, first.data(), sizeof header);
  if (header.magic != Header().magic) fail("it is no state file");
  if (header.version != Header().version)
    fail("it is of version " + std::to_string(header.version) + ", and this agent knows version 1");

  size_ = sizeof header;
  for (;;) {
    RecordHeader record;
    const auto begin = reader.next(sizeof record);
    if (begin.size() < sizeof record) break;
    std::memcpy(&record, begin.data(), sizeof record);
    const auto place = "it is damaged at byte " + std::to_string(size_);
    if (headerSumOf(record) != record.headerSum || record.size > kMaxRecord) fail(place);
    const auto bytes = reader.next(record.size);
    if (bytes.size() < record.size) break;
    if (sumOf(bytes) != record.sum) fail(place);
    apply(static_cast<Kind>(record.kind), bytes, tables);
    size_ += sizeof record + record.size;
  }
  if (ftruncate(fd, static_cast<off_t>(size_.load())) != 0) failedTo("cut");
}

void StateFile::apply(Kind kind, std::string_view bytes, Tables& tables) const {
  const auto as = [&]<typename Message>(Message message, auto set) {
    if (!message.ParseFromArray(bytes.data(), static_cast<int>(bytes.size())))
      fail("its record at byte " + std::to_string(size_) + " can't be read");
    try {
      check(message);
    } catch (const std::exception& error) {
      fail("its record at byte " + std::to_string(size_) + " can't be used: " + error.what());
    }
    set(message);
  };
  switch (kind) {
    case kRoute:
      return as(ip_route_msg(),
                [&](const auto& route) { tables.routes.set(PrefixKey(route.prefix()), route); });
    case kRouteRemoved:
      return as(ip_prefix_msg(),
                [&](const auto& prefix) { tables.routes.remove(PrefixKey(prefix)); });
    case kGroup:
      return as(nexthop_group_msg(),
                [&](const auto& group) { setOrRemove(group, group.name(), tables.groups); });
    case kMplsRoute:
      return as(mpls_route_msg(),
                [&](const auto& route) { setOrRemove(route, route.label(), tables.mplsRoutes); });
    case kRedirect:
      return as(cbf_nexthop_group_redirect_msg(), [&](const auto& redirect) {
        setOrRemove(redirect, redirect.match_nexthop_group(), tables.redirects);
      });
    case kSession:
      return as(sbfd_echo_session_msg(), [&](const auto& session) {
        setOrRemove(session, session.session_key().SerializeAsString(), tables.sessions);
      });
    case kState:
      return as(rpc_server_state_config_msg(),
                [&](const auto& config) { tables.configureState(config); });
  }
  fail("its record at byte " + std::to_string(size_) + " is of a newer version");
}

// ------------------------------------------------------------------------------------------------
// Writing

void StateFile::add(Kind kind, const google::protobuf::MessageLite& message) {
  append(buffer_, kind, message);
}

void StateFile::keep(Kind kind, const google::protobuf::MessageLite& message) {
  const auto before = buffer_.size();
  append(buffer_, kind, message);
  try {
    flush();
  } catch (const Error&) {
    buffer_.resize(before);
    throw;
  }
}

void StateFile::flush() {
  if (buffer_.empty()) return;
  const vorn::lock_guard lock(mutex_);
  try {
    writeAll(file_, size_, buffer_);
    failed_ = false;
  } catch (const Error&) {  // a part of it may be there
    failed_ = true;
    [[maybe_unused]] const int cut = ftruncate(file_, static_cast<off_t>(size_.load()));
    throw;
  }
  size_ += buffer_.size();
  buffer_.clear();
}

bool StateFile::isWritable() {
  if (!failed_) return true;
  constexpr std::uint32_t kSome = 4096;
  RecordHeader header{0, kSome, 0};
  header.headerSum = headerSumOf(header);
  // Without its last byte: if a kill leaves it there, it is a record that was cut off.
  const std::string cutOff = std::string(bytesOf(header)) + std::string(kSome - 1, '\0');
  const vorn::lock_guard lock(mutex_);
  try {
    writeAll(file_, size_, cutOff);
    failed_ = false;
  } catch (const Error&) {  // tried again when this is asked again
  }
  [[maybe_unused]] const int cut = ftruncate(file_, static_cast<off_t>(size_.load()));
  return !failed_;
}

void StateFile::writeAll(int fd, std::size_t place, std::string_view bytes) const {
  while (!bytes.empty()) {
    const auto count = pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(place));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) failedTo("write");
    bytes.remove_prefix(static_cast<std::size_t>(count));
    place += static_cast<std::size_t>(count);
  }
}

// ------------------------------------------------------------------------------------------------
// Writing anew

bool StateFile::wantsRewrite() const {
  if (rewriting_) return false;  // first: what the thread that writes it leaves behind is read then
  return dropped_ || (size_ > kSmall && size_ / 4 > rewritten_);
}

void StateFile::markRewrite() {
  rewriting_ = true;
  mark_ = size_;
  droppedBefore_ = std::exchange(dropped_, false);
}

void StateFile::rewriteLater() {
  rewriting_ = false;
  dropped_ = droppedBefore_;
}

void StateFile::rewrite() {
  if (rewriter_.joinable()) rewriter_.join();
  rewriter_ = std::thread([this] {
    try {
      rewriteNow();
    } catch (const std::exception& error) {
      unlink((path_ + ".new").c_str());
      if (!stopping_) Kiv::log(failedHandle, std::string(error.what()));
      rewritten_ = size_;  // not again at once
    }
    rewriting_ = false;
  });
}

// The tables hold all changes up to the mark. They may change while they are written, by changes
// that are behind the mark and follow here as well: whoever reads both ends with the same.
void StateFile::rewriteNow() {
  const auto path = path_ + ".new";
  Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (file < 0) failedTo("write anew");
  own(file);
  const auto tables = writeTables(file);
  auto copied = mark_;
  copyTail(this->file(), file, tables, copied);
  if (fsync(file) != 0) failedTo("write anew");

  const vorn::lock_guard lock(mutex_);
  copyTail(file_, file, tables, copied);
  if (rename(path.c_str(), path_.c_str()) != 0) failedTo("replace");
  size_ = tables + (copied - mark_);
  rewritten_ = size_;
  std::swap(file_, file);
}

// Answers how large they are.
std::size_t StateFile::writeTables(int fd) {
  std::size_t written = 0;
  std::string records(bytesOf(Header()));
  const auto write = [&](Kind kind, const google::protobuf::MessageLite& message) {
    append(records, kind, message);
    if (records.size() < kCopied) return;
    if (stopping_) fail("the agent stops");
    writeAll(fd, written, records);
    written += records.size();
    records.clear();
  };
  tables_.groups.forEach([&](const auto&, const auto& group) { write(kGroup, group); });
  tables_.routes.forEach([&](const auto&, const auto& route) {
    if (!route.nexthop_group().empty()) write(kRoute, route);  // else nobody has set it
  });
  tables_.mplsRoutes.forEach([&](const auto&, const auto& route) { write(kMplsRoute, route); });
  tables_.redirects.forEach([&](const auto&, const auto& one) { write(kRedirect, one); });
  tables_.sessions.forEach([&](const auto&, const auto& session) { write(kSession, session); });
  tables_.state.forEach([&](const auto& key, const auto& value) {
    rpc_server_state_config_msg config;
    auto& entry = *config.add_set();
    entry.set_key(key);
    entry.set_value(value);
    write(kState, config);
  });
  writeAll(fd, written, records);
  return written + records.size();
}

// The file to read from: only who writes anew replaces it.
int StateFile::file() const {
  const vorn::lock_guard lock(mutex_);
  return file_;
}

// Copies what `from` holds from `copied` on. The mark comes to be at `place`.
void StateFile::copyTail(int from, int to, std::size_t place, std::size_t& copied) const {
  std::string bytes;
  for (const std::size_t end = size_; copied < end;) {
    bytes.resize(std::min(end - copied, kCopied));
    const auto count = pread(from, bytes.data(), bytes.size(), static_cast<off_t>(copied));
    if (count <= 0) failedTo("read");
    bytes.resize(static_cast<std::size_t>(count));
    writeAll(to, place + (copied - mark_), bytes);
    copied += bytes.size();
  }
}

}  // namespace routing_agent
