/* SPDX-License-Identifier: Apache-2.0
 *
 * line_reader.h - the lines of a file or of standard input, without a copy of each.
 */
#ifndef TOOL_LINE_READER_H
#define TOOL_LINE_READER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace polctl {

class LineReader {
 public:
  static constexpr size_t kMaxLine = size_t{64} * 1024; /* bytes of a line that are kept */

  /* Opens a file, or standard input for "-"; messages call it `name` unless that is "". Throws
   * InputError when that fails. */
  explicit LineReader(const std::string& path, const std::string& name = "");
  ~LineReader();
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  /* The next line without its line end (LF or CRLF), valid until the next call; a last line needs
   * none. A line of more than kMaxLine bytes comes cut, and overlong() says so. False at the end.
   * Throws InputError when the file cannot be read on. */
  bool next(std::string_view* line);

  /* Whether next() can answer without reading on. */
  bool line_waiting() const;

  bool overlong() const { return overlong_; }
  uint64_t line() const { return line_; } /* number of the last line, from 1 */
  const std::string& name() const { return name_; }

  /* How far reading has come, in bytes; size() is 0 when it is not known, as for a pipe. */
  uint64_t position() const { return consumed_; }
  uint64_t size() const { return size_; }

 private:
  bool fill();
  void skip_rest_of_line();

  int fd_ = -1;
  std::string name_; /* for messages */
  uint64_t size_ = 0;
  uint64_t line_ = 0;
  uint64_t consumed_ = 0;
  bool overlong_ = false;
  bool at_end_ = false;
  std::vector<char> buffer_;
  size_t begin_ = 0; /* unread bytes are buffer_[begin_, end_) */
  size_t end_ = 0;
};

}  // namespace polctl

#endif
