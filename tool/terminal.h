/* SPDX-License-Identifier: Apache-2.0
 *
 * terminal.h - colour, tables and progress for people.
 */
#ifndef TOOL_TERMINAL_H
#define TOOL_TERMINAL_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "host/output.h"

namespace polctl {

enum class Colour { Plain, Bold, Dim, Red, Green, Yellow };

/* Colours text when the file is a terminal and the environment does not ask for none (NO_COLOR set
 * and not empty, TERM=dumb). */
class Palette {
 public:
  explicit Palette(int fd);
  /* Tells whether it colours at all. */
  bool on() const { return on_; }
  /* The terminal's columns; 0: it is none. */
  size_t width() const { return width_; }
  std::string paint(Colour colour, std::string_view text) const;

 private:
  bool on_;
  size_t width_;
};

Colour action_colour(uint32_t action);

/* Columns of a terminal (COLUMNS, if it is set, says so instead); 0 when the file is none. */
size_t terminal_width(int fd);

/* The text with lines that are longer than standard output's terminal, or 80 columns, broken at blanks;
 * what is broken off keeps the line's indentation. */
std::string wrapped(const std::string& text);

/* A line that begins in the column `indent` of a terminal as wide as `width`: broken as above where it is
 * too long, and going on in that column. `width` 0: as it is. */
std::string folded(std::string_view line, size_t width, size_t indent);

/* Columns as wide as their widest cell, two blanks between them. On a terminal that is too narrow for
 * that a row is a paragraph, a line a cell. */
class Table {
 public:
  struct Cell {
    std::string text;
    Colour colour = Colour::Plain;
  };
  /* `align` has a letter a column: 'l' or 'r'. */
  Table(std::string align, std::vector<Cell> heading);
  void add(std::vector<Cell> row) { rows_.push_back(std::move(row)); }
  void print(Output* out, const Palette& palette) const;

 private:
  void print_paragraphs(size_t width, Output* out, const Palette& palette) const;

  std::string align_;
  std::vector<std::vector<Cell>> rows_; /* the heading first */
};

/* 175195 as "175,195". */
std::string grouped(uint64_t number);

/* "Loading" on standard error for work that takes more than a second and does not say how far it has
 * come, when that is a terminal. */
class Waiting {
 public:
  explicit Waiting(std::string what);
  ~Waiting();
  Waiting(const Waiting&) = delete;
  Waiting& operator=(const Waiting&) = delete;

 private:
  void tell();

  std::string what_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool over_ = false;
  std::thread teller_;
};

/* A bar on standard error for work that takes more than a second, when that is a terminal. Not
 * wanted where the answers themselves scroll over the same screen. */
class Progress {
 public:
  Progress(std::string what, bool wanted);
  ~Progress() { clear(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /* `size` 0: the end is not known. */
  void show(uint64_t position, uint64_t size);
  /* Takes the bar off the screen. */
  void clear();

 private:
  std::string what_;
  bool enabled_;
  bool shown_ = false;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace polctl

#endif
