// SPDX-License-Identifier: Apache-2.0
//
// polctl check. What is wrong with a policy file the library finds; with configuration, an agent of
// the tool's own, and what that accepts is looked through for what has no effect.
#include <syslog.h>

#include <algorithm>
#include <exception>
#include <optional>
#include <string>
#include <tuple>

#include "commands.h"
#include "config_findings.h"
#include "finding_writer.h"
#include "host/address_text.h"
#include "host/agent_link.h"
#include "host/config_feed.h"
#include "host/input_error.h"
#include "host/setlines/config_lines.h"
#include "host/source_file.h"
#include "host/xml_places.h"
#include "live_client.h"
#include "policy/pol_test.h"
#include "proof/condition.h"
#include "proof/finding_places.h"
#include "yarrow/yarrow_schema.h"

namespace polctl {

namespace {

constexpr int kAnswerMs = 60'000;

// The library is built without exceptions, so none may pass through it: what is wrong is kept.
struct Report {
  std::vector<Finding> findings;
  std::string problem;
};

void take_finding(const t_pol_test_finding* given, void* arg) {
  Report& report = *static_cast<Report*>(arg);
  if (!report.problem.empty()) return;
  try {
    report.findings.push_back({given->line, given->column, given->severity == POL_TEST_ERROR, false,
                               "", given->what, given->expected != nullptr ? given->expected : ""});
  } catch (const std::exception& error) {
    report.problem = error.what();
  }
}

// What the library, once it holds them, lets prove of policies without errors.
std::vector<ProofFinding> proofs_of(const CheckOptions& options, const PolicyOptions& source,
                                    std::vector<std::string>* unknown) {
  PolicySource loaded = load_policy(source);
  Model model;
  model.read();
  return proof_findings(model, options.direction, read_bounds(options.limits), unknown);
}

// A default action that nobody wrote says nothing in vain.
bool unwritten(const ProofFinding& finding, bool place_found) {
  return finding.subject == ProofFinding::Subject::kDefault && !place_found;
}

void check_policy_file(const SourceFile& file, const CheckOptions& options, FindingWriter* writer,
                       std::vector<std::string>* unknown) {
  Report report;
  if (pol_test_check_file(file.path().c_str(), take_finding, &report) < 0) {
    throw InputError(
        fmt::format("{}: error: cannot be read (expected a policy file)", file.name()));
  }
  if (!report.problem.empty()) throw InputError(report.problem);
  auto is_error = [](const Finding& finding) { return finding.is_error; };
  bool faulty = std::any_of(report.findings.begin(), report.findings.end(), is_error);
  if (options.proofs && !faulty) {
    PolicyOptions source;
    source.policy_file = file.path();
    TextPlaces places(file);
    for (ProofFinding& finding : proofs_of(options, source, unknown)) {
      TextPlace place = places.find(finding);
      if (unwritten(finding, place.exact)) continue;
      std::string what = policy_file_words(finding) + ": " + finding.what;
      report.findings.push_back({place.line, place.column, false, false, "", std::move(what), "",
                                 std::move(finding.route)});
    }
    std::stable_sort(report.findings.begin(), report.findings.end(),
                     [](const Finding& a, const Finding& b) {
                       return std::pair(a.line, a.column) < std::pair(b.line, b.column);
                     });
  }
  writer->begin_file(&file);
  for (const Finding& finding : report.findings) writer->add(finding);
}

struct Found {
  ConfigFault fault;
  bool is_error;
  std::string route = {}; /* that shows it */
};

std::vector<Found> effects_of(const SourceFiles& files, uint16_t port, uint32_t direction) {
  sockaddr_in address = agent_address(port);
  if (yarrow_load_schemas(reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
      YARROW_OK) {
    throw InputError("agent: error: no schema: " + agent_problem() + " (expected one)");
  }
  ConfigFeed feed(port);
  ConfigFeed::Batch batch = feed.read(kAnswerMs);
  if (!batch) throw InputError("agent: error: it says nothing (expected its configuration)");
  std::vector<Found> found;
  std::vector<ConfigFinding> findings = findings_in(batch.get(), direction);
  if (findings.empty()) return found;
  XmlPlaces places(files);
  for (ConfigFinding& finding : findings) {
    Found each = {{}, finding.is_error};
    places.find(finding.path, &each.fault);
    each.fault.path = std::move(finding.path);
    each.fault.what = std::move(finding.what);
    each.fault.expected = std::move(finding.expected);
    found.push_back(std::move(each));
  }
  return found;
}

// What the agent refuses, else what has no effect in the configuration that it takes.
std::vector<Found> faults_in(const SourceFiles& files, uint32_t direction) {
  EmbeddedAgent agent;
  ConfigSession session(agent.port());
  std::vector<ConfigFault> faults;
  session.load(files, &faults);
  if (faults.empty()) session.commit(files, &faults);
  std::vector<Found> found;
  found.reserve(faults.size());
  for (ConfigFault& fault : faults) found.push_back({std::move(fault), true});
  return found.empty() ? effects_of(files, agent.port(), direction) : found;
}

void check_configuration(const SourceFiles& files, const CheckOptions& options,
                         FindingWriter* writer, std::vector<std::string>* unknown) {
  setlogmask(LOG_UPTO(LOG_INFO));
  std::vector<Found> found = faults_in(files, options.direction);
  auto is_error = [](const Found& each) { return each.is_error; };
  if (options.proofs && std::none_of(found.begin(), found.end(), is_error)) {
    PolicyOptions source;
    for (const SourceFile& file : files) source.config.push_back(file.path());
    XmlPlaces places(files);
    for (ProofFinding& finding : proofs_of(options, source, unknown)) {
      Found each = {{}, false, std::move(finding.route)};
      each.fault.path = configuration_path(finding);
      each.fault.what = std::move(finding.what);
      if (unwritten(finding, places.find(each.fault.path, &each.fault))) continue;
      found.push_back(std::move(each));
    }
  }
  auto place_of = [&files](const Found& each) {
    auto file = std::find_if(files.begin(), files.end(),
                             [&](const SourceFile& f) { return f.name() == each.fault.file; });
    return std::tuple(file - files.begin(), each.fault.line, each.fault.column);
  };
  std::stable_sort(found.begin(), found.end(),
                   [&](const Found& a, const Found& b) { return place_of(a) < place_of(b); });
  size_t last = SIZE_MAX;
  for (const Found& each : found) {
    auto file = static_cast<size_t>(std::get<0>(place_of(each)));
    if (file != last) writer->begin_file(file < files.size() ? &files[file] : nullptr);
    last = file;
    const ConfigFault& fault = each.fault;
    writer->add({fault.line, fault.column, each.is_error, true, fault.path, fault.what,
                 fault.expected, each.route});
  }
}

// A running agent's configuration as set-lines, which then is what findings point into.
class RunningConfiguration {
 public:
  explicit RunningConfiguration(const PolicyOptions& source)
      : text_(lines_of(ConfigSession(running_agent_port(source.agent_port)).save("/"))) {}

  SourceFile file() const { return {text_.path(), "configuration", "running configuration"}; }

 private:
  static std::string lines_of(const std::string& xml) {
    std::vector<std::string> lines = set_lines(config_lines(xml));
    return lines.empty() ? "<policy xmlns=\"urn:zenodra:policy\"/>" : joined(lines, "\n") + "\n";
  }

  MemoryFile text_;
};

}  // namespace

int run_check(const CheckOptions& options, Output* out) {
  read_bounds(options.limits);  // what is wrong with them is told first
  std::optional<RunningConfiguration> running;
  SourceFiles files;
  if (options.source.agent || !options.source.live.empty()) {
    running.emplace(with_agent_of_host(options.source));
    files.push_back(running->file());
  }
  for (const std::string& given : options.files) {
    files.emplace_back(given, "configuration or a policy file");
  }
  for (const std::string& given : options.source.config) {
    files.emplace_back(given, "a configuration file");
  }
  if (!options.source.policy_file.empty()) {
    files.push_back(open_policy_file(options.source.policy_file));
  }
  FindingWriter writer({options.json, options.all}, out);
  std::vector<std::string> unknown;
  bool any_kind = options.source.config.empty();
  if (any_kind && files.size() == 1 && files.front().kind() == SourceKind::kPolicyFile) {
    check_policy_file(files.front(), options, &writer, &unknown);
  } else {
    require_configuration(files);
    check_configuration(files, options, &writer, &unknown);
  }
  std::vector<std::string> names;
  for (const SourceFile& file : files) names.push_back(file.name());
  writer.finish(joined(names, ","));
  for (const std::string& why : unknown) {
    fmt::print(stderr, "polctl: note: not known: {} (--limit gives more)\n", printable(why));
  }
  bool fails = writer.errors() > 0 || (options.strict && writer.warnings() > 0);
  return fails ? kFindings : kDone;
}

}  // namespace polctl
