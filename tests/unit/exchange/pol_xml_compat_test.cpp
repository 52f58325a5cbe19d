// SPDX-License-Identifier: Apache-2.0
#include <libxml/parser.h>
#include <unistd.h>

#include <regex>

#include "support/agent_schema.h"
#include "support/policy_fixture.h"
#include "support/seams.h"

namespace {

constexpr char kNamespace[] = "urn:zenodra:policy";

class CompatTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(load_agent_schema()); }

  struct Result {
    std::string text;  // "(none)" for none; otherwise without its XML declaration
    std::string log;   // without function and line
  };

  // The filter must not write to where its host's messages go.
  static Result filtered(const std::string& text, const char* name_space = kNamespace,
                         uint32_t level = 1) {
    pol_debug_set(level);
    seams::take_log();
    testing::internal::CaptureStderr();
    uint32_t length = 0;
    char* pruned = pol_xml_fetch_compat_config(name_space, text.data(),
                                               static_cast<uint32_t>(text.size()), &length);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    Result result = {
        "(none)",
        std::regex_replace(seams::take_log(), std::regex("191 \\w+\\[\\d+\\]: \\[POL\\] "), "")};
    if (pruned == nullptr) return result;
    EXPECT_EQ(length, strlen(pruned));
    result.text = std::regex_replace(std::string(pruned), std::regex("^<\\?xml[^\n]*\n|\n$"), "");
    xmlFree(pruned);
    return result;
  }

  static std::string policy(const std::string& inner) {
    const std::string start = std::string("<policy xmlns=\"") + kNamespace + "\"";
    return inner.empty() ? start + "/>" : start + ">" + inner + "</policy>";
  }
};

std::string repeated(size_t count, const std::string& text) {
  std::string all;
  for (size_t i = 0; i < count; ++i) all += text;
  return all;
}

// "/policy/lists" with the prefix in each step.
std::string xpath(const std::string& path) {
  return std::regex_replace(path, std::regex("/"), "/zenodra-policy:");
}

TEST_F(CompatTest, TakesOutTheHighestUnknownElementsEverywhere) {
  const std::string list = "<lists><vpn-list><name>v</name></vpn-list></lists>";
  const std::string named = "<policer><name><![CDATA[<&]]>&lt;</name></policer> t ";
  const std::string known = "<policer><name>a</name></policer>";
  const std::string latin = "<?xml version='1.0' encoding='ISO-8859-1'?>";
  const std::string other = "<x:new xmlns:x=\"urn:x\"/>";
  const struct {
    std::string in;
    std::string out;
    std::vector<std::pair<std::string, std::string>> unknown;  // path, and what became of it
  } kCases[] = {
      {policy(list), "(none)", {}},
      {policy(" <!--c--> " + list + "\n"), "(none)", {}},
      {"\xef\xbb\xbf" + policy(list), "(none)", {}},
      {"\n" + policy(list), "(none)", {}},
      {latin + policy("<!--\xe4-->" + list), "(none)", {}},
      {policy("<new><a>1</a><b><lists/></b></new>" + list), policy(list), {{"/policy/new", "1"}}},
      {policy("<lists><new/></lists>"), policy("<lists/>"), {{"/policy/lists/new", "1"}}},
      // Text, comments and what stands behind an unknown element are kept.
      {policy("<new/><!--c-->" + named), policy("<!--c-->" + named), {{"/policy/new", "1"}}},
      {policy("<policer><name>a</name><new>1</new></policer><policer><new/><new/></policer>"),
       policy(known + "<policer/>"),
       {{"/policy/policer/new", "3"}}},
      // A leaf has no children, and an element known elsewhere is unknown here.
      {policy("<policer><name>a<name/></name></policer><vpn-list/>"),
       policy(known),
       {{"/policy/policer/name/name", "1"}, {"/policy/vpn-list", "1"}}},
      // One path begins like another: only the first is found; the other way round both are.
      {policy("<new/><new-too/>"), policy("<new-too/>"), {{"/policy/new", "1"}}},
      {policy("<new-too/><new/>"), policy(""), {{"/policy/new-too", "1"}, {"/policy/new", "1"}}},
      // Elements of other namespaces are not the policy module's to take out.
      {policy(other), policy(other), {{"/policy/new", "No nodes found for"}}},
      {policy("<x:new/><a/>"),
       policy("<x:new/>"),
       {{"/policy/x:new", "Error evaluating"}, {"/policy/a", "1"}}},
      {"<other xmlns=\"urn:zenodra:policy\"><a/></other>", "", {{"/other", "1"}}},
  };
  for (const auto& row : kCases) {
    Result result = filtered(row.in);
    EXPECT_EQ(result.text, row.out) << row.in;
    std::string log = row.unknown.empty() ? "No incompatible nodes found\n" : "";
    for (const auto& [path, what] : row.unknown) log += "Incompat xpath: " + xpath(path) + "\n";
    for (const auto& [path, what] : row.unknown) {
      log += (isdigit(what[0]) != 0 ? "Unlinking " + what + " nodes for" : what) +
             " xpath: " + xpath(path) + "\n";
    }
    EXPECT_EQ(result.log, log) << row.in;
    // What is not as it should be, and nothing of the usual.
    const std::regex usual("(Incompat|Unlinking|No (incompatible )?nodes)[^\n]*\n");
    EXPECT_EQ(filtered(row.in, kNamespace, 0).log, std::regex_replace(log, usual, "")) << row.in;
  }
}

