// SPDX-License-Identifier: Apache-2.0
#include "terminal.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
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
constexpr std::string_view kClearLine = "\r\033[K";

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

// Characters, each of which is taken to be one column wide.
size_t columns_of(std::string_view text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
  }));
}

}  // namespace

Palette::Palette(int fd) : on_(wants_colour(fd)), width_(terminal_width(fd)) {}

std::string Palette::paint(Colour colour, std::string_view text) const {
  if (!on_ || colour == Colour::Plain) return std::string(text);
  return fmt::format("{}{}\033[0m", escape_of(colour), text);
}

Colour action_colour(uint32_t action) { return action == POL_ACCEPT ? Colour::Green : Colour::Red; }

Table::Table(std::string align, std::vector<Cell> heading) : align_(std::move(align)) {
  for (Cell& cell : heading) cell.colour = Colour::Bold;
  rows_.push_back(std::move(heading));
}

size_t terminal_width(int fd) {
  winsize size = {};
  if (isatty(fd) != 1 || ioctl(fd, TIOCGWINSZ, &size) != 0) return 0;
  const char* columns = getenv("COLUMNS");
  size_t told = columns != nullptr ? strtoul(columns, nullptr, 10) : 0;
  return told > 0 ? told : size.ws_col;
}

namespace {

// One line in pieces that fit, broken at blanks, or within a word that is too long alone. `kept` bytes
// at its beginning are not looked at: an indentation and the name of an option.
std::vector<std::string> pieces(std::string_view line, size_t first, size_t next, size_t kept) {
  std::vector<std::string> result;
  for (size_t width = first; line.size() > width; width = next) {
    size_t cut = line.rfind(' ', width);
    if (cut == std::string_view::npos || cut <= kept) cut = width;
    size_t end = line.find_last_not_of(' ', cut - 1);
    result.emplace_back(line.substr(0, end == std::string_view::npos ? 0 : end + 1));
    line.remove_prefix(cut);
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    kept = 0;
  }
  result.emplace_back(line);
  return result;
}

}  // namespace

std::string folded(std::string_view line, size_t width, size_t indent) {
  if (width == 0) return std::string(line);
  const size_t room = width > indent + 20 ? width - indent : 20;
  std::string result;
  for (const std::string& piece : pieces(line, room, room, 0)) {
    if (!result.empty()) result += '\n' + std::string(indent, ' ');
    result += piece;
  }
  return result;
}

std::string wrapped(const std::string& text) {
  constexpr size_t kUsualWidth = 80;
  size_t width = terminal_width(STDOUT_FILENO);
  if (width == 0) width = kUsualWidth;
  std::string result;
  for (size_t begin = 0; begin < text.size();) {
    size_t end = std::min(text.find('\n', begin), text.size());
    std::string_view line = std::string_view(text).substr(begin, end - begin);
    size_t indent = std::min(line.find_first_not_of(' '), line.size());
    // The second column of an option's line, when it has one.
    size_t gap = line.find("  ", indent);
    size_t second = gap != std::string_view::npos ? line.find_first_not_of(' ', gap) : gap;
    if (second != std::string_view::npos) indent = second;
    if (indent > width / 2) indent = 4;
    size_t blanks = 0;
    for (const std::string& piece : pieces(line, width, width - indent, indent)) {
      result.append(blanks, ' ');
      result += piece + '\n';
      blanks = indent;
    }
    begin = end + 1;
  }
  return result;
}

// Without a heading for the first cell, which names the row.
void Table::print_paragraphs(size_t width, Output* out, const Palette& palette) const {
  size_t label = 0;
  for (size_t i = 1; i < rows_.front().size(); ++i) {
    label = std::max(label, rows_.front()[i].text.size());
  }
  for (size_t at = 1; at < rows_.size(); ++at) {
    const std::vector<Cell>& row = rows_[at];
    for (size_t i = 0; i < row.size(); ++i) {
      if (row[i].text.empty()) continue;
      size_t indent = i == 0 ? 0 : label + 4;
      size_t fits = width > indent + 20 ? width - indent : 20;
      std::string head = i == 0 ? "" : fmt::format("  {:<{}}", rows_.front()[i].text, label + 2);
      Colour colour = i == 0 && row[i].colour == Colour::Plain ? Colour::Bold : row[i].colour;
      for (const std::string& piece : pieces(row[i].text, fits, fits, 0)) {
        out->print("{}{}\n", head, palette.paint(colour, piece));
        head.assign(indent, ' ');
      }
    }
  }
}

void Table::print(Output* out, const Palette& palette) const {
  std::vector<size_t> widths(align_.size());
  for (const std::vector<Cell>& row : rows_) {
    for (size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], columns_of(row[i].text));
    }
  }
  size_t whole = 2 * (widths.size() - 1);
  for (size_t width : widths) whole += width;
  size_t room = terminal_width(out->fd());
  if (room > 0 && whole > room) return print_paragraphs(room, out, palette);
  for (const std::vector<Cell>& row : rows_) {
    std::string line;
    size_t blanks = 0;  // owed before the next text, so that no line ends in blanks
    for (size_t i = 0; i < row.size(); ++i) {
      const Cell& cell = row[i];
      size_t missing = widths[i] - columns_of(cell.text);
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

Waiting::Waiting(std::string what) : what_(std::move(what)) {
  if (isatty(STDERR_FILENO) == 1) teller_ = std::thread([this] { tell(); });
}

Waiting::~Waiting() {
  {
    std::lock_guard lock(mutex_);
    over_ = true;
  }
  changed_.notify_one();
  if (teller_.joinable()) teller_.join();
}

void Waiting::tell() {
  auto begin = std::chrono::steady_clock::now();
  bool shown = false;
  std::unique_lock lock(mutex_);
  auto patience = std::chrono::duration_cast<std::chrono::milliseconds>(kPatience);
  while (!changed_.wait_for(lock, shown ? kRefresh : patience, [this] { return over_; })) {
    std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    std::string text = fmt::format("\r{} {:.1f} s", what_, took.count());
    shown = write(STDERR_FILENO, text.data(), text.size()) > 0 || shown;
  }
  // A line that cannot be taken off is not minded.
  if (shown) [[maybe_unused]]
    ssize_t gone = write(STDERR_FILENO, kClearLine.data(), kClearLine.size());
}

Progress::Progress(std::string what, bool wanted)
    : what_(std::move(what)),
      enabled_(wanted && isatty(STDERR_FILENO) == 1),
      next_(std::chrono::steady_clock::now() + kPatience) {}

void Progress::show(uint64_t position, uint64_t size) {
  if (!enabled_) return;
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
  if (shown_) shown_ = write(STDERR_FILENO, kClearLine.data(), kClearLine.size()) < 0;
}

}  // namespace polctl
