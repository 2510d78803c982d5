#include <Kiv/FileSink.h>

namespace Kiv {

FileSink::FileSink(const std::string& path) : FileSink(std::make_unique<AppendFile>(path)) {}

FileSink::FileSink(std::unique_ptr<AppendFile> file)
    : LineSink(file->openedWithinLine()), file_(std::move(file)) {}

FileSink::~FileSink() = default;

void FileSink::reopen() {
  const std::lock_guard lock(mutex_);
  file_->reopen();
  tornIs(file_->openedWithinLine());
}

std::size_t FileSink::put(std::string_view bytes) { return file_->append(bytes); }

}  // namespace Kiv