TEST_F(CompatTest, HostileTextIsRefusedOrBounded) {
  std::string laughs = "<!DOCTYPE policy [<!ENTITY e0 \"ha\">";
  for (int i = 1; i < 20; ++i) {
    std::string below = "&e" + std::to_string(i - 1) + ";";
    laughs += "<!ENTITY e" + std::to_string(i) + " \"" + repeated(10, below) + "\">";
  }
  laughs += "]>" + policy("<new>&e19;</new>");
  char secret[] = "/tmp/pol_xml_compat_XXXXXX";
  int fd = mkstemp(secret);
  ASSERT_EQ(write(fd, "secret", 6), 6);
  close(fd);
  const std::string file = std::string("SYSTEM \"file://") + secret + "\"";
  const std::string read_file = "<!DOCTYPE policy [<!ENTITY f " + file + ">]>" +
                                policy("<new/><description>&f;</description>");
  const std::string parameter = "<!DOCTYPE policy " + file + ">" + policy("<new/>");
  const size_t kDeep = 100'000;
  for (const std::string& text :
       {laughs, read_file, parameter, std::string("<!DOCTYPE policy>") + policy("<new/>"),
        std::string("\xff\xfe<\0a\0/\0>\0", 10), std::string("<\0a\0/\0>\0", 8),
        "<?xml version='1.0' encoding='UTF-7'?>" + policy("<new/>"), policy("<new/>&undefined;"),
        policy(repeated(kDeep, "<new>") + repeated(kDeep, "</new>")), std::string("no XML"),
        std::string(), std::string("<policy>\0</policy>", 19), policy("<new>") + "<"}) {
    Result result = filtered(text);
    EXPECT_EQ(result.text, "(none)") << text.substr(0, 200);
    EXPECT_EQ(result.log, "Error parsing XML\n") << text.substr(0, 200);
  }
  unlink(secret);
  seams::take_log();
  uint32_t length = 0;
  EXPECT_EQ(pol_xml_fetch_compat_config(kNamespace, "<", (256u << 20) + 1, &length), nullptr);
  EXPECT_NE(seams::take_log().find("Error parsing XML\n"), std::string::npos);
  Result unbound = filtered(policy("<new/>"), nullptr);
  EXPECT_EQ(unbound.text, "(none)");
  EXPECT_NE(unbound.log.find("Error registering namespace\nError removing incompat nodes\n"),
            std::string::npos);
}

