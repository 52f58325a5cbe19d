/* SPDX-License-Identifier: Apache-2.0
 *
 * line_reader.h - the lines of a file or of standard input, without a copy of each.
 */
#ifndef TOOL_LINE_READER_H
#define TOOL_LINE_READER_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace polctl {

/* A file that is read once, or standard input for "-"; messages call it `name` unless that is "". */
class InputFile {
 public:
  /* Throws InputError when it cannot be opened. */
  InputFile(const std::string& path, const std::string& name);
  ~InputFile();
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  /* The number of bytes read, 0 at the end. Throws InputError when it cannot be read on. */
  size_t read(char* to, size_t most) const;
  /* Whether read() would not wait. */
  bool ready() const;
  const std::string& name() const { return name_; }
  uint64_t size() const { return size_; } /* 0 when it is not known, as for a pipe */

 private:
  std::string name_;
  int fd_;
  uint64_t size_ = 0;
};

/* Some whole lines of a file. */
struct LinePiece {
  std::vector<char> text; /* `size` bytes, and LineReader::kBeyond that mean nothing */
  size_t size = 0;
  uint64_t lines_before = 0;
  uint64_t entries_before = 0; /* of these lines, those that are neither blank nor a comment (#) */
  uint64_t end = 0;            /* where it ends in the file */
};

class LineReader {
 public:
  /* Behind every line so many more bytes can be read, whatever they are: a parser that reads in
   * blocks wants them. */
  static constexpr size_t kBeyond = 64;
  static constexpr size_t kMaxLine = size_t{64} * 1024; /* bytes of a line that are kept */

  /* Opens a file, or standard input for "-"; messages call it `name` unless that is "". Throws
   * InputError when that fails. */
  explicit LineReader(const std::string& path, const std::string& name = "");
  /* The lines of a piece, which outlives the reader. */
  LineReader(const LinePiece& piece, const std::string& name);
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  /* The next line without its line end (LF or CRLF), valid until the next call; a last line needs
   * none. A line of more than kMaxLine bytes comes cut, and overlong() says so. False at the end.
   * Throws InputError when the file cannot be read on. */
  bool next(std::string_view* line);

  bool overlong() const { return overlong_; }
  uint64_t line() const { return line_; } /* number of the last line, from 1 */
  const std::string& name() const { return name_; }

  /* How far reading has come, in bytes; size() is 0 when it is not known, as for a pipe. */
  uint64_t position() const { return consumed_; }
  uint64_t size() const { return size_; }

 private:
  bool fill();
  void skip_rest_of_line();

  std::optional<InputFile> file_; /* none: a piece is read */
  std::string name_;              /* for messages */
  uint64_t size_ = 0;
  uint64_t line_ = 0;
  uint64_t consumed_ = 0;
  bool overlong_ = false;
  bool at_end_ = false;
  std::vector<char> buffer_; /* of the file */
  const char* text_;         /* unread bytes are text_[begin_, end_) */
  size_t begin_ = 0;
  size_t end_ = 0;
};

}  // namespace polctl

#endif
