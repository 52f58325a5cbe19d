// SPDX-License-Identifier: Apache-2.0
//
// The trees under the datastores against a plain map, and differences that lead from one to the
// other.
#include <chrono>
#include <map>
#include <random>
#include <sstream>

#include "agent/changes.h"
#include "agent/keypath.h"
#include "agent/list_pool.h"
#include "agent/rebase.h"
#include "agent/validate.h"
#include "agent/xml.h"
#include "agent/xml_bounds.h"
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
    static constexpr const char* kNames[] = {"0", "\" a \"", "\"<&>\"", "\"{\\\"\\\\]]>\""};
    std::string list = std::string("/policy/lists/site-list{") + kNames[random() % 4] + "}";
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

// How deep the map is; fails where one half outweighs the other.
size_t depth_of(const MapRef& map) {
  if (!map) return 0;
  const uint32_t left = agent::map_count(map->left);
  const uint32_t right = agent::map_count(map->right);
  EXPECT_EQ(map->count, left + right + 1);
  EXPECT_TRUE(left + right < 2 || std::max(left, right) <= 3 * std::min(left, right));
  return 1 + std::max(depth_of(map->left), depth_of(map->right));
}

using Model = std::map<unsigned, NodeRef>;

void expect_same(const MapRef& map, const Model& model) {
  auto next = model.begin();
  agent::map_visit(map, [&](const NodeRef& one) {
    ASSERT_NE(next, model.end());
    EXPECT_EQ(one, (next++)->second) << "numbers in the order of numbers";
  });
  EXPECT_EQ(next, model.end());
}

TEST_F(TreeTest, AMapOfEntriesBehavesLikeAPlainMapAndIsNeverDeep) {
  const agent::SchemaNode& list = *path("/policy/control-policy{x}/sequence{1}").back().schema;
  std::mt19937 random(5);
  Model model, old_model;
  MapRef map, old_map;
  for (int step = 0; step < 4000; ++step) {
    // Rising, falling and random, so that no order of keys is a special one.
    const unsigned phase = static_cast<unsigned>(step) % 400;
    const unsigned number = step % 3 == 0 ? phase : step % 3 == 1 ? 1000 - phase : random() % 300;
    NodeRef one = entry(list, std::to_string(number));
    if (random() % 3 != 0) {
      map = agent::map_put(map, one);
      model[number] = one;
    } else {
      map = agent::map_erase(map, {std::to_string(number)});
      model.erase(number);
    }
    ASSERT_EQ(agent::map_count(map), model.size());
    if (step % 100 != 99) continue;
    EXPECT_LE(depth_of(map), 16u);
    expect_same(map, model);
    const std::vector<agent::EntryChange> changes = agent::map_diff(old_map, map);
    for (const agent::EntryChange& change : changes) {
      EXPECT_NE(change.before, change.after);
      const std::string& key = (change.before ? change.before : change.after)->texts[0];
      const auto at = static_cast<unsigned>(std::stoul(key));
      EXPECT_EQ(change.before, old_model.contains(at) ? old_model[at] : nullptr);
      EXPECT_EQ(change.after, model.contains(at) ? model[at] : nullptr);
    }
    const MapRef led = agent::map_change(old_map, changes);
    depth_of(led);
    expect_same(led, model);
    // Now and then from scratch, or from far back.
    if (random() % 3 == 0) old_map = map, old_model = model;
  }
}

// In this order a tree that does not balance itself is a chain.
TEST_F(TreeTest, AHundredThousandRisingKeysMakeNoChain) {
  const agent::SchemaNode& list = *path("/policy/app-id{x}").back().schema;
  std::vector<NodeRef> entries;
  MapRef one_by_one;
  for (int i = 100'000; i < 200'000; ++i) {
    entries.push_back(entry(list, std::to_string(i)));
    one_by_one = agent::map_put(one_by_one, entries.back());
  }
  EXPECT_LE(depth_of(one_by_one), 40u);
  const MapRef at_once = agent::map_build(entries);
  EXPECT_LE(depth_of(at_once), 17u);
  EXPECT_TRUE(agent::map_diff(one_by_one, at_once).empty()) << "of other shape, but the same";
}

