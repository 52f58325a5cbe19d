// SPDX-License-Identifier: Apache-2.0
//
// Configuration as XML text.
#ifndef AGENT_XML_H
#define AGENT_XML_H

#include <string>
#include <string_view>

#include "agent/result.h"
#include "agent/tree.h"

namespace agent {

// The envelope around saved configuration; loaded text may have it or begin with a top-level node.
inline constexpr char kConfigNamespace[] = "urn:norvik:config:1.0";

// The node at the path in its ancestors, with the keys of each entry on the way: one line, no white
// space between elements, each namespace declared once.
std::string xml_save(const NodeRef& root, const Path& path);

// What an element that does not fit the datastore's kind of data means.
struct XmlRules {
  bool state = false;       // the datastore holds state data instead of configuration
  bool skip_other = false;  // pass over the other kind instead of refusing it
};

// What a document holds: the node below which its elements belong, and which of that node's
// children it names, were it only to say that they are empty.
struct XmlContent {
  NodeRef node;
  std::vector<const SchemaNode*> named;
};

// Reads a document whose elements belong below `top`. Every fault is named, with its line, up to
// kMaxFaults. White space around values is dropped; attributes and document types are refused.
Result xml_load(const Schema& schema, std::string_view text, const SchemaNode& top,
                const XmlRules& rules, XmlContent* content);

}  // namespace agent
#endif
