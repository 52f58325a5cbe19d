/* SPDX-License-Identifier: Apache-2.0
 *
 * graph_writer.h - the graph of what uses what, for Graphviz, for programs and for people.
 */
#ifndef TOOL_GRAPH_WRITER_H
#define TOOL_GRAPH_WRITER_H

#include "host/graph_model.h"
#include "host/output.h"

namespace polctl {

void write_graph_dot(const Graph& graph, Output* out);
void write_graph_json(const Graph& graph, Output* out);
void write_graph_text(const Graph& graph, Output* out);

}  // namespace polctl

#endif