// What an edit that meets other edits is to come to, by going through its changes one by one.
TEST_F(TreeTest, EditsAreCarriedOverUnlessWhatTheyEditIsGone) {
  std::mt19937 random(23);
  NodeRef base = agent::empty_tree(*schema_);
  int refused = 0;
  for (int round = 0; round < 600; ++round) {
    NodeRef mine = base;
    NodeRef theirs = base;
    for (unsigned i = random() % 8; i > 0; --i) mine = edited(mine, random);
    for (unsigned i = random() % 8; i > 0; --i) theirs = edited(theirs, random);
    std::vector<agent::Change> changes;
    agent::changes_between(base, mine, &changes);
    std::string conflicts;
    for (const agent::Change& change : changes) {
      const agent::Path at = agent::change_path(change);
      agent::Path above = at;
      do above.pop_back();
      while (!above.empty() && above.back().keys.empty());
      bool is_gone = change.op == YARROW_MODIFIED && !agent::find_node(theirs, at);
      if (!is_gone || !agent::find_node(theirs, above)) continue;
      conflicts +=
          (conflicts.empty() ? "" : "\n") + agent::path_text(at) + ": was deleted meanwhile";
    }
    NodeRef landed = theirs;
    const agent::Result result = agent::rebase(base, mine, &landed);
    ASSERT_EQ(result.reason, conflicts);
    refused += conflicts.empty() ? 0 : 1;
    EXPECT_EQ(text(landed),
              text(conflicts.empty() ? agent::changes_apply(theirs, changes) : theirs));
    EXPECT_TRUE(mine != base || landed == theirs);
    EXPECT_TRUE(theirs != base || landed == mine);
    base = round % 50 == 49 ? agent::empty_tree(*schema_) : landed;
  }
  EXPECT_GT(refused, 10);
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
    ASSERT_EQ(agent::shared(after, content.node), after) << "what is equal is shared";
    ASSERT_EQ(text(agent::shared(before, after)), text(after));
    if (round % 40 == 39) after = agent::empty_tree(*schema_);
    before = after;
  }
}

// A configuration that goes back and forth, and a list that comes under another name.
TEST_F(TreeTest, VersionsKeepAListOnceHoweverOftenItComes) {
  agent::ListPool pool;
  NodeRef running = agent::empty_tree(*schema_);
  std::map<std::string, NodeRef> lists;
  for (const char* step : {"S 0", "S 1", "S 0", "T 1", "T 0", "S 1"}) {
    std::string list(1, step[0]);
    std::vector<NodeRef> entries;
    const agent::Path at = path("/policy/lists/site-list{" + list + "}/site");
    for (int i = 1000; i < 1100; ++i) {
      entries.push_back(entry(*at.back().schema, std::to_string(i * (step[2] == '0' ? 1 : 2))));
    }
    auto node = std::make_shared<agent::Node>();
    node->schema = at.back().schema;
    node->entries = agent::map_build(entries);
    NodeRef next = agent::with_node(agent::empty_tree(*schema_), at, node);
    const std::string expected = text(next);
    running = agent::pooled(pool, running, next);
    EXPECT_EQ(text(running), expected);
    NodeRef& known = lists.emplace(step + 2, agent::find_node(running, at)).first->second;
    EXPECT_EQ(agent::find_node(running, at), known) << step;
  }
}

std::string repeated(int times, const std::string& one, bool numbered = false) {
  std::string text;
  for (int i = 0; i < times; ++i) text += one + (numbered ? std::to_string(i) + "='x' " : "");
  return text;
}

