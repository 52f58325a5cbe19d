// SPDX-License-Identifier: Apache-2.0
//
// polctl test: what policies are expected to say is kept beside the configuration and tried like code.
// All files are read and all tests run before the first word is printed.
#include <memory>
#include <optional>

#include "coverage.h"
#include "host/input_error.h"
#include "host/live_frame.h"
#include "host/source_file.h"
#include "test_report.h"
#include "test_runner.h"
#include "tool/commands.h"
#include "tool/importing/route_import.h"
#include "tool/live_client.h"
#include "tool/proof/condition.h"
#include "tool/tloc_reader.h"

namespace polctl {

namespace {

void write_report(const TestRun& run, const TestOptions& options, Output* out) {
  if (options.format == "json") return write_test_json(run, out);
  if (options.format == "junit") return write_test_junit(run, out);
  if (options.format == "tap") return write_test_tap(run, out);
  write_test_text(run, options.explain, out);
}

std::string shown_name(const std::string& path) { return path == "-" ? "<stdin>" : path; }

// The files go along with the request, one behind the other.
int ask_host(TestOptions options, Output* out) {
  std::string input;
  auto add = [&](const std::string& path, const char* expected) {
    std::string text = read_whole(path, kMaxRequestInput, expected);
    input += text;
    return std::to_string(text.size());
  };
  options.names.clear();
  for (const std::string& file : options.files) {
    options.names.push_back(shown_name(file));
    options.sizes.push_back(add(file, "a file of tests"));
  }
  if (!options.routes.empty()) {
    if (options.routes_name.empty()) options.routes_name = shown_name(options.routes);
    options.sizes.push_back(add(options.routes, "a file of routes"));
  }
  return ask_live(options.source.live, {options, std::move(input)}, out);
}

}  // namespace

int run_test(const TestOptions& given, Output* out) {
  TestOptions options = given;
  ImportedRoutes imported(options.routes_format, options.routes);
  options.routes = imported.path();
  options.routes_name = imported.name();
  if (!options.source.live.empty()) return ask_host(options, out);
  PolicySource source = load_policy(options.source);
  if (!options.tlocs.empty()) load_resolvable_tlocs(options.tlocs);
  return answer_test(options, out);
}

int answer_test(const TestOptions& options, Output* out) {
  std::optional<Coverage> coverage;
  if (options.coverage) coverage.emplace();
  TestRun run;
  {
    TestRunner runner(options.direction, read_bounds(options.limits),
                      coverage ? &*coverage : nullptr);
    for (size_t i = 0; i < options.files.size(); ++i) {
      TestFile file(options.files[i], i < options.names.size() ? options.names[i] : "");
      runner.run(&file, &run);
    }
    if (!options.routes.empty()) {
      RouteReader routes(options.routes, options.routes_name);
      runner.ask(&routes);
    }
  }
  if (run.results.empty() && options.routes.empty()) {
    throw InputError("polctl: error: there is no test in what was given (expected a line a test)");
  }
  write_report(run, options, out);
  if (coverage) {
    options.format == "json" ? write_coverage_json(*coverage, out)
                             : write_coverage_text(*coverage, out);
  }
  out->flush();
  return run.failed > 0 ? kFindings : kDone;
}

int answer_test(TestOptions options, const std::string& input, Output* out) {
  std::vector<std::unique_ptr<MemoryFile>> files;
  size_t at = 0;
  options.files.clear();
  for (const std::string& size : options.sizes) {
    bool number = !size.empty() && size.size() < 10 &&
                  size.find_first_not_of("0123456789") == std::string::npos;
    size_t bytes = number ? std::stoul(size) : SIZE_MAX;
    if (bytes > input.size() - at) {
      throw InputError("polctl: error: a request whose parts are not in it");
    }
    files.push_back(std::make_unique<MemoryFile>(std::string_view(input).substr(at, bytes)));
    at += bytes;
    bool is_test = files.size() <= options.names.size();
    (is_test ? options.files.emplace_back() : options.routes) = files.back()->path();
  }
  options.source.config = {"running configuration"};    // what messages call the source
  options.limits.insert(options.limits.begin(), "5s");  // the host stands still meanwhile
  return answer_test(options, out);
}

}  // namespace polctl
