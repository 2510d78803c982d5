#pragma once

#include <Kiv/LineSink.h>

#include <string>

namespace Kiv {

// A sink for a log that is evidence: each line is one write to the end of a file, and is in the
// file, for every process to see, when the logger returns. A full disk costs lines, which are
// counted and told (LineSink.h), but no line is ever glued to the rest of another one: neither
// within a run of the process, nor behind what an earlier run left unfinished. Several processes
// may append to one file, and another program may cut it to nothing (logrotate's copytruncate).
//
//   Kiv::platformLogger().sinks() = {std::make_shared<Kiv::FileSink>("agent.log")};
class VORN_EXPORT FileSink : public LineSink {
 public:
  // Opens the file, or makes it with mode 0600. Throws spdlog::spdlog_ex, which names the file and
  // the reason.
  explicit FileSink(const std::string& path);
  ~FileSink() override;

 private:
  std::size_t put(std::string_view bytes) override;

  const int fd_;
};

}  // namespace Kiv