// What takes a parser more than linear time, and what could hide it from the count.
TEST_F(TreeTest, TextBeyondItsBoundsIsRefusedBeforeItIsParsed) {
  std::string names;
  for (int i = 0; i < 2000; ++i) names += "<n" + std::to_string(i) + "/>";
  const std::string crowd = repeated(80'000, "a", true);
  std::string more_names;  // the count of them may be some thirty too low
  for (int i = 0; i < 200; ++i) more_names += "<m" + std::to_string(i) + "/>";
  std::string scopes;
  for (int i = 0; i < 32; ++i) scopes += "<a xmlns:b='" + std::to_string(i) + "' xmlns='c'>";
  auto tag = [](size_t bytes) { return "<a b='" + std::string(bytes - 9, 'x') + "'/>"; };
  const std::pair<std::string, const char*> rows[] = {
      {"<a " + repeated(64, "a", true) + "/>", nullptr},
      {"<a>\n<a " + repeated(65, "a", true) + "/></a>", "2 a tag with more than 64 attributes"},
      {"<a " + crowd + "/>", "1 a tag with more than 64 attributes"},
      {tag(16'384), nullptr},
      {tag(16'385), "1 a tag of more than 16384 bytes"},
      {"<a>" + repeated(5000, "<b xmlns:c='d' e='>'/>") + "</a>", nullptr},
      {scopes, nullptr},
      {scopes + "<a xmlns='d'>", "1 more than 64 namespaces in force"},
      {"<a>" + names + "</a>", nullptr},
      {"<a>" + names + more_names + "</a>", "1 more than 2048 distinct names"},
      {repeated(300, "<a>"), "1 elements nested too deep"},
      {"<a>" + repeated(3000, "<!-- <b> --><![CDATA[<c>]]><?d e?>") + "</a>", nullptr},
      {"<!-- \x01 <b " + crowd + "/>-->", "1 bytes that are no UTF-8 text"},
      {"<a></a <b " + crowd + "/>", "1 a '<' inside a tag"},
      {"<a b='<b " + crowd + "/>'/>", "1 a '<' inside a tag"},
      {"<? <b " + crowd + "/>?>", "1 a processing instruction without a name"},
      {"<!DOCTYPE a [<!ENTITY b 'c'>]>", "1 a document type is not allowed"},
      {"<?xml version='1.0' encoding='UTF-7'?>\n+ADw-a/>", "1 an encoding other than UTF-8"},
      {std::string("\xff\xfe<\0a\0", 6), "1 bytes that are no UTF-8 text"},
      {"\xef\xbb\xbf<?xml version='1.0' encoding=\"utf-8\"?><a>\xc3\xa9</a>", nullptr},
      {"<a>\n\xed\xa0\x80</a>", "2 bytes that are no UTF-8 text"},
      {"no markup", nullptr},
  };
  for (const auto& [text, expected] : rows) {
    int line = 0;
    const char* excess = agent::xml_beyond_bounds(text, &line);
    EXPECT_EQ(excess == nullptr ? "" : std::to_string(line) + " " + excess,
              expected == nullptr ? "" : expected)
        << text.substr(0, 60);
    agent::XmlContent content;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(agent::xml_load(*schema_, text, schema_->root, {}, &content).ok());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
  }
  for (int levels : {40, 41}) {
    const std::string text =
        "<policy>" + repeated(levels - 1, "<a>") + repeated(levels - 1, "</a>") + "</policy>";
    agent::XmlContent content;
    const std::string reason = agent::xml_load(*schema_, text, schema_->root, {}, &content).reason;
    EXPECT_EQ(reason.find("nested too deep") != std::string::npos, levels > 40) << reason;
  }
}

// Entries that look alike to their conditions are judged once: what is said of all together must be
// what is said of each alone.
TEST_F(TreeTest, ConditionsOfManyEntriesAreThoseOfEachAlone) {
  static constexpr std::pair<const char*, const char*> kLeaves[] = {
      {"/match{route}/vpn", "1"},
      {"/match{route}/vpn-list", "V"},
      {"/match{route}/site-id", "7"},
      {"/match{route}/site-list", "S"},
      {"/match{route}/color", "gold"},
      {"/match{route}/color-list", "C"},
      {"/match{route}/tag", "1"},
      {"/match{route}/tag", "2"},
      {"/match{route}/tloc-list", "T"},
      {"/match{route}/tloc/address", "192.0.2.1"},
      {"/match{route}/tloc/color", "gold"},
      {"/action/set/tloc-list", "T"},
      {"/action/set/tloc/address", "192.0.2.1"},
      {"/action/set/tloc/color", "gold"},
      {"/action/set/service/type", "FW"},
      {"/action/set/service/vpn", "1"},
  };
  std::mt19937 random(9);
  for (int round = 0; round < 20; ++round) {
    NodeRef root = agent::empty_tree(*schema_);
    const auto set = [&](const std::string& where, const std::string& text) {
      const agent::Path at = path(where);
      root = agent::with_node(root, at, agent::make_leaf(*at.back().schema, {text}));
    };
    for (int number = 0; number < 60; ++number) {
      const std::string sequence = "/policy/control-policy{P}/sequence{" + std::to_string(number);
      for (unsigned leaves = 1 + random() % 4; leaves > 0; --leaves) {
        const auto& [leaf, text] = kLeaves[random() % std::size(kLeaves)];
        set(sequence + "}" + leaf, text);
      }
      const std::string prefix =
          "/policy/lists/prefix-list{P}/prefix{10.0." + std::to_string(number) + ".0/24}";
      if (random() % 3 != 0) set(prefix + "/ge", std::to_string(24 + random() % 3));
      if (random() % 3 != 0) set(prefix + "/le", random() % 4 == 0 ? "0" : "25");
    }
    std::vector<agent::Change> changes;
    agent::changes_between(agent::empty_tree(*schema_), root, &changes);
    agent::Faults alone;
    for (const agent::Change& change : changes) {
      const std::string reason = agent::validate_changes(*schema_, root, {change}).reason;
      std::istringstream lines(reason);
      for (std::string line; std::getline(lines, line);) {
        const size_t split = line.find(": ");
        alone.add(line.substr(0, split), line.substr(split + 2));
      }
    }
    EXPECT_GT(alone.count, 10u);
    EXPECT_LT(alone.count, changes.size());
    EXPECT_EQ(agent::validate_changes(*schema_, root, changes).reason,
              agent::faults_result(alone).reason);
  }
}

}  // namespace
}  // namespace test
