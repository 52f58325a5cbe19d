// SPDX-License-Identifier: Apache-2.0
#include "test_report.h"

#include <fmt/format.h>

#include <string_view>

#include "host/address_text.h"
#include "tool/json_line.h"
#include "tool/terminal.h"

namespace polctl {

namespace {

std::string place_of(const TestResult& result) {
  return fmt::format("{}:{}", result.file, result.line);
}

std::string indented(std::string_view text, std::string_view blanks) {
  std::string all;
  while (!text.empty()) {
    size_t end = text.find('\n');
    all += fmt::format("{}{}\n", blanks, text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return all;
}

std::string escaped(const std::string& text) {
  std::string all;
  for (char c : printable_lines(text)) {
    switch (c) {
      case '&':
        all += "&amp;";
        break;
      case '<':
        all += "&lt;";
        break;
      case '>':
        all += "&gt;";
        break;
      case '"':
        all += "&quot;";
        break;
      default:
        all += c;
    }
  }
  return all;
}

std::string mismatches_json(const TestResult& result, Shown Mismatch::*side) {
  std::vector<std::string> parts;
  for (const Mismatch& each : result.mismatches) {
    parts.push_back(fmt::format("\"{}\":{}", each.what, (each.*side).json));
  }
  return "{" + joined(parts, ",") + "}";
}

struct Suite {
  size_t first;
  size_t end;
  size_t failed;
};

// Results of a file stand together.
std::vector<Suite> suites_of(const TestRun& run) {
  std::vector<Suite> suites;
  for (size_t i = 0; i < run.results.size(); ++i) {
    if (i == 0 || run.results[i].file != run.results[i - 1].file) suites.push_back({i, i, 0});
    suites.back().end = i + 1;
    if (!run.results[i].passed()) ++suites.back().failed;
  }
  return suites;
}

void write_junit_case(const TestResult& result, Output* out) {
  out->print("    <testcase classname=\"{}\" name=\"{}\" file=\"{}\" line=\"{}\"",
             escaped(result.policy), escaped(result.title), escaped(result.file), result.line);
  if (result.passed()) return out->write("/>\n");
  out->print(">\n      <failure message=\"{}\">{}</failure>\n    </testcase>\n",
             escaped(failure_text(result)), escaped(result.explanation));
}

}  // namespace

void write_test_text(const TestRun& run, bool explain, Output* out) {
  Palette palette(out->fd());
  for (const TestResult& each : run.results) {
    if (each.passed()) continue;
    out->print("{}: {}: {}: {}\n", printable(place_of(each)), palette.paint(Colour::Red, "failed"),
               printable(each.title), printable(failure_text(each)));
    if (explain) out->write(indented(each.explanation, "  "));
  }
  size_t count = run.results.size();
  std::string verdict =
      run.failed == 0 ? palette.paint(Colour::Green, "passed")
                      : palette.paint(Colour::Red, fmt::format("{} failed", grouped(run.failed)));
  out->print("{} test{}: {}\n", grouped(count), count == 1 ? "" : "s", verdict);
}

void write_test_json(const TestRun& run, Output* out) {
  for (const TestResult& each : run.results) {
    out->print("{{\"file\":{},\"line\":{},\"test\":{},\"policy\":{},\"passed\":{}",
               json_string(each.file), each.line, json_string(each.title), json_string(each.policy),
               each.passed());
    if (!each.passed()) {
      out->print(",\"expected\":{},\"came\":{},\"reason\":{},\"answer\":{}",
                 mismatches_json(each, &Mismatch::expected), mismatches_json(each, &Mismatch::came),
                 json_string(each.reason), each.answer);
    }
    out->write("}\n");
  }
  out->print("{{\"tests\":{},\"failed\":{}}}\n", run.results.size(), run.failed);
}

void write_test_junit(const TestRun& run, Output* out) {
  out->print(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites tests=\"{}\" failures=\"{}\">\n",
      run.results.size(), run.failed);
  for (const Suite& suite : suites_of(run)) {
    out->print("  <testsuite name=\"{}\" tests=\"{}\" failures=\"{}\" errors=\"0\">\n",
               escaped(run.results[suite.first].file), suite.end - suite.first, suite.failed);
    for (size_t i = suite.first; i < suite.end; ++i) write_junit_case(run.results[i], out);
    out->write("  </testsuite>\n");
  }
  out->write("</testsuites>\n");
}

void write_test_tap(const TestRun& run, Output* out) {
  out->print("TAP version 13\n1..{}\n", run.results.size());
  size_t number = 0;
  for (const TestResult& each : run.results) {
    // A "#" would begin a directive.
    std::string title = printable(each.title);
    for (size_t at = title.find('#'); at != std::string::npos; at = title.find('#', at + 2)) {
      title.insert(at, "\\");
    }
    out->print("{} {} - {}\n", each.passed() ? "ok" : "not ok", ++number, title);
    if (each.passed()) continue;
    out->print("  ---\n  at: {}\n  message: {}\n  explanation: |\n{}  ...\n",
               json_string(place_of(each)), json_string(failure_text(each)),
               indented(printable_lines(each.explanation), "    "));
  }
}

}  // namespace polctl
