// SPDX-License-Identifier: Apache-2.0
//
// The schema as read from an agent.
#ifndef YARROW_CLIENT_SCHEMA_H
#define YARROW_CLIENT_SCHEMA_H

#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "yarrow/yarrow_schema.h"

namespace yarrow {

// Nodes and texts at addresses that stay.
struct LoadedSchema {
  std::vector<t_yarrow_cs_node> nodes;  // the first is the first at the top
  std::deque<std::string> texts;
};

// Reads the schema over a connected socket.
int fetch_schema(int sock, LoadedSchema& schema);

// The node at a path of names alone; null when there is none or no schema was loaded.
const t_yarrow_cs_node* schema_node(std::string_view path);

}  // namespace yarrow
#endif
