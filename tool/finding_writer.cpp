// SPDX-License-Identifier: Apache-2.0
#include "finding_writer.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "host/address_text.h"
#include "json_line.h"

namespace polctl {

namespace {

constexpr size_t kSourceShown = 160;  // bytes of a line
constexpr size_t kBefore = 100;       // of these before the column, so that a caret stays in sight

const char* severity_word(const Finding& finding) { return finding.is_error ? "error" : "warning"; }

std::string counted(uint64_t count, const char* what) {
  return fmt::format("{} {}{}", grouped(count), what, count == 1 ? "" : "s");
}

}  // namespace

void FindingWriter::begin_file(const SourceFile* file) {
  file_ = file;
  lines_ = file != nullptr ? std::make_unique<LineReader>(file->path(), file->name()) : nullptr;
  line_ = {};
  in_file_ = 0;
}

void FindingWriter::add(const Finding& finding) {
  ++(finding.is_error ? errors_ : warnings_);
  if (++in_file_ > kFindingsShown && !options_.all) {
    ++left_out_;
    return;
  }
  if (options_.json) {
    write_json(finding);
  } else {
    write_text(finding);
  }
}

void FindingWriter::write_json(const Finding& finding) {
  std::string path = finding.has_path ? "\"path\":" + json_string(finding.path) + "," : "";
  out_.print(
      "{{\"file\":{},\"line\":{},\"column\":{},{}\"severity\":\"{}\",\"what\":{},\"expected\":{}{}}"
      "}"
      "\n",
      json_string(file_ != nullptr ? file_->name() : ""), finding.line, finding.column, path,
      severity_word(finding), json_string(finding.what),
      finding.expected.empty() ? "null" : json_string(finding.expected),
      finding.route.empty() ? "" : ",\"route\":" + finding.route);
}

void FindingWriter::write_text(const Finding& finding) {
  std::string where = file_ != nullptr ? printable(file_->name()) : "polctl";
  if (finding.line > 0) where += fmt::format(":{}", finding.line);
  if (finding.column > 0) where += fmt::format(":{}", finding.column);
  Colour colour = finding.is_error ? Colour::Red : Colour::Yellow;
  out_.print("{}: {}: ", where, palette_.paint(colour, severity_word(finding)));
  if (!finding.path.empty()) out_.print("{}: ", printable(finding.path));
  out_.write(printable(finding.what));
  if (!finding.expected.empty()) out_.print(" (expected {})", printable(finding.expected));
  out_.write("\n");
  if (finding.column > 0) write_source(finding);
  if (!finding.route.empty()) out_.print("    such as {}\n", finding.route);
}

// The line, or the part of it around the column, and a caret below. Bytes that could upset a terminal
// show as '?', tabs stay.
void FindingWriter::write_source(const Finding& finding) {
  if (!lines_) return;
  while (lines_->line() < finding.line) {
    if (!lines_->next(&line_)) return;
  }
  size_t column = finding.column - 1;
  if (lines_->line() != finding.line || column > line_.size()) return;
  size_t begin = column > kBefore ? column - kBefore : 0;
  std::string shown(line_.substr(begin, kSourceShown));
  std::string below;
  for (size_t i = 0; i < shown.size(); ++i) {
    bool plain = shown[i] == '\t' || (shown[i] >= ' ' && shown[i] <= '~');
    if (!plain) shown[i] = '?';
    if (begin + i < column) below += shown[i] == '\t' ? '\t' : ' ';
  }
  out_.print("    {}\n    {}{}\n", shown, below, palette_.paint(Colour::Green, "^"));
}

void FindingWriter::finish(const std::string& files) {
  if (options_.json) {
    out_.flush();
    if (left_out_ > 0) {
      fmt::print(stderr, "polctl: note: {} more findings are left out (--all tells them)\n",
                 grouped(left_out_));
    }
    return;
  }
  std::string counts = errors_ + warnings_ == 0
                           ? "no findings"
                           : counted(errors_, "error") + ", " + counted(warnings_, "warning");
  if (left_out_ > 0) {
    counts += fmt::format(" ({} of them not shown; --all shows them)", grouped(left_out_));
  }
  out_.print("{}: {}\n", printable(files), counts);
  out_.flush();
}

}  // namespace polctl
