// SPDX-License-Identifier: Apache-2.0
#include "line_pieces.h"

#include <cstring>
#include <utility>

namespace polctl {

namespace {

constexpr size_t kRoom = 2 * LineReader::kMaxLine;

bool is_entry(const char* line, const char* end) {
  while (line < end && (*line == ' ' || *line == '\t')) ++line;
  // The line end may be CRLF.
  bool empty = line == end || (*line == '\r' && line + 1 == end);
  return !empty && *line != '#';
}

}  // namespace

void LinePieces::count(const char* text, size_t size) {
  for (const char *end = text + size, *line = text; line < end; ++lines_) {
    const auto* found =
        static_cast<const char*>(memchr(line, '\n', static_cast<size_t>(end - line)));
    const char* line_end = found != nullptr ? found : end;
    if (is_entry(line, line_end)) ++entries_;
    line = line_end + 1;
  }
}

bool LinePieces::next(LinePiece* piece) {
  std::vector<char> text(kRoom + LineReader::kBeyond);
  size_t filled = rest_.size();
  if (filled > 0) memcpy(text.data(), rest_.data(), filled);
  size_t got = at_end_ ? 0 : file_.read(text.data() + filled, kRoom - filled);
  at_end_ = got == 0;
  const void* last = got > 0 ? memrchr(text.data() + filled, '\n', got) : nullptr;
  filled += got;
  size_t whole = 0;
  if (last != nullptr)
    whole = static_cast<size_t>(static_cast<const char*>(last) - text.data()) + 1;
  if (at_end_ || filled == kRoom) whole = whole != 0 ? whole : filled;
  rest_.assign(text.data() + whole, text.data() + filled);
  if (whole == 0 && at_end_) return false;
  piece->size = whole;
  piece->lines_before = lines_;
  piece->entries_before = entries_;
  count(text.data(), whole);
  piece->text = std::move(text);
  given_ += whole;
  piece->end = given_;
  return true;
}

}  // namespace polctl
