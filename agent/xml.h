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

// What an element's attribute "operation" asks for beyond being merged into what is there
// (RFC 6241, section 7.2).
enum class XmlOperationKind : uint8_t { kMerge, kReplace, kCreate, kDelete, kRemove };

// In a text; column 0: somewhere in the line.
struct XmlPlace {
  int line = 0;
  int column = 0;
};

// "line 5:7: ", as reasons begin.
std::string xml_place_text(XmlPlace place);

struct XmlOperation {
  XmlOperationKind kind = XmlOperationKind::kMerge;
  XmlPlace place;
  Path path;         // from the node below which the document belongs
  std::string item;  // of a leaf-list
};

// What a document holds: the node below which its elements belong, without what it deletes; which of
// that node's children it names, were it only to say that they are empty; and its operations.
struct XmlContent {
  NodeRef node;
  std::vector<const SchemaNode*> named;
  std::vector<XmlOperation> operations;
};

// Reads a document whose elements belong below `top`. Every fault is named, with its line, up to
// kMaxFaults; entries, leaves and items that stand twice are faults. White space around a value is
// dropped unless the value's type takes it.
Result xml_load(const Schema& schema, std::string_view text, const SchemaNode& top,
                const XmlRules& rules, XmlContent* content);

}  // namespace agent
#endif
