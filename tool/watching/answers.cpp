// SPDX-License-Identifier: Apache-2.0
#include "tool/watching/answers.h"

#include <unistd.h>

#include "host/input_error.h"
#include "host/polled_server.h"

namespace polctl {

namespace {

constexpr size_t kMaxAnswer = size_t{64} * 1024 * 1024;

class AnswerFile {
 public:
  AnswerFile() : fd_(bounded_file(kMaxAnswer)) {
    if (fd_ < 0) throw InputError("polctl: error: the host has no memory for an answer");
  }
  ~AnswerFile() { close(fd_); }
  AnswerFile(const AnswerFile&) = delete;
  AnswerFile& operator=(const AnswerFile&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

}  // namespace

std::string printed(const std::function<void(Output*)>& write) {
  AnswerFile file;
  Output out(file.fd());
  write(&out);
  out.flush();
  std::string text(static_cast<size_t>(lseek(file.fd(), 0, SEEK_CUR)), '\0');
  if (pread(file.fd(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
    throw InputError("polctl: error: the host has no memory for an answer");
  }
  return text;
}

std::string as_array(const std::string& lines) {
  std::string array = "[";
  for (size_t i = 0; i < lines.size(); ++i) {
    if (lines[i] == '\n' && i + 1 < lines.size()) array += ',';
    array += lines[i];
  }
  return array + "]\n";
}

}  // namespace polctl
