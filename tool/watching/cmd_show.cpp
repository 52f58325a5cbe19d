// SPDX-License-Identifier: Apache-2.0
//
// polctl show, polctl clear. Only a host that runs has what they are about.
#include "host/input_error.h"
#include "policy_view.h"
#include "tool/commands.h"
#include "tool/live_client.h"
#include "yarrow/yarrow_types.h"

namespace polctl {

namespace {

// What the library makes of an agent's configuration; nobody counts.
int show_here(const ShowOptions& options, Output* out) {
  // A running agent is asked before the process is kept from it.
  PolicyOptions from = options.source;
  const uint16_t port = running_agent_port(from.agent_port);
  if (port != YARROW_PORT) from.agent_port = std::to_string(port);
  ConfiguredPolicies configured;
  if (options.what == "policy") {
    ConfigSession session(port);
    configured = read_configured(&session, options.name);
  }
  PolicySource source = load_policy(from);
  Graph graph = read_graph(source.configured());
  if (options.what == "lists") {
    write_lists(graph, options.json, out);
  } else {
    for (size_t policy : policies_named(graph, options.name)) {
      const ConfiguredPolicy& known = known_of(configured, graph.nodes[policy]);
      if (options.json) {
        write_policy_json(graph, policy, nullptr, known, out);
        out->write("\n");
      } else {
        write_policy_text(graph, policy, nullptr, known, out);
      }
    }
  }
  out->flush();
  return kDone;
}

}  // namespace

int run_show(const ShowOptions& options, Output* out) {
  if (options.source.live.empty()) return show_here(options, out);
  return ask_live(options.source.live, {options}, out);
}

int run_clear(const ClearOptions& options, Output* out) {
  return ask_live(options.source.live, {options}, out);
}

}  // namespace polctl
