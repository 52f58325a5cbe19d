// SPDX-License-Identifier: Apache-2.0
// Any bytes as configuration to load: what is taken is saved, and loads as what it was. The first
// byte says which kind of data.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "agent/changes.h"
#include "agent/edits.h"
#include "agent/xml.h"
#include "yarrow/yarrow_maapi.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static std::string error;
  static const std::unique_ptr<agent::Schema> schema = agent::schema_load(&error);
  if (!schema) abort();
  if (size == 0) return 0;
  const agent::XmlRules rules{(data[0] & 1) != 0, (data[0] & 2) != 0};
  // Of exactly its length: a byte read beyond it is found.
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  agent::XmlContent content;
  if (!agent::xml_load(*schema, text, schema->root, rules, &content).ok()) return 0;

  const std::string saved = agent::xml_save(content.node, {});
  agent::XmlContent again;
  if (!agent::xml_load(*schema, saved, schema->root, rules, &again).ok()) abort();
  std::vector<agent::Change> changes;
  agent::changes_between(content.node, again.node, &changes);
  if (!changes.empty() || agent::xml_save(again.node, {}) != saved) abort();

  // Into a tree: the same text leaves what is there as it is, to the pointer.
  agent::NodeRef root = agent::empty_tree(*schema);
  agent::Editor editor{*schema, rules.state, &root};
  const unsigned skip = rules.skip_other ? YARROW_CONFIG_SKIP_STATE : 0;
  const unsigned merge = YARROW_CONFIG_XML | YARROW_CONFIG_MERGE | skip;
  if (!agent::edit_load(editor, {}, merge, text).ok()) return 0;  // it deletes what is not there
  const agent::NodeRef loaded = root;
  for (unsigned flags : {merge, unsigned{YARROW_CONFIG_XML}, YARROW_CONFIG_XML | 0x400u}) {
    if (!agent::edit_load(editor, {}, flags, agent::xml_save(loaded, {})).ok()) abort();
    if (root != loaded) abort();
  }
  return 0;
}
