// SPDX-License-Identifier: Apache-2.0
//
// polctl graph.
#include "commands.h"
#include "graph_writer.h"
#include "host/input_error.h"
#include "live_client.h"

namespace polctl {

int answer_graph(const GraphOptions& options, const PolicySource& source, Output* out) {
  Graph graph = read_graph(source.configured());
  if (options.format == "dot") {
    write_graph_dot(graph, out);
  } else if (options.format == "json") {
    write_graph_json(graph, out);
  } else {
    write_graph_text(graph, out);
  }
  return kDone;
}

int run_graph(const GraphOptions& options, Output* out) {
  if (!options.source.live.empty()) return ask_live(options.source.live, {options}, out);
  PolicySource source = load_policy(options.source);
  int status = answer_graph(options, source, out);
  out->flush();
  return status;
}

}  // namespace polctl
