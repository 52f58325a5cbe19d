// SPDX-License-Identifier: Apache-2.0
//
// polctl report: the page of a running host, with the answers in it, of a policy that nobody runs.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "host/graph_model.h"
#include "host/input_error.h"
#include "tool/commands.h"
#include "tool/graph_writer.h"
#include "tool/json_line.h"
#include "tool/watching/answers.h"
#include "tool/watching/policy_view.h"
#include "tool/watching/web_site.h"
#include "yarrow/yarrow_types.h"

namespace polctl {

namespace {

std::string findings_in_file(const std::string& policy_file) {
  CheckOptions check;
  check.source.policy_file = policy_file;
  check.json = true;
  check.proofs = false;  // as of configuration
  return as_array(printed([&](Output* out) { run_check(check, out); }));
}

std::string status_of(const PolicyOptions& options, const Graph& graph) {
  auto policies = std::count_if(graph.nodes.begin(), graph.nodes.end(), [](const GraphNode& node) {
    return node.type == POL_GRAPH_POLICY;
  });
  auto objects = std::count_if(graph.nodes.begin(), graph.nodes.end(),
                               [](const GraphNode& node) { return node.type <= POL_GRAPH_APP_ID; });
  return fmt::format(R"({{"source":{},"policies":{},"objects":{}}})",
                     json_string(source_name(options)), policies, objects);
}

// As a component of a query: what a browser's encodeURIComponent makes of it.
std::string encoded(const std::string& name) {
  std::string text;
  for (unsigned char c : name) {
    bool plain = isalnum(c) != 0 || strchr("-_.!~*'()", c) != nullptr;
    text += plain ? std::string(1, static_cast<char>(c)) : fmt::format("%{:02X}", c);
  }
  return text;
}

void write_file(const std::string& path, const std::string& text) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) {
    throw InputError(fmt::format("{}: error: cannot be written: {} (expected a file to write)",
                                 path, strerror(errno)));
  }
  Output file(fd);
  try {
    file.write(text);
    file.flush();
  } catch (...) {
    close(fd);
    throw;
  }
  close(fd);
}

}  // namespace

int run_report(const ReportOptions& options, Output* out) {
  PolicyOptions from = options.source;
  if (from.policy_file == "-") {
    throw InputError(
        "polctl: error: the policy file is read twice (expected a file that has a name)");
  }
  // A running agent is asked before the process is kept from it; one of our own may be reached.
  std::string findings;
  ConfiguredPolicies configured;
  if (from.agent) {
    const uint16_t port = running_agent_port(from.agent_port);
    if (port != YARROW_PORT) from.agent_port = std::to_string(port);
    findings = findings_json(port);
    ConfigSession session(port);
    configured = read_configured(&session, "");
  }
  if (!from.policy_file.empty()) findings = findings_in_file(from.policy_file);
  from.worker = !from.config.empty();
  PolicySource source = load_policy(from);
  if (findings.empty()) {
    findings = findings_json(source.live()->port);
    configured = read_configured(source.live()->session.get(), "");
  }
  Graph graph = read_graph(source.configured());
  std::map<std::string, std::string> answers;
  answers["/api/status"] = status_of(options.source, graph);
  answers["/api/graph"] = printed([&](Output* to) { write_graph_json(graph, to); });
  answers["/api/check"] = fmt::format("{{\"ready\":true,\"findings\":{}}}", findings);
  for (const GraphNode& node : graph.nodes) {
    if (node.type != POL_GRAPH_POLICY) continue;
    answers["/api/policy?name=" + encoded(node.name)] = as_array(printed([&](Output* to) {
      for (size_t policy : policies_named(graph, node.name)) {
        write_policy_json(graph, policy, nullptr, known_of(configured, graph.nodes[policy]), to);
        to->write("\n");
      }
    }));
  }
  std::string page = page_with(answers);
  if (options.file == "-") {
    out->write(page);
    out->flush();
  } else {
    write_file(options.file, page);
  }
  return kDone;
}

}  // namespace polctl
