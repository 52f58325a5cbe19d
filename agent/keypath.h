// SPDX-License-Identifier: Apache-2.0
//
// Paths as text: "/policy/lists/tloc-list{A}/tloc{10.0.0.1 mpls ipsec}/preference".
#ifndef AGENT_KEYPATH_H
#define AGENT_KEYPATH_H

#include <string>
#include <string_view>

#include "agent/result.h"
#include "agent/tree.h"

namespace agent {

// Reads a path ("" and "/" are the root). Keys come out canonical. Only the last step may be a list
// without keys.
Result path_parse(const Schema& schema, std::string_view text, Path* path);

// Appends one step, keys quoted where they need it.
void path_append(std::string& text, const SchemaNode& schema, const Keys& keys);

std::string path_text(const Path& path);

}  // namespace agent
#endif
