// SPDX-License-Identifier: Apache-2.0
//
// polctl check. The library finds what is wrong; this shows it, with the line it is in.
#include <exception>
#include <string>
#include <string_view>

#include "commands.h"
#include "host/address_text.h"
#include "host/input_error.h"
#include "json_line.h"
#include "line_reader.h"
#include "policy/pol_test.h"
#include "terminal.h"

namespace polctl {

namespace {

constexpr size_t kSourceShown = 160;  // bytes of a line, so that a caret stays in sight

struct Report {
  const CheckOptions& options;
  Output* out;
  Palette palette;
  LineReader source;  // findings come in the order of lines, so one pass serves them
  std::string_view line;
  uint64_t errors = 0;
  uint64_t warnings = 0;
  std::string problem;  // of ours, kept: no exception may pass through the library
};

const char* severity_word(uint32_t severity) {
  return severity == POL_TEST_ERROR ? "error" : "warning";
}

void write_finding_json(const t_pol_test_finding& finding, const Report& report) {
  report.out->print(
      "{{\"file\":{},\"line\":{},\"column\":{},\"severity\":\"{}\",\"what\":{},\"expected\":{}}}\n",
      json_string(report.options.policy_file), finding.line, finding.column,
      severity_word(finding.severity), json_string(finding.what),
      finding.expected != nullptr ? json_string(finding.expected) : "null");
}

// The line and a caret under the column. Bytes that could upset a terminal show as '?', tabs stay.
void write_source(const t_pol_test_finding& finding, Report* report) {
  if (report->source.size() == 0) return;  // a pipe, which the library is reading
  while (report->source.line() < finding.line) {
    if (!report->source.next(&report->line)) return;
  }
  size_t column = finding.column > 0 ? finding.column - 1 : 0;
  std::string shown(report->line.substr(0, kSourceShown));
  if (report->source.line() != finding.line || column > shown.size()) return;
  std::string below;
  for (size_t i = 0; i < shown.size(); ++i) {
    bool plain = shown[i] == '\t' || (shown[i] >= ' ' && shown[i] <= '~');
    if (!plain) shown[i] = '?';
    if (i < column) below += shown[i] == '\t' ? '\t' : ' ';
  }
  report->out->print("    {}\n    {}{}\n", shown, below, report->palette.paint(Colour::Green, "^"));
}

void write_finding_text(const t_pol_test_finding& finding, Report* report) {
  Colour colour = finding.severity == POL_TEST_ERROR ? Colour::Red : Colour::Yellow;
  report->out->print("{}:{}:{}: {}: {}", report->options.policy_file, finding.line, finding.column,
                     report->palette.paint(colour, severity_word(finding.severity)),
                     printable(finding.what));
  if (finding.expected != nullptr) {
    report->out->print(" (expected {})", printable(finding.expected));
  }
  report->out->write("\n");
  write_source(finding, report);
}

void write_finding(const t_pol_test_finding* finding, void* arg) {
  Report& report = *static_cast<Report*>(arg);
  ++(finding->severity == POL_TEST_ERROR ? report.errors : report.warnings);
  if (report.out->gone()) return;
  try {
    if (report.options.json) {
      write_finding_json(*finding, report);
    } else {
      write_finding_text(*finding, &report);
    }
  } catch (const std::exception& error) {
    report.problem = error.what();
  }
}

std::string counted(uint64_t count, const char* what) {
  return fmt::format("{} {}{}", grouped(count), what, count == 1 ? "" : "s");
}

}  // namespace

int run_check(const CheckOptions& options, Output* out) {
  if (!options.config.empty()) return run_check_config(options, out);
  require_readable(options.policy_file, "a policy file");
  Report report = {options, out, Palette(out->fd()), LineReader(options.policy_file), {}, 0, 0, {}};
  if (pol_test_check_file(options.policy_file.c_str(), write_finding, &report) < 0) {
    throw InputError(
        fmt::format("{}: error: cannot be read (expected a policy file)", options.policy_file));
  }
  if (!report.problem.empty()) throw InputError(report.problem);
  bool clean = report.errors + report.warnings == 0;
  if (!options.json) {
    if (clean) {
      out->print("{}: no findings\n", options.policy_file);
    } else {
      out->print("{}: {}, {}\n", options.policy_file, counted(report.errors, "error"),
                 counted(report.warnings, "warning"));
    }
  }
  out->flush();
  return clean ? kDone : kFindings;
}

}  // namespace polctl
