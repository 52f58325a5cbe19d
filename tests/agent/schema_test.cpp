// SPDX-License-Identifier: Apache-2.0
//
// The schema as clients see it, and the tags that readers of changes know.
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include "support.h"
#include "support/golden.h"
#include "support/paths.h"

namespace test {
namespace {

class SchemaTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    agent_ = new AgentProcess;
    // The first lookup reads the schema by itself, from where the environment says.
    setenv(YARROW_PORT_VARIABLE, std::to_string(agent_->port()).c_str(), 1);
    ASSERT_NE(yarrow_cs_node_cd(nullptr, "/"), nullptr) << yarrow_lasterr();
    unsetenv(YARROW_PORT_VARIABLE);
  }
  static void TearDownTestSuite() { delete agent_; }

  // One line a node, below its parent: what it is, its type or number of keys, its tag.
  static std::string told(const t_yarrow_cs_node* first, const std::string& indent) {
    static constexpr const char* kKinds[] = {"", "container", "list", "leaf", "leaf-list"};
    std::ostringstream text;
    for (const t_yarrow_cs_node* node = first; node != nullptr; node = node->next) {
      const bool leaf = node->kind == YARROW_NODE_LEAF || node->kind == YARROW_NODE_LEAF_LIST;
      text << indent << node->name << " " << kKinds[node->kind] << " "
           << (leaf ? node->type : node->key_count) << " " << std::hex << node->tag << std::dec
           << (node->is_state != 0 ? " state" : "") << "\n"
           << told(node->children, indent + "  ");
    }
    return text.str();
  }

  static AgentProcess* agent_;
};

AgentProcess* SchemaTest::agent_ = nullptr;

// The names, types and tags that the library's readers and its host were built against.
TEST_F(SchemaTest, NodesMatchTheirGoldenAndNoNameHasTwoTags) {
  const std::string nodes = told(yarrow_cs_node_cd(nullptr, "/"), "");
  expect_golden("schema/nodes.ok", nodes);
  std::map<std::string, std::string> tags;
  std::map<std::string, std::string> names;
  std::istringstream in(nodes);
  std::string name, kind, type, tag;
  for (std::string line; std::getline(in, line);) {
    std::istringstream(line) >> name >> kind >> type >> tag;
    EXPECT_EQ(tags.emplace(name, tag).first->second, tag) << line;
    EXPECT_EQ(names.emplace(tag, name).first->second, name) << line;
  }
  // The header that library and host take them from says the same of each node that it names.
  std::ifstream header(std::string(kGoldenDir) + "/../../include/policy/pol_config_tags.h");
  int known = 0;
  for (std::string line, define; std::getline(header, line);) {
    std::istringstream(line) >> define >> name >> tag;
    if (define != "#define" || !name.starts_with("POL_TAG_")) continue;
    name.erase(0, strlen("POL_TAG_"));
    for (char& c : name) c = c == '_' ? '-' : static_cast<char>(tolower(c));
    EXPECT_EQ(strtoul(tag.c_str(), nullptr, 16), strtoul(tags[name].c_str(), nullptr, 16)) << line;
    ++known;
  }
  EXPECT_EQ(known, 38);
}

TEST_F(SchemaTest, PathsAreFoundWithAndWithoutPrefixesAndKeys) {
  const t_yarrow_cs_node* sequence =
      yarrow_cs_node_cd(nullptr, "%s", "/policy/data-policy/vpn-list/sequence");
  ASSERT_NE(sequence, nullptr);
  EXPECT_EQ(sequence->key_count, 1u);
  EXPECT_EQ(sequence->kind, uint32_t{YARROW_NODE_LIST});
  EXPECT_STREQ(sequence->children->name, "number");
  EXPECT_EQ(sequence->children->type, uint32_t{C_UINT16});
  EXPECT_EQ(yarrow_cs_node_cd(
                nullptr, "/zenodra-policy:policy/zenodra-policy:data-policy/vpn-list{a}/sequence"),
            sequence);
  EXPECT_EQ(yarrow_cs_node_cd(nullptr, "/policy/data-policy{\"a}\\\"b/\"}/vpn-list/sequence"),
            sequence);
  EXPECT_EQ(yarrow_cs_node_cd(sequence, "/action/set/vpn-label")->parent->parent->parent, sequence);
  EXPECT_EQ(yarrow_cs_node_cd(nullptr, "/policy/from-pellux")->is_state, 1u);
  for (const char* path :
       {"/other:policy", "/policy/", "policy", "/policy/no-such", "", "/policy//lists"}) {
    const t_yarrow_cs_node* node = yarrow_cs_node_cd(nullptr, "%s", path);
    EXPECT_EQ(node, nullptr) << path;
  }
}

}  // namespace
}  // namespace test
