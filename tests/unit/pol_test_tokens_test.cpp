// SPDX-License-Identifier: Apache-2.0
#include <vector>

#include "pol_test_fixture.h"

namespace {

struct Tokenized {
  std::vector<std::string> words;
  uint32_t kind;
};

Tokenized tokenize(const std::string& line) {
  t_pol_test_tokens tokens = {};
  Tokenized result = {};
  uint32_t count = pol_test_get_tokens(line.c_str(), tokens, &result.kind);
  for (uint32_t i = 0; i < count; ++i) result.words.emplace_back(tokens[i]);
  return result;
}

using Strings = std::vector<std::string>;

TEST(TextTokens, SplitAtBlanksAndLoseTheLastCharacter) {
  EXPECT_EQ(tokenize("site-list s1 5\n").words, (Strings{"site-list", "s1", "5"}));
  EXPECT_EQ(tokenize("  a   b \n").words, (Strings{"a", "b", ""}));
  EXPECT_EQ(tokenize("a\tb c\n").words, (Strings{"a\tb", "c"}));
  EXPECT_EQ(tokenize("site-list s1 5").words, (Strings{"site-list", "s1", ""}));
  EXPECT_EQ(tokenize("ends with blanks   ").words, (Strings{"ends", "with", "blank"}));
  EXPECT_EQ(tokenize("\n").words, (Strings{""}));
  EXPECT_EQ(tokenize("").words, Strings{});
  EXPECT_EQ(tokenize("   ").words, Strings{});
}

TEST(TextTokens, LongWordsAreCutOnceTheNewlineIsGone) {
  std::string full(49, 'x');
  EXPECT_EQ(tokenize(full + "\n").words, (Strings{full}));
  EXPECT_EQ(tokenize(full + "y\n").words, (Strings{full}));
  EXPECT_EQ(tokenize(full + "yyyy b\n").words, (Strings{full, "b"}));
}

TEST(TextTokens, WordsPastTheTwentiethAreDroppedWithTheNewline) {
  std::string line;
  for (int i = 0; i < 20; ++i) line += "w" + std::to_string(i) + " ";
  EXPECT_EQ(tokenize(line + "\n").words.back(), "w19");
  Tokenized more = tokenize(line + "w20 w21\n");
  ASSERT_EQ(more.words.size(), 20u);
  EXPECT_EQ(more.words.back(), "w19");
}

TEST(TextTokens, TheFirstWordMustEqualTheKeyword) {
  const std::pair<const char*, uint32_t> cases[] = {
      {"prefix-list p 1\n", POL_TEST_PFX_LIST},
      {"tloc-list\n", POL_TEST_TLOC_LIST},
      {"site-list s\n", POL_TEST_SITE_LIST},
      {"route-policy r\n", POL_TEST_ROUTE_POLICY},
      {"forwarding-policy f\n", POL_TEST_FWD_POLICY},
      {"site-policy s\n", POL_TEST_SITE_POLICY},
      {"vpn-list v 10\n", POL_TEST_OTHER},
      {"# site-list s\n", POL_TEST_OTHER},
      {"site-lists s\n", POL_TEST_OTHER},
      {"site-lis s\n", POL_TEST_OTHER},
      {"site-list", POL_TEST_OTHER},
      {"\n", POL_TEST_OTHER},
      {"", POL_TEST_OTHER},
  };
  for (const auto& [line, kind] : cases) EXPECT_EQ(tokenize(line).kind, kind) << line;
}

TEST(TextTokens, PrefixesAndTlocsTakeWhatIsThere) {
  struct Case {
    const char* text;
    uint32_t address;
    uint8_t number;
  };
  const Case prefixes[] = {
      {"10.1.2.3/24", 0x0a010203, 24},
      {"10.1.2.3", 0x0a010203, 0},
      {"10.1/16", 0x0a010000, 0},
      {"", 0, 0},
      {"x", 0, 0},
      {"1.2.3.4:5", 0x01020304, 0},
      {"256.0.0.1/8", 1, 8},
      {"0.0.1.256/300", 0x200, 44},
      {"-1.0.0.0/8", 0xff000000, 8},
      {"99999999999999999999.0.0.1/8", 0xff000001, 8},
  };
  for (const Case& c : prefixes) {
    t_ipprefix prefix = {};
    pol_test_pfx_str_to_pfx(c.text, &prefix);
    EXPECT_EQ(prefix.addr.family, KEL_AF_INET);
    EXPECT_EQ(prefix.addr.addr.v4, c.address) << c.text;
    EXPECT_EQ(prefix.len, c.number) << c.text;
  }
  t_tloc_id tloc = {};
  tloc.encap = 2;
  pol_test_tloc_str_to_tloc("10.1.1.1:3", &tloc);
  EXPECT_EQ(tloc.family, KEL_AF_INET);
  EXPECT_EQ(tloc.addr.v4, 0x0a010101u);
  EXPECT_EQ(tloc.color, 3);
  EXPECT_EQ(tloc.encap, 2);
}

}  // namespace
