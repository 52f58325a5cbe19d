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

void Output::flush() {
  const char* next = buffer_.data();
  size_t left = gone_ ? 0 : buffer_.size();
  while (left > 0) {
    ssize_t written = ::write(fd_, next, left);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) {
      int error = errno;
      gone_ = true;
      buffer_.clear();
      if (error == EPIPE) return;
      throw InputError(fmt::format("polctl: error: cannot write the answer: {}", strerror(error)));
    }
    next += written;
    left -= static_cast<size_t>(written);
  }
  buffer_.clear();
}

}  // namespace polctl
