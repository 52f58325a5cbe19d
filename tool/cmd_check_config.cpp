// SPDX-License-Identifier: Apache-2.0
//
// polctl check of configuration. An agent of the tool's own says what is wrong with it; what it
// accepts is looked through for what has no effect.
#include <syslog.h>

#include <algorithm>
#include <tuple>

#include "commands.h"
#include "config_findings.h"
#include "host/agent_link.h"
#include "host/config_walk.h"
#include "host/input_error.h"
#include "host/xml_places.h"
#include "json_line.h"
#include "terminal.h"
#include "yarrow/yarrow_schema.h"

namespace polctl {

namespace {

constexpr int kAnswerMs = 60'000;

struct Found {
  size_t file; /* index, so that findings come in the order of the files */
  ConfigFault fault;
  bool is_error;
};

std::vector<ConfigFault> warnings_of(const std::vector<std::string>& files, uint16_t port) {
  sockaddr_in address = agent_address(port);
  if (yarrow_load_schemas(reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
      YARROW_OK) {
    throw InputError("agent: error: no schema: " + agent_problem() + " (expected one)");
  }
  ConfigFeed feed(port);
  ConfigFeed::Batch batch = feed.read(kAnswerMs);
  std::vector<ConfigFault> warnings;
  if (!batch) return warnings;
  std::vector<ConfigFinding> findings = findings_in(batch.get());
  if (findings.empty()) return warnings;
  XmlPlaces places(files);
  for (ConfigFinding& finding : findings) {
    ConfigFault fault;
    places.find(finding.path, &fault.file, &fault.line);
    fault.path = std::move(finding.path);
    fault.what = std::move(finding.what);
    warnings.push_back(std::move(fault));
  }
  return warnings;
}

std::vector<Found> check(const std::vector<std::string>& files) {
  EmbeddedAgent agent;
  ConfigSession session(agent.port());
  std::vector<ConfigFault> faults;
  session.load(files, &faults);
  if (faults.empty()) session.commit(files, &faults);
  bool are_errors = !faults.empty();
  if (!are_errors) faults = warnings_of(files, agent.port());
  std::vector<Found> found;
  for (ConfigFault& fault : faults) {
    auto file = std::find(files.begin(), files.end(), fault.file);
    found.push_back({static_cast<size_t>(file - files.begin()), std::move(fault), are_errors});
  }
  std::stable_sort(found.begin(), found.end(), [](const Found& a, const Found& b) {
    return std::tie(a.file, a.fault.line) < std::tie(b.file, b.fault.line);
  });
  return found;
}

}  // namespace

int run_check_config(const CheckOptions& options, Output* out) {
  setlogmask(LOG_UPTO(LOG_INFO));
  std::vector<Found> found = check(options.config);
  Palette palette(out->fd());
  for (const Found& each : found) {
    const char* severity = each.is_error ? "error" : "warning";
    const ConfigFault& fault = each.fault;
    if (options.json) {
      out->print("{{\"file\":{},\"line\":{},\"path\":{},\"severity\":\"{}\",\"what\":{}}}\n",
                 json_string(fault.file), fault.line, json_string(fault.path), severity,
                 json_string(fault.what));
    } else {
      std::string painted = palette.paint(each.is_error ? Colour::Red : Colour::Yellow, severity);
      out->print("{}\n", fault_line(fault, painted.c_str()));
    }
  }
  if (!options.json) {
    bool errors = !found.empty() && found.front().is_error;
    std::string count =
        found.empty() ? "no findings"
                      : fmt::format("{} {}{}", grouped(found.size()), errors ? "error" : "warning",
                                    found.size() == 1 ? "" : "s");
    out->print("{}: {}\n", joined(options.config, ","), count);
  }
  out->flush();
  return found.empty() ? kDone : kFindings;
}

}  // namespace polctl
