// SPDX-License-Identifier: Apache-2.0
#include "edit_model.h"

#include <map>
#include <sstream>
#include <string_view>
#include <vector>

#include "tests/agent/support.h"
#include "tests/support/golden.h"

namespace test {

namespace {

using Texts = std::vector<std::string>;

// Few values a leaf, so that histories meet themselves again, and as "tops" the lists that the library
// reads. Words stand for every enumeration; members of ranges are spelled in several ways.
const std::map<std::string, Texts>& pools() {
  static const std::map<std::string, Texts> pools = [] {
    std::map<std::string, Texts> read;
    std::istringstream lines(read_golden("e2e/texts.in"));
    for (std::string line, leaf, text; std::getline(lines, line);) {
      std::istringstream words(line);
      for (words >> leaf; words >> text;) read[leaf].push_back(text);
    }
    return read;
  }();
  return pools;
}

// What the schema lets stand beside a leaf or container only one at a time.
std::string_view rival_of(std::string_view name) {
  static const std::map<std::string_view, std::string_view> rivals = {
      {"vpn", "vpn-list"},      {"vpn-list", "vpn"},     {"site-id", "site-list"},
      {"site-list", "site-id"}, {"color", "color-list"}, {"color-list", "color"},
      {"tloc", "tloc-list"},    {"tloc-list", "tloc"},
  };
  auto found = rivals.find(name);
  return found != rivals.end() ? found->second : "";
}

const t_yarrow_cs_node* child_named(const t_yarrow_cs_node* node, std::string_view name) {
  const t_yarrow_cs_node* child = node->children;
  while (child != nullptr && child->name != name) child = child->next;
  return child;
}

bool is_key(const t_yarrow_cs_node* list, const t_yarrow_cs_node* leaf) {
  if (list->kind != YARROW_NODE_LIST) return false;
  const t_yarrow_cs_node* key = list->children;
  for (uint32_t i = 0; i < list->key_count; ++i, key = key->next) {
    if (key == leaf) return true;
  }
  return false;
}

}  // namespace

std::string Editor::text_for(const t_yarrow_cs_node* leaf) {
  auto found = pools().find(std::string(leaf->parent->name) + "/" + leaf->name);
  if (found == pools().end()) found = pools().find(leaf->name);
  if (found != pools().end()) {
    return found->second[below(static_cast<uint32_t>(found->second.size()))];
  }
  // A number, or a name of a list.
  if (leaf->type == C_XMLTAG) return "";
  if (leaf->type != C_BUF) return std::to_string(below(4));
  return pools().at("name")[below(3)];
}

std::string Editor::entry_path(const t_yarrow_cs_node* list, const std::string& parent) {
  std::string path = parent + "/" + list->name + "{";
  const t_yarrow_cs_node* key = list->children;
  for (uint32_t i = 0; i < list->key_count; ++i, key = key->next) {
    path += (i > 0 ? " " : "") + text_for(key);
  }
  return path + "}";
}

void Editor::remove(const std::string& path) { maapi_delete(sock_, trans_, "%s", path.c_str()); }

void Editor::set(const t_yarrow_cs_node* leaf, const std::string& parent) {
  std::string_view rival = rival_of(leaf->name);
  if (!rival.empty() && child_named(leaf->parent, rival) != nullptr && below(10) > 0) {
    remove(parent + "/" + std::string(rival));
  }
  maapi_set_elem_text(sock_, trans_, text_for(leaf).c_str(), "%s/%s", parent.c_str(), leaf->name);
}

// Sets some of the leaves in a container or entry and in its containers.
void Editor::fill(const t_yarrow_cs_node* node, const std::string& path, uint32_t percent) {
  for (const t_yarrow_cs_node* child = node->children; child != nullptr; child = child->next) {
    if (is_key(node, child) || below(100) >= percent) continue;
    if (child->kind == YARROW_NODE_LIST) {
      std::string entry = entry_path(child, path);
      maapi_create(sock_, trans_, "%s", entry.c_str());
      fill(child, entry, percent);
    } else if (child->kind == YARROW_NODE_CONTAINER) {
      std::string_view rival = rival_of(child->name);
      if (!rival.empty() && below(10) > 0) remove(path + "/" + std::string(rival));
      std::string below_path = path + "/" + child->name;
      // What the container cannot do without.
      for (const char* needed : {"address", "type"}) {
        if (const t_yarrow_cs_node* leaf = child_named(child, needed)) set(leaf, below_path);
      }
      fill(child, below_path, percent);
    } else {
      set(child, path);
    }
  }
}

// One edit of what an entry or container holds.
void Editor::edit_in(const t_yarrow_cs_node* node, const std::string& path) {
  std::vector<const t_yarrow_cs_node*> children;
  for (const t_yarrow_cs_node* child = node->children; child != nullptr; child = child->next) {
    if (!is_key(node, child)) children.push_back(child);
  }
  if (children.empty()) return;
  const t_yarrow_cs_node* child = children[below(static_cast<uint32_t>(children.size()))];
  std::string below_path = path + "/" + child->name;
  if (child->kind == YARROW_NODE_LIST) return edit_list(child, path);
  if (child->kind == YARROW_NODE_CONTAINER) {
    uint32_t choice = below(10);
    if (choice == 0) return remove(below_path);
    if (choice < 5) return edit_in(child, below_path);
    return fill(child, below_path, 40);
  }
  if (below(3) == 0) return remove(below_path);
  set(child, path);
}

void Editor::edit_list(const t_yarrow_cs_node* list, const std::string& parent) {
  std::string entry = entry_path(list, parent);
  const uint32_t choice = below(12);
  if (choice == 0) return remove(entry);
  if (choice == 1) remove(entry);  // made anew in the same commit
  if (choice == 2 && below(4) == 0) return remove(parent + "/" + list->name);
  bool made = maapi_create(sock_, trans_, "%s", entry.c_str()) == YARROW_OK;
  if (!made) return edit_in(list, entry);
  for (const char* needed : {"rate", "burst"}) {
    if (const t_yarrow_cs_node* leaf = child_named(list, needed)) set(leaf, entry);
  }
  fill(list, entry, 35);
}

void Editor::edit(uint32_t count) {
  trans_ =
      maapi_start_trans_flags2(sock_, MAAPI_CANDIDATE, MAAPI_READ_WRITE, 0, 0, nullptr, nullptr);
  ASSERT_GT(trans_, 0) << why(trans_);
  const Texts& tops = pools().at("tops");
  for (uint32_t i = 0; i < count; ++i) {
    const std::string& top = tops[below(static_cast<uint32_t>(tops.size()))];
    const t_yarrow_cs_node* list = yarrow_cs_node_cd(nullptr, "%s", top.c_str());
    ASSERT_NE(list, nullptr) << top;
    edit_list(list, top.substr(0, top.rfind('/')));
  }
  EXPECT_EQ(why(maapi_apply_trans(sock_, trans_, 0)), "ok");
  EXPECT_EQ(why(maapi_finish_trans(sock_, trans_)), "ok");
}

}  // namespace test
