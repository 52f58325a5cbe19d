// SPDX-License-Identifier: Apache-2.0
#include <cstring>
#include <regex>

#include "pol_test_fixture.h"
#include "support/golden.h"
#include "support/seams.h"

namespace {

class TextRoutePolicyTest : public TextPolicyTest {
 protected:
  // Carries a line out; true when it queued the watcher of policy p.
  bool line(const std::string& text) {
    t_pol_test_tokens tokens = {};
    uint32_t kind = 0;
    uint32_t count = pol_test_get_tokens((text + "\n").c_str(), tokens, &kind);
    pol_test_parse_route_policy(tokens, count);
    int before = calls_.count;
    pol_user_chg_list_notify_all(ctx);
    return calls_.count > before;
  }

  // Every sequence and default action with something to it, and the lists.
  std::string everything() const {
    std::string text;
    auto add = [&text](const t_pol_block* block, const std::string& what, t_pol_entry* entry) {
      text += std::string("    ") + block->name + " " + what + ": " + shown(entry) + "\n";
    };
    for (uint32_t kind : {POL_KIND_ROUTE, POL_KIND_DATA}) {
      for (t_pol_block* b = pol_block_first(ctx, kind); b != nullptr;
           b = pol_block_next(ctx, b, kind)) {
        add(b, "default", &b->default_action);
        for (t_pol_entry& e : b->in_order) add(b, std::to_string(e.sequence), &e);
      }
    }
    return text + (lists().empty() ? "" : "    lists: " + lists() + "\n");
  }

  Calls calls_;
};

// After each line, what there is then and whether policy p's user was told.
TEST_F(TextRoutePolicyTest, LinesMatchTheirGolden) {
  std::string all;
  for_each_part("text/policies.in", [&](const std::string& part) {
    pol_destroy();
    init();
    add_user("watcher", "p", &calls_);
    std::istringstream lines(part);
    for (std::string text; std::getline(lines, text);) {
      all += text + "\n";
      if (text[0] == '#') continue;
      all += line(text) ? "    told\n" : "";
      all += everything();
    }
    all += "\n";
  });
  expect_golden("text/policies.ok", all);
}

// That it is one of the clauses that always change is tested with them.
TEST_F(TextRoutePolicyTest, AProtocolIsOneOfFourNumbers) {
  for (const auto& [word, value] : {std::pair("icmp", 3u), {"udp", 1u}, {"tcp", 2u}, {"x", 0u}}) {
    line(std::string("route-policy p sequence 1 match route protocol ") + word);
    EXPECT_EQ(sequence("p", 1)->match.proto, value);
  }
}

TEST_F(TextRoutePolicyTest, WhatIsReadOverIsLoggedInTheParsersName) {
  const auto logged = [this](const std::string& text) {
    seams::take_log();
    line(text);
    return std::regex_replace(seams::take_log(), std::regex("\\[\\d+\\]|191 \\w+\\[\\d+\\]: i: .*\n"), "");
  };
  const char* text = "route-policy p sequence 1 match route source-ip 1.1.1.1 foo";
  EXPECT_EQ(logged(text), "");
  pol_debug_set(1);
  const std::string in_the_name_of = "191 pol_test_parse_route_policy: ";
  EXPECT_EQ(logged(text), in_the_name_of + "src-ip\n" + in_the_name_of + "src-ip-add\n" +
                              in_the_name_of + "no keyword: foo\n");
  EXPECT_EQ(logged("route-policy p sequence 1 set"), "");
}

// It is deleted, and goes on: what follows on the line is the policy's that stayed for its user.
TEST_F(TextRoutePolicyTest, AForwardingPolicyKeptForItsUserStaysTheLines) {
  Calls calls;
  add_user("u", "d", &calls, POL_DIR_OUT, POL_KIND_DATA);
  line("forwarding-policy d forwarding-policy d delete default-action accept set tag 5");
  const t_pol_block* kept = pol_block_find(ctx, "d", POL_KIND_DATA, nullptr);
  ASSERT_NE(kept, nullptr);
  EXPECT_EQ(kept->default_action.action, uint32_t{POL_ACCEPT});
  EXPECT_EQ(kept->default_action.set.tag, 5u);
}

TEST_F(TextRoutePolicyTest, AGroupAtTheTwentiethWordStaysInBounds) {
  t_pol_test_tokens full;
  memset(full, 'x', sizeof full);
  for (auto& slot : full) memcpy(slot, "set", 4);
  memcpy(full[0], "route-policy", 13);
  memset(full[1], 'y', sizeof full[1]);
  pol_test_parse_route_policy(full, UINT32_MAX);
  EXPECT_NE(policy(std::string(49, 'y').c_str()), nullptr);
}

// Outside the fixture: a failed allocation stays counted.
TEST(TextRoutePolicy, AnyAllocationMayFail) {
  TextFile file(
      "route-policy q sequence 1 match route site-list s1 match route tloc-list t1\n"
      "route-policy q sequence 1 match route site-list s2 match route prefix-list l\n"
      "route-policy q sequence 1 match route site-list x delete set vpn-list w\n"
      "route-policy q sequence 1 set vpn-list v set delete tag 1 action accept\n"
      "route-policy q default-action accept match route vpn-list v match tloc\n"
      "route-policy q default-action accept match tloc site-list s3 set vpn-list u\n"
      "route-policy q default-action accept delete\n"
      "forwarding-policy q default-action accept set vpn-list y route-policy q delete\n"
      "forwarding-policy q delete\n");
  bool hit = true;
  for (int nth = 1; hit; ++nth) {
    t_pol_callbacks callbacks = {};
    t_pol_ctx* ctx = pol_init(&callbacks);
    {
      seams::Fail failure(nth);
      EXPECT_EQ(pol_test_parse_file(file.path(), nullptr), 0);
      hit = failure.hit();
    }
    EXPECT_EQ(pol_block_find(ctx, "q", POL_KIND_ROUTE, nullptr), nullptr) << nth;
    EXPECT_EQ(ctx->vpn_lists.first(), nullptr) << nth;
    EXPECT_EQ(ctx->site_lists.first(), nullptr) << nth;
    pol_destroy();
    ASSERT_LT(nth, 1000);
  }
}

}  // namespace
