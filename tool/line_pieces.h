/* SPDX-License-Identifier: Apache-2.0
 *
 * line_pieces.h - a file of lines in pieces, which may be worked on side by side.
 */
#ifndef TOOL_LINE_PIECES_H
#define TOOL_LINE_PIECES_H

#include <cstdint>
#include <string>
#include <vector>

#include "line_reader.h"

namespace polctl {

class LinePieces {
 public:
  /* As LineReader. */
  explicit LinePieces(const std::string& path, const std::string& name = "") : file_(path, name) {}

  /* The whole lines that one more read gives, of some 128 KiB at most: it may be none. A line too long for
   * LineReader ends its piece, and what follows it is no line. False at the end. Throws InputError
   * when the file cannot be read on. */
  bool next(LinePiece* piece);
  /* Whether next() would not wait for input. */
  bool ready() const { return file_.ready(); }

  const std::string& name() const { return file_.name(); }
  uint64_t size() const { return file_.size(); }

 private:
  void count(const char* text, size_t size);

  InputFile file_;
  std::vector<char> rest_; /* of the last read, the line that it had not all of */
  bool at_end_ = false;
  uint64_t lines_ = 0;
  uint64_t entries_ = 0;
  uint64_t given_ = 0;
};

}  // namespace polctl

#endif
