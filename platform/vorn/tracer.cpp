#include <vorn/tracer.h>

#include <cstdarg>
#include <cstdio>
#include <string>

namespace vorn {

namespace {

// vsnprintf into a string as long as the text needs.
[[gnu::format(printf, 1, 0)]] std::string formatted(const char* format, va_list args) {
  va_list measured;
  va_copy(measured, args);
  const int length = std::vsnprintf(nullptr, 0, format, measured);
  va_end(measured);
  if (length < 0) return format;
  std::string text(static_cast<std::size_t>(length), '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, args);
  return text;
}

}  // namespace

void tracer::trace0(const char* format, ...) const {
  if (!handle_.enabled(0)) return;
  va_list args;
  va_start(args, format);
  handle_.write(0, formatted(format, args));
  va_end(args);
}

void tracer::warn(const char* format, ...) const {
  if (!handle_.enabled(0)) return;
  va_list args;
  va_start(args, format);
  handle_.warn(formatted(format, args));
  va_end(args);
}

void tracer::error(const char* format, ...) const {
  if (!handle_.enabled(0)) return;
  va_list args;
  va_start(args, format);
  handle_.error(formatted(format, args));
  va_end(args);
}

void tracer::trace8(const char* format, ...) const {
  if (!handle_.enabled(8)) return;
  va_list args;
  va_start(args, format);
  handle_.write(8, formatted(format, args));
  va_end(args);
}

}  // namespace vorn
