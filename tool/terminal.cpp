// SPDX-License-Identifier: Apache-2.0
#include "terminal.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "policy/pol_types.h"

namespace polctl {

namespace {

constexpr auto kPatience = std::chrono::seconds(1);  // without a bar
constexpr auto kRefresh = std::chrono::milliseconds(100);
constexpr uint64_t kBarWidth = 30;

bool wants_colour(int fd) {
  const char* no_colour = getenv("NO_COLOR");
  const char* term = getenv("TERM");
  return isatty(fd) == 1 && (no_colour == nullptr || *no_colour == '\0') &&
         (term == nullptr || strcmp(term, "dumb") != 0);
}

const char* escape_of(Colour colour) {
  switch (colour) {
    case Colour::Plain:
      break;
    case Colour::Bold:
      return "\033[1m";
    case Colour::Dim:
      return "\033[2m";
    case Colour::Red:
      return "\033[31m";
    case Colour::Green:
      return "\033[32m";
    case Colour::Yellow:
      return "\033[33m";
  }
  return "";
}

}  // namespace

Palette::Palette(int fd) : on_(wants_colour(fd)) {}

std::string Palette::paint(Colour colour, std::string_view text) const {
  if (!on_ || colour == Colour::Plain) return std::string(text);
  return fmt::format("{}{}\033[0m", escape_of(colour), text);
}

Colour action_colour(uint32_t action) { return action == POL_ACCEPT ? Colour::Green : Colour::Red; }

Table::Table(std::string align, std::vector<Cell> heading) : align_(std::move(align)) {
  for (Cell& cell : heading) cell.colour = Colour::Bold;
  rows_.push_back(std::move(heading));
}

void Table::print(Output* out, const Palette& palette) const {
  std::vector<size_t> widths(align_.size());
  for (const std::vector<Cell>& row : rows_) {
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].text.size());
  }
  for (const std::vector<Cell>& row : rows_) {
    std::string line;
    size_t blanks = 0;  // owed before the next text, so that no line ends in blanks
    for (size_t i = 0; i < row.size(); ++i) {
      const Cell& cell = row[i];
      size_t missing = widths[i] - cell.text.size();
      if (align_[i] == 'r') blanks += missing;
      if (!cell.text.empty()) {
        line.append(blanks, ' ');
        line += palette.paint(cell.colour, cell.text);
        blanks = 0;
      }
      if (align_[i] == 'l') blanks += missing;
      blanks += 2;
    }
    out->print("{}\n", line);
  }
}

std::string grouped(uint64_t number) {
  std::string digits = std::to_string(number);
  std::string text;
  for (size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) text += ',';
    text += digits[i];
  }
  return text;
}

Progress::Progress(std::string what, bool wanted)
    : what_(std::move(what)),
      enabled_(wanted && isatty(STDERR_FILENO) == 1),
      next_(std::chrono::steady_clock::now() + kPatience) {}

void Progress::show(uint64_t position, uint64_t size) {
  auto now = std::chrono::steady_clock::now();
  if (now < next_) return;
  next_ = now + kRefresh;
  std::string text;
  if (size > 0) {
    uint64_t done = std::min(position, size);
    size_t filled = static_cast<size_t>(done * kBarWidth / size);
    text = fmt::format("\r{} [{:<{}}] {:3}%", what_, std::string(filled, '#'), kBarWidth,
                       done * 100 / size);
  } else {
    text = fmt::format("\r{} {} bytes", what_, grouped(position));
  }
  // A bar that cannot be shown is not missed.
  shown_ = write(STDERR_FILENO, text.data(), text.size()) > 0;
}

void Progress::clear() {
  constexpr std::string_view kClearLine = "\r\033[K";
  if (shown_) shown_ = write(STDERR_FILENO, kClearLine.data(), kClearLine.size()) < 0;
}

}  // namespace polctl
