// SPDX-License-Identifier: Apache-2.0
//
// What subscribers are told of a commit, and in which order.
#include <chrono>

#include "support.h"

namespace test {
namespace {

class ChangesTest : public ::testing::Test {
 protected:
  AgentProcess agent_;
  Session session_{agent_.port()};
};

TEST_F(ChangesTest, ListsComeBeforeThePoliciesThatNameThemAndParentsBeforeMembers) {
  Subscriber subscriber(agent_.port(), "/policy");
  // Written the other way round on purpose.
  ASSERT_EQ(why(session_.commit(policy(
                "<control-policy><name>P</name><default-action>reject</default-action><sequence>"
                "<number>10</number><match><type>route</type><site-list>S</site-list></match>"
                "<action><action-value>accept</action-value></action></sequence></control-policy>"
                "<lists><tloc-list><name>T</name><tloc><address>10.0.0.1</address><color>mpls"
                "</color><encap>ipsec</encap><preference>7</preference></tloc></tloc-list>"
                "<site-list><name>S</name><site><id>3-9</id></site><site><id>1</id></site>"
                "</site-list></lists>"))),
            "ok");
  EXPECT_EQ(subscriber.next(),
            "1 /policy/lists/site-list@1 [S]\n"
            "1 /policy/lists/site-list/site@2 [S 1]\n"
            "1 /policy/lists/site-list/site@2 [S 3-9]\n"
            "1 /policy/lists/tloc-list@1 [T]\n"
            "1 /policy/lists/tloc-list/tloc@2 [T 10.0.0.1 #1 #2] preference=7\n"
            "1 /policy/control-policy@1 [P] default-action=#1\n"
            "1 /policy/control-policy/sequence@2 [P 10] action( action-value=#0 )\n"
            "1 /policy/control-policy/sequence/match@3 [P 10 #0] site-list=S\n");
  EXPECT_EQ(subscriber.commit_id(), 1);
}

TEST_F(ChangesTest, ADeletedPolicyOrListIsToldOnceWithoutItsMembers) {
  ASSERT_EQ(why(session_.commit(policy(
                "<lists><site-list><name>S</name><site><id>1</id></site></site-list><site-list>"
                "<name>R</name><site><id>1</id></site><site><id>2</id></site></site-list></lists>"
                "<data-policy><name>D</name><vpn-list><name>V</name><sequence><number>1</number>"
                "</sequence></vpn-list></data-policy>"))),
            "ok");
  Subscriber subscriber(agent_.port(), "/policy");
  int trans = session_.begin();
  EXPECT_EQ(why(maapi_delete(session_.fd(), trans, "/policy/lists/site-list{S}")), "ok");
  EXPECT_EQ(why(maapi_delete(session_.fd(), trans, "/policy/lists/site-list{R}/site{2}")), "ok");
  EXPECT_EQ(why(maapi_delete(session_.fd(), trans, "/policy/data-policy")), "ok");
  EXPECT_EQ(why(maapi_apply_trans(session_.fd(), trans, 0)), "ok");
  EXPECT_EQ(why(maapi_candidate_commit(session_.fd())), "ok");
  EXPECT_EQ(subscriber.next(),
            "2 /policy/lists/site-list@1 [S]\n"
            "3 /policy/lists/site-list@1 [R]\n"
            "2 /policy/lists/site-list/site@2 [R 2]\n"
            "2 /policy/data-policy@1 [D]\n");
}

TEST_F(ChangesTest, OnlyChangedLeavesAreToldRemovedOnesAsAbsentContainersAroundThem) {
  ASSERT_EQ(
      why(session_.commit(policy(
          "<control-policy><name>P</name><sequence><number>1</number><action><action-value>"
          "accept</action-value><set><tag>5</tag><preference>6</preference><tloc><address>"
          "2001:db8::1</address><color>lte</color></tloc><service><type>firewall</type><tloc>"
          "<encap>gre</encap></tloc></service></set></action></sequence></control-policy>"
          "<data-policy><name>D</name><vpn-list><name>V</name><preferred-color>mpls"
          "</preferred-color><preferred-color>5g</preferred-color></vpn-list></data-policy>"))),
      "ok");
  Subscriber subscriber(agent_.port(), "/policy");
  int trans = session_.begin();
  const char* set = "/policy/control-policy{P}/sequence{1}/action/set";
  EXPECT_EQ(why(maapi_delete(session_.fd(), trans, "%s/tag", set)), "ok");
  EXPECT_EQ(why(maapi_delete(session_.fd(), trans, "%s/tloc", set)), "ok");
  EXPECT_EQ(why(maapi_set_elem_text(session_.fd(), trans, "7", "%s/preference", set)), "ok");
  EXPECT_EQ(
      why(maapi_set_elem_text(session_.fd(), trans, "10.1.2.3", "%s/service/tloc/address", set)),
      "ok");
  t_yarrow_value colors[2] = {};
  colors[0].type = colors[1].type = C_ENUM_VALUE;
  colors[0].val.enumvalue = 6;
  colors[1].val.enumvalue = 3;
  t_yarrow_value list = {};
  list.type = C_LIST;
  list.val.list.size = 2;
  list.val.list.ptr = colors;
  EXPECT_EQ(why(maapi_set_elem(session_.fd(), trans, &list,
                               "/policy/data-policy{D}/vpn-list{V}/preferred-color")),
            "ok");
  EXPECT_EQ(why(maapi_apply_trans(session_.fd(), trans, 0)), "ok");
  EXPECT_EQ(why(maapi_candidate_commit(session_.fd())), "ok");
  EXPECT_EQ(subscriber.next(),
            "3 /policy/control-policy@1 [P]\n"
            "3 /policy/control-policy/sequence@2 [P 1] action( set( tag=- preference=7 tloc( "
            "address=- color=- ) service( tloc( address=10.1.2.3 ) ) ) )\n"
            "3 /policy/data-policy@1 [D]\n"
            "3 /policy/data-policy/vpn-list@2 [D V] preferred-color={#6,#3}\n");
}

TEST_F(ChangesTest, WhatIsGoneFromAListIsToldBeforeWhatTakesItsPlace) {
  auto match = [](const std::string& type) {
    return policy("<control-policy><name>P</name><sequence><number>1</number><match><type>" + type +
                  "</type></match></sequence></control-policy>");
  };
  ASSERT_EQ(why(session_.commit(match("service"))), "ok");
  Subscriber subscriber(agent_.port(), "/policy");
  ASSERT_EQ(why(session_.commit(match("route"), YARROW_CONFIG_XML | YARROW_CONFIG_REPLACE)), "ok");
  EXPECT_EQ(subscriber.next(),
            "3 /policy/control-policy@1 [P]\n"
            "3 /policy/control-policy/sequence@2 [P 1]\n"
            "2 /policy/control-policy/sequence/match@3 [P 1 #2]\n"
            "1 /policy/control-policy/sequence/match@3 [P 1 #0]\n");
}

TEST_F(ChangesTest, ALeafOutsideOfListsIsToldAsAValueSet) {
  Subscriber subscriber(agent_.port(), "/policy");
  int trans = session_.begin(MAAPI_RUNNING);
  ASSERT_EQ(why(maapi_set_elem_text(session_.fd(), trans, "true", "/policy/app-visibility")), "ok");
  ASSERT_EQ(why(maapi_apply_trans(session_.fd(), trans, 1)), "ok");
  EXPECT_EQ(subscriber.next(), "4 /policy/app-visibility@0 [] app-visibility=true\n");
  ASSERT_EQ(why(maapi_delete(session_.fd(), trans, "/policy/app-visibility")), "ok");
  ASSERT_EQ(why(maapi_apply_trans(session_.fd(), trans, 1)), "ok");
  EXPECT_EQ(subscriber.next(), "4 /policy/app-visibility@0 [] app-visibility=-\n");
}

// Not a benchmark: a cost that grows with the configuration would be beyond this by far.
TEST_F(ChangesTest, OneEntryInThirtyThousandIsChangedAndToldInMilliseconds) {
  constexpr int kEntries = 30'000;
  std::string text = "<lists><site-list><name>S</name>";
  for (int i = 0; i < kEntries; ++i)
    text.append("<site><id>").append(std::to_string(i)).append("</id></site>");
  ASSERT_EQ(why(session_.commit(policy(text + "</site-list></lists>"))), "ok");
  Subscriber subscriber(agent_.port(), "/policy");
  auto begin = std::chrono::steady_clock::now();
  constexpr int kCommits = 20;
  for (int i = 0; i < kCommits; ++i) {
    int trans = session_.begin();
    ASSERT_EQ(
        why(maapi_delete(session_.fd(), trans, "/policy/lists/site-list{S}/site{%d}", i * 1000)),
        "ok");
    ASSERT_EQ(why(maapi_apply_trans(session_.fd(), trans, 0)), "ok");
    ASSERT_EQ(why(maapi_candidate_commit(session_.fd())), "ok");
    EXPECT_EQ(subscriber.next(),
              "3 /policy/lists/site-list@1 [S]\n2 /policy/lists/site-list/site@2 [S " +
                  std::to_string(i * 1000) + "]\n");
    ASSERT_EQ(why(maapi_finish_trans(session_.fd(), trans)), "ok");
  }
  auto spent = std::chrono::steady_clock::now() - begin;
  EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(spent).count(), kCommits * 25);
}

TEST_F(ChangesTest, ABatchIsToldOnlyToThoseWhomItConcernsAndNoneForNothing) {
  Subscriber lists(agent_.port(), "/policy/lists");
  Subscriber policers(agent_.port(), "/policy/policer");
  std::string site = policy("<lists><site-list><name>S</name></site-list></lists>");
  ASSERT_EQ(why(session_.commit(site)), "ok");
  ASSERT_EQ(why(session_.commit(site)), "ok") << "the same again is no change";
  EXPECT_EQ(maapi_commit_id(session_.fd()), 1);
  EXPECT_EQ(lists.next(), "1 /policy/lists/site-list@1 [S]\n");
  EXPECT_EQ(lists.next(50), "none");
  EXPECT_EQ(policers.next(50), "none");
}

TEST_F(ChangesTest, TheInitialBatchMakesThePresentConfigurationFromNothing) {
  {
    Subscriber early(agent_.port(), "/", YARROW_SUB_INITIAL);
    EXPECT_EQ(early.next(), "") << "empty, but it comes";
  }
  ASSERT_EQ(why(session_.commit(policy("<lists><color-list><name>C</name><color><color>gold</color>"
                                       "</color></color-list></lists>"))),
            "ok");
  Subscriber late(agent_.port(), "/", YARROW_SUB_INITIAL);
  EXPECT_EQ(late.next(),
            "1 /policy/lists/color-list@1 [C]\n"
            "1 /policy/lists/color-list/color@2 [C #11]\n");
}

TEST_F(ChangesTest, ASubscriberThatLagsBehindGetsEverythingInTheEnd) {
  Subscriber slow(agent_.port(), "/policy/lists");
  constexpr int kCommits = 450;
  // Wide enough that the kernel's buffers cannot hold what the subscriber does not read.
  std::string many;
  for (int i = 0; i < 400; ++i)
    many.append("<site><id>").append(std::to_string(i)).append("</id></site>");
  for (int i = 0; i < kCommits; ++i) {
    std::string list = "<lists><site-list><name>";
    list.append(std::to_string(i)).append("</name>").append(many).append("</site-list></lists>");
    ASSERT_EQ(why(session_.commit(policy(list))), "ok");
  }
  int batches = 0;
  size_t lists = 0;
  while (slow.commit_id() < kCommits) {
    std::string text = slow.next();
    ASSERT_NE(text, "none");
    ++batches;
    for (size_t at = 0; (at = text.find("site-list@1", at)) != std::string::npos; ++at) ++lists;
  }
  EXPECT_EQ(lists, size_t{kCommits});
  EXPECT_LT(batches, kCommits) << "the backlog is bounded";
}

}  // namespace
}  // namespace test