TEST_F(CompatTest, WhatCannotBeJudgedIsLeftIn) {
  std::string unknown;
  for (int i = 10; i < 50; ++i) unknown += "<n" + std::to_string(i) + "/>";
  Result result = filtered(policy(unknown));
  EXPECT_EQ(result.text, policy("<n42/><n43/><n44/><n45/><n46/><n47/><n48/><n49/>"));
  const std::string full = "Too many incompat xpaths, left in: " + xpath("/policy/n42") + "\n";
  EXPECT_EQ(result.log.find(full), result.log.rfind("Too many"));

  // Paths of 511, 512 and 600 bytes; the last one twice.
  const size_t above = xpath("/policy/").size();
  const std::string fits = std::string(511 - above, 'f');
  const std::string over = std::string(512 - above, 'o');
  const std::string far = std::string(600 - above, 'l');
  result =
      filtered(policy("<" + far + "><new/></" + far + "><" + over + "/><" + fits + "/><new/>"));
  EXPECT_EQ(result.text, policy("<" + far + "><new/></" + far + "><" + over + "/>"));
  EXPECT_EQ(result.log.find("Path too long, left in: "), result.log.rfind("Path too long"));
}

// Each bound kept, and passed by one: what is passed is no XML.
TEST_F(CompatTest, WhatWouldKeepTheParserBusyIsNotParsed) {
  auto numbered = [](size_t count, const std::string& before, const std::string& after) {
    std::string all;
    for (size_t i = 0; i < count; ++i) all += before + std::to_string(i) + after;
    return all;
  };
  auto nested = [&](size_t count) {  // one namespace more is the policy's own
    return policy(numbered(count, "<a xmlns:n", "=\"u\">") + repeated(count, "</a>"));
  };
  const std::string equals = repeated(500, "=");
  // A fault lets the quotes behind it hide attributes from who only counts.
  const std::string hidden = "<a '" + numbered(8'000, " n", "=\"\"") + "'/>";
  const std::pair<std::string, bool> kCases[] = {
      {policy(repeated(200, hidden)), false},
      {policy("<a" + numbered(64, " n", "='>'") + "/>"), true},
      {policy("<a" + numbered(65, " n", "='>'") + "/>"), false},
      {policy("<a" + numbered(80'000, " n", "=\"\"") + "/>"), false},
      {policy("<a n='" + equals + "'/><!--<" + equals + "-->" + equals + "<![CDATA[<" + equals +
              "]]><?p <" + equals + "?>"),
       true},
      {policy("<a n='" + std::string(65'000, 'x') + "'/>"), true},
      {policy("<a n='" + std::string(66'000, 'x') + "'/>"), false},
      {nested(63), true},
      {nested(64), false},
      {policy(numbered(1'000, "<a xmlns:n", "='u'/>")), true},
      {policy(numbered(90'000, "<a", "/>")), true},
      {policy(numbered(110'000, "<a", "/>")), false},
      {policy(numbered(110'000, "<?a", "?>")), false},
  };
  for (const auto& [text, parsed] : kCases) {
    SCOPED_TRACE(text.substr(0, 80) + " of " + std::to_string(text.size()));
    EXPECT_EQ(filtered(text).log != "Error parsing XML\n", parsed);
  }
}

// A large document with an unknown element in every entry: time must not grow with its square.
TEST_F(CompatTest, ManyEntriesLoseTheirUnknownElements) {
  const std::string entry = "<policer><name>a</name>";
  Result result = filtered(policy(repeated(50'000, entry + "<new>1</new></policer>")));
  EXPECT_EQ(result.text, policy(repeated(50'000, entry + "</policer>")));
}

// In a process of its own: a schema that was read once stays.
TEST(CompatDeathTest, WithoutASchemaEverythingStays) {
  auto exit_status = [] {
    setenv(YARROW_PORT_VARIABLE, "1", 1);  // where nobody listens
    uint32_t length = 0;
    const std::string text = "<new xmlns=\"urn:zenodra:policy\"/>";
    char* pruned = pol_xml_fetch_compat_config(kNamespace, text.data(),
                                               static_cast<uint32_t>(text.size()), &length);
    bool told = seams::take_log().find("No schema to compare with\n") != std::string::npos;
    return pruned == nullptr && told ? 0 : 1;
  };
  EXPECT_EXIT(_exit(exit_status()), ::testing::ExitedWithCode(0), "");
}

}  // namespace
