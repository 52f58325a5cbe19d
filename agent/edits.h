// SPDX-License-Identifier: Apache-2.0
//
// Reading and editing a tree by path, as clients ask for it.
#ifndef AGENT_EDITS_H
#define AGENT_EDITS_H

#include "agent/result.h"
#include "agent/tree.h"
#include "platform/yarrow/wire.h"

namespace agent {

bool node_exists(const NodeRef& root, const Path& path);
Result count_entries(const NodeRef& root, const Path& path, uint32_t* count);

// The text of a leaf, or its default.
Result read_text(const NodeRef& root, const Path& path, std::string* text);

// A tree under edit. A failed edit leaves it as it was.
struct Editor {
  const Schema& schema;
  bool state;  // the tree holds state data instead of configuration
  NodeRef* root;
};

Result edit_set_text(Editor& editor, const Path& path, std::string_view text);
Result edit_set_value(Editor& editor, const Path& path, yarrow::Reader& in);
Result edit_create(Editor& editor, const Path& path);
Result edit_set_object(Editor& editor, const Path& path, yarrow::Reader& in);
Result edit_delete(Editor& editor, const Path& path);
Result edit_load(Editor& editor, const Path& path, uint32_t flags, std::string_view text);

}  // namespace agent
#endif
