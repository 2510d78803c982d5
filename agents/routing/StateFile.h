#pragma once

#include <google/protobuf/message_lite.h>
#include <vorn/mutex.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "agents/routing/Descriptor.h"
#include "agents/routing/Tables.h"

namespace routing_agent {

// The file that keeps what clients have set, so that it is there after a restart: a journal of the
// changes, each a record that is complete or not there, wherever the process was killed. A change
// is in the file before its client is answered. It survives the process, not a loss of power, which
// may take the last seconds.
//
// The file is written anew, without what has been replaced and removed, when it has become four
// times as large as it was then: beside the running agent, into FILE.new, which takes its place at
// once. One agent uses a file.
class StateFile {
 public:
  // What a record holds: the message that set or deleted it.
  enum Kind : std::uint32_t {
    kRoute = 1,
    kRouteRemoved,
    kGroup,
    kMplsRoute,
    kRedirect,
    kSession,
    kState,
  };

  // A file that can't be used, or not be written. what() is one line that names the file.
  struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
  };

  // Opens the file, or makes it, and reads what it holds into `tables`, which it writes anew from
  // later: they have to outlive it. A record that was being written at the end is cut off. Throws
  // Error, with the file as it was, when it is damaged, is of a newer version or no such file, or
  // when another agent uses it.
  StateFile(std::string path, Tables& tables);

  // Ends the writing anew, if there is one.
  ~StateFile();
  StateFile(const StateFile&) = delete;
  StateFile& operator=(const StateFile&) = delete;

  // Adds a record. It is in the file with the next flush(). Serving thread, as all that follows.
  void add(Kind kind, const google::protobuf::MessageLite& message);

  // Adds a record, and has it in the file. Throws Error when it can't be: then it is not added.
  void keep(Kind kind, const google::protobuf::MessageLite& message);

  // Has every record in the file. Throws Error; they are tried again with the next.
  void flush();

  // Whether records wait for a flush that should not wait longer.
  bool isFull() const { return buffer_.size() >= kFlushed; }

  // Whether the file should be written anew, as it has grown or holds changes that were dropped
  // since (rewriteSoon()). It then is by a flush, markRewrite() and, once all changes so far are in
  // the tables or dropped, rewrite(), which any thread may call, or not by rewriteLater().
  bool wantsRewrite() const;
  void rewriteSoon() { dropped_ = true; }
  void markRewrite();
  void rewrite();
  void rewriteLater();

  // Whether changes can be written: when the last could not, it tries some bytes that it takes away
  // again. Any thread.
  bool isWritable();

  // How large the file is, in bytes. Any thread.
  std::size_t size() const { return size_; }

 private:
  static constexpr std::size_t kFlushed = std::size_t{64} << 10;

  [[noreturn]] void fail(const std::string& why) const;
  [[noreturn]] void failedTo(const char* what) const;  // with errno
  void own(int fd) const;
  void begin(int fd);
  void read(int fd, Tables& tables);
  void apply(Kind kind, std::string_view bytes, Tables& tables) const;
  void writeAll(int fd, std::size_t place, std::string_view bytes) const;
  std::size_t writeTables(int fd);
  void copyTail(int from, int to, std::size_t place, std::size_t& copied) const;
  int file() const;
  void rewriteNow();

  const std::string path_;
  Tables& tables_;
  mutable vorn::mutex mutex_;  // guards the file against its replacement
  Descriptor file_ VORN_GUARDED_BY(mutex_);
  std::atomic<std::size_t> size_ = 0;
  std::atomic<bool> failed_ = false;  // the last write did
  std::size_t rewritten_ = 0;         // how large it was when it was last written anew
  std::size_t mark_ = 0;              // what the file held when writing it anew was asked for
  bool dropped_ = false;              // it holds changes that were
  bool droppedBefore_ = false;        // likewise, before the mark
  std::string buffer_;
  std::atomic<bool> rewriting_ = false;
  std::atomic<bool> stopping_ = false;
  std::thread rewriter_;
};

}  // namespace routing_agent
