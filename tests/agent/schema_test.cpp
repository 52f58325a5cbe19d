// SPDX-License-Identifier: Apache-2.0
//
// The schema as clients see it, and the tags that readers of changes know.
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>

#include "support.h"

namespace test {
namespace {

// Every tag that a reader knows, with the type it takes it for; containers have 0.
struct KnownTag {
  uint32_t tag;
  const char* name;
  uint32_t type;
};

constexpr KnownTag kKnownTags[] = {{0x0308c88e, "length", C_UINT8},
                                   {0x0369ffb7, "action-value", C_ENUM_VALUE},
                                   {0x07441945, "saas-app-list", C_BUF},
                                   {0x0c2c7467, "tag", C_UINT32},
                                   {0x0c7fba2e, "ge", C_UINT8},
                                   {0x10ae453c, "le", C_UINT8},
                                   {0x176ecfd3, "preference", C_UINT32},
                                   {0x1beabc63, "domain-id", C_UINT32},
                                   {0x1fc19c53, "sla-class", C_BUF},
                                   {0x2b503622, "color", C_ENUM_VALUE},
                                   {0x3129eae5, "color-list", C_BUF},
                                   {0x32d6e4cb, "source-data-prefix-list", C_BUF},
                                   {0x32fc12e6, "service", 0},
                                   {0x33c074ce, "tloc", 0},
                                   {0x470748d8, "originator", C_IPV4},
                                   {0x4a63a685, "tloc-action", C_ENUM_VALUE},
                                   {0x4d7d11c2, "vpn", C_UINT32},
                                   {0x4db8ee1a, "destination-data-prefix-list", C_BUF},
                                   {0x4ef9605a, "carrier", C_ENUM_VALUE},
                                   {0x542ece51, "app-list", C_BUF},
                                   {0x5754b118, "source-data-ipv6-prefix-list", C_BUF},
                                   {0x58e2217b, "policer", C_BUF},
                                   {0x59a72353, "site-id", C_UINT32},
                                   {0x5a06eb58, "dns-app-list", C_BUF},
                                   {0x5a62686b, "encap", C_ENUM_VALUE},
                                   {0x5c327362, "strict", C_BOOL},
                                   {0x5dc389d2, "prefix-list", C_BUF},
                                   {0x61fa2cdb, "address", C_IPV4},
                                   {0x6464ce5d, "preferred-color", C_ENUM_VALUE},
                                   {0x6aebf6e6, "vpn-list", C_BUF},
                                   {0x6ccfcce4, "type", C_ENUM_VALUE},
                                   {0x6d6fa00b, "site-list", C_BUF},
                                   {0x7037c488, "default-action", C_ENUM_VALUE},
                                   {0x71567138, "destination-data-ipv6-prefix-list", C_BUF},
                                   {0x72d28bfe, "tloc-list", C_BUF},
                                   {0x775cf168, "origin", C_ENUM_VALUE},
                                   {0x7ce0369b, "group-id", C_UINT32},
                                   {0x7ef235bf, "local", C_XMLTAG}};

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

  static void visit_all(const t_yarrow_cs_node* first, const auto& visit) {
    for (const t_yarrow_cs_node* node = first; node != nullptr; node = node->next) {
      visit(*node);
      visit_all(node->children, visit);
    }
  }

  static AgentProcess* agent_;
};

AgentProcess* SchemaTest::agent_ = nullptr;

TEST_F(SchemaTest, EveryTagThatAReaderKnowsIsInTheSchemaWithItsTypeAndNoNameHasTwo) {
  std::map<uint32_t, std::set<std::string>> names;
  std::map<uint32_t, std::set<uint32_t>> types;
  std::map<std::string, std::set<uint32_t>> tags;
  visit_all(yarrow_cs_node_cd(nullptr, "/"), [&](const t_yarrow_cs_node& node) {
    names[node.tag].insert(node.name);
    tags[node.name].insert(node.tag);
    if (node.kind == YARROW_NODE_LEAF || node.kind == YARROW_NODE_LEAF_LIST) {
      types[node.tag].insert(node.type);
    } else if (node.kind == YARROW_NODE_CONTAINER) {
      types[node.tag].insert(0);
    }
  });
  for (const KnownTag& known : kKnownTags) {
    EXPECT_EQ(names[known.tag], std::set<std::string>{known.name}) << std::hex << known.tag;
    EXPECT_EQ(types[known.tag], std::set<uint32_t>{known.type}) << known.name;
  }
  for (const auto& [tag, of] : names) EXPECT_EQ(of.size(), 1u) << std::hex << tag << *of.begin();
  for (const auto& [name, of] : tags) EXPECT_EQ(of.size(), 1u) << name;
}

// A tag that the module states and no reader knows is a reader forgotten.
TEST_F(SchemaTest, TheModuleStatesNoTagThatNoReaderKnows) {
  std::ifstream file(POLICY_YANG);
  size_t stated = 0;
  for (std::string line; std::getline(file, line);) {
    size_t at = line.find("yw:tag \"");
    if (at == std::string::npos) continue;
    const unsigned long tag = std::stoul(line.substr(at + 8), nullptr, 16);
    EXPECT_TRUE(std::any_of(std::begin(kKnownTags), std::end(kKnownTags),
                            [tag](const KnownTag& known) { return known.tag == tag; }))
        << line;
    ++stated;
  }
  EXPECT_GE(stated, std::size(kKnownTags));
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

TEST_F(SchemaTest, ThePathsThatTheLibraryNamesExist) {
  for (const char* path :
       {"/policy/from-pellux/app-id", "/policy/from-pellux/sla-class",
        "/policy/from-pellux/data-policy/direction", "/policy/from-pellux/app-route-policy",
        "/policy/from-pellux/policer", "/policy/from-pellux/cflowd-template",
        "/policy/from-pellux/lists/vpn-list", "/policy/from-pellux/lists/data-prefix-list",
        "/policy/from-pellux/lists/data-ipv6-prefix-list", "/policy/from-pellux/lists/tloc-list",
        "/policy/from-pellux/lists/app-list", "/policy-from-pellux/data-policy/vpn-list/sequence",
        "/policy/lists/data-ipv6-prefix-list", "/policy/cflowd-template/collector",
        "/policy/app-route-policy/vpn-list/sequence",
        "/policy/membership-policy/sequence/action/action-value",
        "/policy/data-policy/vpn-list/sequence/action/set/kel-tloc-pref-list"}) {
    EXPECT_NE(yarrow_cs_node_cd(nullptr, "%s", path), nullptr) << path;
  }
}

}  // namespace
}  // namespace test
