// SPDX-License-Identifier: Apache-2.0
#include "output.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "input_error.h"

namespace polctl {

std::string joined(const std::vector<std::string>& texts, std::string_view separator) {
  std::string all;
  for (size_t i = 0; i < texts.size(); ++i) {
    if (i > 0) all += separator;
    all += texts[i];
  }
  return all;
}

void Output::write_out(std::string_view text) {
  if (gone_) return;
  while (!text.empty()) {
    ssize_t written = ::write(fd_, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) {
      int error = errno;
      gone_ = true;
      buffer_.clear();
      if (error == EPIPE) return;
      throw InputError(fmt::format("polctl: error: cannot write the answer: {}", strerror(error)));
    }
    text.remove_prefix(static_cast<size_t>(written));
  }
}

void Output::flush() {
  if (fd_ == kNoFile) return;
  write_out(text());
  buffer_.clear();
}

void Output::pass(std::string_view text) {
  if (buffer_.size() + text.size() < kFull) return write(text);
  flush();
  write_out(text);
}

}  // namespace polctl
