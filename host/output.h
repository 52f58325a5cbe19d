/* SPDX-License-Identifier: Apache-2.0
 *
 * output.h - standard output, buffered in large pieces.
 *
 * A reader that goes away (head, a closed pager) is no error: gone() turns true, what is written
 * after that is dropped, and the command stops quietly.
 */
#ifndef HOST_OUTPUT_H
#define HOST_OUTPUT_H

#include <fmt/format.h>

#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace polctl {

/* The texts with a separator between them. */
std::string joined(const std::vector<std::string>& texts, std::string_view separator);

class Output {
 public:
  static constexpr int kNoFile = -1; /* what is written stays, for text() */

  explicit Output(int fd = 1) : fd_(fd) {}
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  void write(std::string_view text) {
    buffer_.append(text.data(), text.data() + text.size());
    flush_when_full();
  }
  template <typename... Args>
  void print(fmt::format_string<Args...> format, Args&&... args) {
    fmt::format_to(std::back_inserter(buffer_), format, std::forward<Args>(args)...);
    flush_when_full();
  }

  /* Texts and numbers one after the other: what print() does, where it is done a million times. */
  template <typename... Args>
  void put(const Args&... args) {
    (put_one(args), ...);
    flush_when_full();
  }

  std::string_view text() const { return {buffer_.data(), buffer_.size()}; }

  /* Throws InputError when the bytes cannot be written (a full disk). Commands end with it: the
   * destructor does not write. */
  void flush();
  /* Writes a large text without a copy of it. */
  void pass(std::string_view text);
  bool gone() const { return gone_; }
  int fd() const { return fd_; }

 private:
  static constexpr size_t kFull = size_t{64} * 1024;
  template <typename Arg>
  void put_one(const Arg& arg) {
    if constexpr (std::is_unsigned_v<Arg>) {
      fmt::format_int digits(arg);
      buffer_.append(digits.data(), digits.data() + digits.size());
    } else {
      std::string_view text = arg;
      buffer_.append(text.data(), text.data() + text.size());
    }
  }
  void flush_when_full() {
    if (buffer_.size() >= kFull && fd_ != kNoFile) flush();
  }
  void write_out(std::string_view text);

  int fd_;
  bool gone_ = false;
  fmt::memory_buffer buffer_;
};

}  // namespace polctl

#endif
