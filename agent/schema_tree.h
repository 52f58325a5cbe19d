// SPDX-License-Identifier: Apache-2.0
//
// The schema as people are told it: what may stand where, what it means, what a value may be. For
// programs that have this agent inside; it says the same as any agent of their version does.
#ifndef AGENT_SCHEMA_TREE_H
#define AGENT_SCHEMA_TREE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace agent {

struct TreeNode {
  enum class Kind : uint8_t { kContainer, kList, kLeaf, kLeafList };
  Kind kind = Kind::kContainer;
  std::string name;
  std::string name_space;
  std::string description;
  std::string expected;                          // a leaf: what it takes, in words
  std::vector<std::string> words;                // a leaf: all that it takes, where that is few
  std::string refers;                            // a leaf: the list whose entries it names
  bool empty = false;                            // a leaf without a value
  bool unnamed = false;                          // its value may follow its container's name
  const TreeNode* parent = nullptr;              // null at the root
  std::vector<const TreeNode*> keys;             // of a list
  std::vector<std::unique_ptr<TreeNode>> nodes;  // in schema order, without keys

  bool is_leaf() const { return kind == Kind::kLeaf || kind == Kind::kLeafList; }
  const TreeNode* child(const std::string& called) const;  // null without one

  std::vector<std::unique_ptr<TreeNode>> owned_keys;
};

// The nameless root above the top-level nodes, without state data. Made at the first call, lives as
// long as the process; null, with the reason in `error`, if the modules cannot be compiled.
const TreeNode* schema_tree(std::string* error);

// Configuration as JSON (RFC 7951) from XML in the agent's envelope, and back. False with the reason.
bool json_from_xml(const std::string& xml, std::string* json, std::string* error);
bool xml_from_json(const std::string& json, std::string* xml, std::string* error);

}  // namespace agent
#endif
