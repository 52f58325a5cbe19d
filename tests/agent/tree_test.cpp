// SPDX-License-Identifier: Apache-2.0
//
// The trees under the datastores against a plain map, and differences that lead from one to the
// other.
#include <map>
#include <random>

#include "agent/changes.h"
#include "agent/keypath.h"
#include "agent/xml.h"
#include "support.h"

namespace test {
namespace {

using agent::Keys;
using agent::MapRef;
using agent::NodeRef;

class TreeTest : public ::testing::Test {
 protected:
  TreeTest() {
    std::string error;
    schema_ = agent::schema_load(&error);
    EXPECT_TRUE(schema_) << error;
  }

  agent::Path path(const std::string& text) const {
    agent::Path parsed;
    agent::Result result = agent::path_parse(*schema_, text, &parsed);
    EXPECT_TRUE(result.ok()) << result.reason;
    return parsed;
  }

  NodeRef entry(const agent::SchemaNode& list, const std::string& key) const {
    auto node = std::make_shared<agent::Node>();
    node->schema = &list;
    node->texts = {key};
    return node;
  }

  // One random edit of a small world, so that edits meet.
  NodeRef edited(const NodeRef& root, std::mt19937& random) const {
    std::string list = "/policy/lists/site-list{" + std::to_string(random() % 4) + "}";
    std::string sequence = "/policy/control-policy{" + std::to_string(random() % 3) +
                           "}/sequence{" + std::to_string(random() % 12) + "}";
    std::string where;
    NodeRef node;
    switch (random() % 6) {
      case 0:
        where = list + "/site{" + std::to_string(random() % 20) + "}";
        node = entry(*path(where).back().schema, path(where).back().keys[0]);
        break;
      case 1:
        where = list + "/site{" + std::to_string(random() % 20) + "}";
        break;
      case 2:
        where = random() % 4 == 0 ? "/policy/lists" : list;
        break;
      case 3:
        where = sequence + "/action/set/preference";
        node = agent::make_leaf(*path(where).back().schema, {std::to_string(random() % 3)});
        break;
      case 4:
        where = sequence + (random() % 2 == 0 ? "/action/set/preference" : "");
        break;
      default:
        where = sequence + "/match{route}/site-list";
        node = agent::make_leaf(*path(where).back().schema, {"S" + std::to_string(random() % 3)});
    }
    return agent::with_node(root, path(where), node);
  }

  std::string text(const NodeRef& root) const { return agent::xml_save(root, {}); }

  std::unique_ptr<agent::Schema> schema_;
};

TEST_F(TreeTest, AMapOfEntriesBehavesLikeAPlainMapAndHasOneShapeForOneContent) {
  const agent::SchemaNode& list = *path("/policy/control-policy{x}/sequence{1}").back().schema;
  std::mt19937 random(5);
  std::map<unsigned, NodeRef> model;
  MapRef map;
  for (int step = 0; step < 4000; ++step) {
    unsigned number = random() % 300;
    NodeRef one = entry(list, std::to_string(number));
    if (random() % 3 != 0) {
      map = agent::map_put(map, one);
      model[number] = one;
    } else {
      map = agent::map_erase(map, {std::to_string(number)});
      model.erase(number);
    }
    ASSERT_EQ(agent::map_count(map), model.size());
  }
  auto next = model.begin();
  agent::map_visit(map, [&](const NodeRef& one) {
    ASSERT_NE(next, model.end());
    EXPECT_EQ(one, (next++)->second) << "numbers in the order of numbers";
  });
  EXPECT_EQ(next, model.end());
  // Made anew in another order: the same entries, so no difference, and the same priorities on top.
  MapRef again;
  for (auto at = model.rbegin(); at != model.rend(); ++at)
    again = agent::map_put(again, at->second);
  EXPECT_EQ(again->entry, map->entry);
  agent::map_diff(map, again, [](const NodeRef&, const NodeRef&) { ADD_FAILURE(); });
}

TEST_F(TreeTest, ChangesBetweenAnyTwoTreesLeadFromOneToTheOtherAlsoThroughJournalAndText) {
  std::mt19937 random(9);
  NodeRef before = agent::empty_tree(*schema_);
  for (int round = 0; round < 300; ++round) {
    NodeRef after = before;
    for (unsigned i = random() % 30; i > 0; --i) after = edited(after, random);
    std::vector<agent::Change> changes;
    agent::changes_between(before, after, &changes);
    yarrow::Writer out;
    agent::changes_write(changes, out);
    yarrow::Reader in(out.bytes());
    std::vector<agent::Change> read;
    agent::Result result = agent::changes_read(*schema_, in, &read);
    ASSERT_TRUE(result.ok() && in.done()) << result.reason;
    ASSERT_EQ(text(agent::changes_apply(before, changes)), text(after));
    ASSERT_EQ(text(agent::changes_apply(before, read)), text(after));
    std::vector<agent::Change> none;
    agent::changes_between(after, agent::changes_apply(before, read), &none);
    ASSERT_TRUE(none.empty()) << "equal trees in different nodes";
    agent::XmlContent content;
    result = agent::xml_load(*schema_, text(after), schema_->root, {}, &content);
    ASSERT_TRUE(result.ok()) << result.reason;
    ASSERT_EQ(text(content.node), text(after));
    if (round % 40 == 39) after = agent::empty_tree(*schema_);
    before = after;
  }
}

}  // namespace
}  // namespace test
