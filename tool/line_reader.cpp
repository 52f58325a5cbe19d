// SPDX-License-Identifier: Apache-2.0
#include "line_reader.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "host/input_error.h"

namespace polctl {

namespace {

[[noreturn]] void fail_to_read(const std::string& name, int error) {
  throw InputError(fmt::format("{}: error: cannot be read: {} (expected a readable file)", name,
                               strerror(error)));
}

}  // namespace

InputFile::InputFile(const std::string& path, const std::string& name)
    : name_(!name.empty() ? name
            : path == "-" ? "<stdin>"
                          : path),
      fd_(path == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)
                      : open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
  if (fd_ < 0) fail_to_read(name_, errno);
  struct stat status;
  if (fstat(fd_, &status) == 0) {
    if (S_ISDIR(status.st_mode)) {
      close(fd_);
      fail_to_read(name_, EISDIR);
    }
    if (S_ISREG(status.st_mode)) size_ = static_cast<uint64_t>(status.st_size);
  }
}

InputFile::~InputFile() { close(fd_); }

size_t InputFile::read(char* to, size_t most) const {
  ssize_t got;
  do {
    got = ::read(fd_, to, most);
  } while (got < 0 && errno == EINTR);
  if (got < 0) fail_to_read(name_, errno);
  return static_cast<size_t>(got);
}

bool InputFile::ready() const {
  pollfd input = {fd_, POLLIN, 0};
  return poll(&input, 1, 0) != 0;
}

LineReader::LineReader(const std::string& path, const std::string& name)
    : file_(std::in_place, path, name),
      name_(file_->name()),
      size_(file_->size()),
      buffer_(4 * kMaxLine + kBeyond),
      text_(buffer_.data()) {}

LineReader::LineReader(const LinePiece& piece, const std::string& name)
    : name_(name),
      size_(piece.size),
      line_(piece.lines_before),
      at_end_(true),
      text_(piece.text.data()),
      end_(piece.size) {}

bool LineReader::fill() {
  if (at_end_) return false;
  if (begin_ > 0) {
    memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  size_t got = file_->read(buffer_.data() + end_, buffer_.size() - kBeyond - end_);
  at_end_ = got == 0;
  end_ += got;
  return got > 0;
}

void LineReader::skip_rest_of_line() {
  for (;;) {
    const char* start = text_ + begin_;
    const char* newline = static_cast<const char*>(memchr(start, '\n', end_ - begin_));
    size_t skipped = newline != nullptr ? static_cast<size_t>(newline - start) + 1 : end_ - begin_;
    begin_ += skipped;
    consumed_ += skipped;
    if (newline != nullptr || !fill()) return;
  }
}

bool LineReader::next(std::string_view* line) {
  if (overlong_) skip_rest_of_line();
  overlong_ = false;
  size_t searched = 0;
  for (;;) {
    const char* start = text_ + begin_;
    size_t unread = end_ - begin_;
    const char* newline =
        static_cast<const char*>(memchr(start + searched, '\n', unread - searched));
    size_t length = newline != nullptr ? static_cast<size_t>(newline - start) : unread;
    if (newline == nullptr && length <= kMaxLine) {
      searched = length;
      if (fill()) continue;
      if (end_ == begin_) return false;
      start = text_ + begin_;  // a failed fill may have moved the rest
    }
    ++line_;
    overlong_ = length > kMaxLine;
    size_t kept = overlong_ ? kMaxLine : length;
    size_t used = !overlong_ && newline != nullptr ? kept + 1 : kept;
    begin_ += used;
    consumed_ += used;
    if (!overlong_ && kept > 0 && start[kept - 1] == '\r') --kept;
    *line = {start, kept};
    return true;
  }
}

}  // namespace polctl
