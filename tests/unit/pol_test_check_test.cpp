// SPDX-License-Identifier: Apache-2.0
#include <vector>

#include "pol_test_fixture.h"

namespace {

using Strings = std::vector<std::string>;

// Each finding as "line:column E what | expected".
Strings check(const std::string& content) {
  TextFile file(content);
  Strings findings;
  int count = pol_test_check_file(
      file.path(),
      [](const t_pol_test_finding* finding, void* arg) {
        std::string text = std::to_string(finding->line) + ":" + std::to_string(finding->column);
        text += finding->severity == POL_TEST_ERROR ? " E " : " W ";
        text += finding->what;
        if (finding->expected != nullptr) text += std::string(" | ") + finding->expected;
        static_cast<Strings*>(arg)->push_back(text);
      },
      &findings);
  EXPECT_EQ(static_cast<size_t>(count), findings.size());
  return findings;
}

// A file with one finding, at `place` ("line:column E"), that says `what` and expects `expected`.
struct Faulty {
  std::string content;
  std::string place;
  std::string what;
  std::string expected = "";
};

void expect_each(const std::vector<Faulty>& files) {
  for (const Faulty& file : files) {
    Strings findings = check(file.content);
    ASSERT_EQ(findings.size(), 1u) << file.content << testing::PrintToString(findings);
    const std::string& found = findings[0];
    EXPECT_EQ(found.rfind(file.place + " ", 0), 0u) << file.content << found;
    size_t bar = std::min(found.find(" | "), found.size());
    EXPECT_LT(found.find(file.what), bar) << file.content << found;
    EXPECT_NE(found.find(file.expected, bar), found.npos) << file.content << found;
  }
}

const std::string kSequence = "route-policy p sequence 10 ";  // 27 characters

TEST(TextCheck, AGoodFileHasNoFindings) {
  EXPECT_EQ(check(""), Strings{});
  EXPECT_EQ(check("# a comment\n\n   \n"
                  "site-list s 4294967295\nprefix-list p 0.0.0.0/0\ntloc-list t 10.0.0.1:255\n"
                  "route-policy p sequence 10 match route site-list s match route tag 5\n"
                  "route-policy p sequence 10 match route prefix-list p action accept\n"
                  "route-policy p sequence 20 match tloc tloc-list t match tloc tloc 1.2.3.4 0\n"
                  "route-policy p sequence 30 match route source-port 65535 protocol\n"
                  "site-policy anything goes\n")
                .size(),
            1u);  // "protocol" stands without its match
  EXPECT_EQ(check("route-policy p sequence 10 match route tag 5 delete\n"
                  "route-policy p sequence 10 match service delete set tag 1 set tag 1 delete\n"
                  "route-policy p sequence 20 match packet dscp af11 action reject delete\n"
                  "route-policy p default-action accept set preference +5 action accept\n"
                  "forwarding-policy f default-action accept set tloc 10.0.0.1 3 \n"),
            Strings{});
  EXPECT_EQ(pol_test_check_file("/nonexistent", nullptr, nullptr), -1);
  EXPECT_EQ(pol_test_check_file("/", nullptr, nullptr), -1);
  EXPECT_EQ(pol_test_check_file(nullptr, nullptr, nullptr), -1);
}

TEST(TextCheck, NeedsAndTouchesNoContext) {
  ASSERT_EQ(g_pol_ctx_p, nullptr);
  t_pol_callbacks callbacks = {};
  t_pol_ctx* ctx = pol_init(&callbacks);
  EXPECT_EQ(check("site-list s 1\n"), Strings{});
  EXPECT_EQ(ctx->site_lists.first(), nullptr);
  pol_destroy();
}

TEST(TextCheck, WordsThatAreNoKeywords) {
  expect_each(
      {{"site-list s 1\nnonsense x\n", "2:1 E", "'nonsense'", "site-list"},
       {"vpn-list v 1\n", "1:1 W", "ignored"},
       {kSequence + "match route foo 5 action\n", "1:40 E", "'foo'", "one of: tag, preference"},
       {kSequence + "match route foo 5\n", "1:40 E", "rest of the line", ", sequence, match,"},
       {kSequence + "match route tag 5 foo\n", "1:46 E", "'foo'", "one of: sequence, match"},
       {kSequence + "match route tag 5 site 6\n", "1:46 E", "without match", "match TYPE"},
       {kSequence + "match route preference 5 set tag 6 vpn-list\n", "1:63 E", "without"},
       {kSequence + "match route set foo\n", "1:44 E", "'foo'", "one of: tag, preference"},
       {kSequence + "match tlocx tag \x01\x7f\n", "1:44 E", "'\\x01\\x7f' is not a number"}});
}

TEST(TextCheck, ValuesThatAreMissingOrWrong) {
  expect_each(
      {{"route-policy p sequence\n", "1:24 E", "nothing stands after 'sequence'", "a number"},
       {"route-policy\n", "1:13 E", "nothing stands after", "a name"},
       {"site-list s\n", "1:12 E", "nothing stands after 's'", "a number"},
       {"site-list  \n", "1:12 E", "nothing stands after 'site-list'", "a name"},
       {kSequence + "match route tloc 1.1.1.1\n", "1:52 E", "nothing", "255"},
       {kSequence + "match route set\n", "1:43 E", "no clause stands after 'set'", "vpn-id"},
       {"site-list s 7x\n", "1:13 E", "'7x' is not a number"},
       {"site-list s 4294967296\n", "1:13 E", "out of range", "0 to 4294967295"},
       {"site-list s 99999999999999999999999\n", "1:13 E", "out of range"},
       {kSequence + "match route vpn-id 9223372036854775808\n", "1:47 E", "out of range"},
       {kSequence + "match route destination-port 65536\n", "1:57 E", "range", "65535"},
       {kSequence + "match route tag -1\n", "1:44 E", "out of range"},
       {kSequence + "match routs\n", "1:34 E", "unknown word 'routs'", "one of: route, tloc"},
       {kSequence + "match route action drop\n", "1:47 E", "'drop'", "one of: accept, reject"},
       {"route-policy p default-action permit\n", "1:31 E", "'permit'", "accept"}});
  for (const char* bad :
       {"10.0.0.0", "10.0.0.0/33", "10.0.0/8", "256.0.0.0/8", "10.0.0.0/8/8", "10.0.0.00/8",
        "10.0.0.0/", "a.b.c.d/8", "-1.0.0.0/8", "1..0.0/8", "4294967306.0.0.0/8"}) {
    expect_each(
        {{"prefix-list p " + std::string(bad) + "\n", "1:15 E", "is not an IPv4 prefix", "/8"}});
  }
  expect_each({{"tloc-list t 10.0.0.1:256\n", "1:13 E", "is not an IPv4 address with a color"},
               {kSequence + "match route set tloc 10.1 3\n", "1:49 E", "'10.1' is not an IPv4"},
               {"site-list s 7 8 9\n", "1:15 E", "'8'", "delete"}});
}

TEST(TextCheck, LinesThatTheParserWouldCut) {
  const std::string list = "site-list s 7 ";
  std::string blanks(78 - list.size(), ' ');
  EXPECT_EQ(check(list + blanks + "\n"), Strings{});
  expect_each({{list + blanks + " \n", "1:80 E", "more than 79 characters", "78"},
               {"# " + std::string(80, 'c') + "\n", "1:80 W", "more than 79 characters"},
               {"site-list s 7", "1:13 E", "no newline", "a newline"},
               {"site-list s 7\n#", "2:1 E", "no newline"},
               {"site-list " + std::string(50, 'n') + " 7\n", "1:11 E", "50 bytes", "49 bytes"}});
  EXPECT_EQ(check("site-list " + std::string(49, 'n') + " 7\n"), Strings{});
  std::string many = "site-list s 7";
  for (int i = 3; i < 20; ++i) many += " d";
  expect_each({{many + "\n", "1:15 E", "'d' and what follows"}});
  Strings findings = check(many + " d d\n");
  ASSERT_EQ(findings.size(), 2u);
  EXPECT_EQ(findings[1].substr(0, 41), "1:49 E the line has more than 20 words: t");
  expect_each({{"site-list s\t7\n", "1:12 E", "a tab"},
               {"site-list s 7\r\n", "1:14 E", "a carriage return"},
               {std::string("site-list s 7\0 x\n", 17), "1:14 E", "a NUL byte"}});
}

TEST(TextCheck, ClausesThatActOnNothing) {
  expect_each(
      {{"route-policy p action accept\n", "1:16 E", "before any sequence", "default-action"},
       {"route-policy p match route tag 5 set tag 6\n", "1:16 E", "before any sequence"},
       {"route-policy p route-policy p delete sequence 5\n", "1:38 E", "before any policy"},
       {"forwarding-policy f sequence 5 match route tag 5 set tag 7\n", "1:21 E",
        "forwarding policy"},
       {kSequence + "match route sequence 10 delete action accept\n", "1:59 E",
        "before any sequence"}});
}

TEST(TextCheck, ListsThatStayEmpty) {
  expect_each(
      {{kSequence + "match route site-list s\n", "1:50 W", "never filled", "site-list s 7"}});
  EXPECT_EQ(check(kSequence + "match route site-list s\nsite-list s 7\n"), Strings{});
  expect_each({{kSequence + "match route site-list s\nsite-list s 7\nsite-list s 7 delete\n",
                "1:50 W", "empty at the end"},
               {"prefix-list s 1.0.0.0/8\nprefix-list s delete\n" + kSequence +
                    "match route prefix-list s\n" + kSequence + "match route prefix-list s\n",
                "3:52 W", "empty at the end"}});
  EXPECT_EQ(check("tloc-list t 1.1.1.1:1\ntloc-list t 1.1.1.1:2\ntloc-list t 1.1.1.1:1 delete\n" +
                  kSequence + "match route tloc-list t\n"),
            Strings{});
  expect_each({{kSequence + "match route set vpn-list v\n", "1:53 W", "cannot fill"}});
  EXPECT_EQ(check(kSequence + "match route site-list s delete\n"), Strings{});
}

TEST(TextCheck, SequencesOutOfReach) {
  const std::string all = "route-policy p sequence 5 match route\n";
  expect_each({{kSequence + "match route tag 1\n" + all, "1:16 W",
                "sequence 10 of policy 'p' is never reached: sequence 5 (line 2)"}});
  EXPECT_EQ(check(kSequence + "match tloc tag 1\n" + all), Strings{});
  EXPECT_EQ(check("route-policy q sequence 10 match route tag 1\n" + all), Strings{});
  EXPECT_EQ(check(kSequence + "match route tag 1\n" + all + "route-policy p sequence 5 delete\n"),
            Strings{});
  EXPECT_EQ(check(kSequence + "match route tag 1\n" + all +
                  "route-policy p sequence 5 match route site 7\n"),
            Strings{});
  EXPECT_EQ(check(all + "route-policy p delete\n" + kSequence + "match route tag 1\n"), Strings{});
  // Another type drops the clauses; what is matched on packets decides about no route.
  EXPECT_EQ(
      check(kSequence + "match route tag 1\nroute-policy p sequence 5 match tloc tag 1\n" + all)
          .size(),
      1u);
  EXPECT_EQ(check(kSequence + "match route tag 1\n"
                              "route-policy p sequence 5 match route protocol udp\n")
                .size(),
            1u);
  EXPECT_EQ(
      check(all + kSequence + "match route tag 1\nroute-policy p sequence 11 match route\n").size(),
      2u);
  expect_each({{kSequence + "action accept\n", "1:16 W", "has no match type", "match route"}});
}

TEST(TextCheck, DeletesOfWhatWasNeverMade) {
  expect_each({{"site-list s delete\nsite-list s 7\n", "1:11 W", "no line before makes it"}});
  EXPECT_EQ(check("site-list s 7\nsite-list s delete\nsite-list s delete\n"), Strings{});
  EXPECT_EQ(check(kSequence + "match route site-list s delete\nroute-policy p delete\n"),
            Strings{});
  expect_each({{"route-policy p delete\n", "1:1 W", "policy 'p' is deleted"},
               {"forwarding-policy p default-action accept\nroute-policy p delete\n", "2:1 W",
                "policy 'p' is deleted"},
               {"route-policy p sequence 7 delete\n", "1:16 W", "sequence 7 is deleted"}});
}

TEST(TextCheck, FindingsComeInTheOrderOfTheFile) {
  Strings findings = check(
      "route-policy p sequence 20 match route prefix-list none action drop\n"
      "foo\n"
      "route-policy p sequence 10 match route action accept x");
  Strings places;
  for (const std::string& finding : findings) places.push_back(finding.substr(0, 6));
  EXPECT_EQ(places, (Strings{"1:16 W", "1:52 W", "1:64 E", "2:1 E ", "3:54 E", "3:54 E"}));
}

}  // namespace
