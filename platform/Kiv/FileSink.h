#pragma once

#include <Kiv/AppendFile.h>
#include <Kiv/LineSink.h>

#include <memory>
#include <string>

namespace Kiv {

// A sink for a log that is evidence: each line is one write to the end of a file, and is in the
// file, for every process to see, when the logger returns. A full disk costs lines, which are
// counted and told (LineSink.h), but no line is ever glued to the rest of another one: neither
// within a run of the process, nor behind what an earlier run left unfinished. Several processes
// may append to one file. To rotate it, rename it and call reopen(); cutting it to nothing behind a
// copy (logrotate's copytruncate) works, and loses what is written between the two.
//
//   Kiv::platformLogger().sinks() = {std::make_shared<Kiv::FileSink>("agent.log")};
class VORN_EXPORT FileSink : public LineSink {
 public:
  // Opens the file, or makes it with mode 0600. Throws spdlog::spdlog_ex, which names the file and
  // the reason.
  explicit FileSink(const std::string& path);
  ~FileSink() override;

  // Goes on in the file that has the path by now: when it returns, no line goes to the one before
  // any more, and none was lost. Throws spdlog::spdlog_ex when there can be no such file; lines go
  // to the one before, then. Any thread.
  void reopen();

 private:
  VORN_NO_EXPORT explicit FileSink(std::unique_ptr<AppendFile> file);
  std::size_t put(std::string_view bytes) override;

  const std::unique_ptr<AppendFile> file_;
};

}  // namespace Kiv
