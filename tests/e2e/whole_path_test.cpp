// SPDX-License-Identifier: Apache-2.0
//
// However a configuration came to be, the library holds the same.
#include <chrono>
#include <cstdlib>
#include <sstream>
#include <vector>

#include "edit_model.h"
#include "kel/string.h"
#include "policy/pol_user.h"
#include "rig.h"

namespace {

using test::policy;
using test::Rig;
using test::why;

// One edit: a path, and its new text; null deletes, "" creates an entry.
struct Edit {
  const char* path;
  const char* text;
};

struct Trap {
  const char* name;
  std::string before;
  std::vector<Edit> edits;  // of one commit
};

void PrintTo(const Trap& trap, std::ostream* out) { *out << trap.name; }

#define SEQUENCE "/policy/control-policy{P}/sequence{10}"

std::string control(const std::string& inner) {
  return policy("<control-policy><name>P</name><sequence><number>10</number>" + inner +
                "</sequence></control-policy>");
}

std::string match(const std::string& type, const std::string& inner) {
  return "<match><type>" + type + "</type>" + inner + "</match>";
}

std::string set(const std::string& inner) {
  return "<action><action-value>accept</action-value><set>" + inner + "</set></action>";
}

std::string sites(const std::vector<std::string>& ids) {
  std::string text = "<lists><site-list><name>A</name>";
  for (const std::string& id : ids) text += "<site><id>" + id + "</id></site>";
  return policy(text + "</site-list></lists>");
}

std::string prefix(const std::string& leaves) {
  return policy("<lists><prefix-list><name>A</name><prefix><prefix>10.0.0.0/8</prefix>" + leaves +
                "</prefix></prefix-list></lists>");
}

#define FORWARDING "/policy/data-policy{P}/vpn-list{V}/sequence{10}"
#define QUALITY "/policy/app-route-policy{P}/vpn-list{V}"

std::string data(const std::string& inner, const std::string& number = "10") {
  return policy("<data-policy><name>P</name><vpn-list><name>V</name><sequence><number>" + number +
                "</number>" + inner + "</sequence></vpn-list></data-policy>");
}

// The VPN list's own leaves, and those of its sequence.
std::string quality(const std::string& own, const std::string& number, const std::string& inner) {
  return policy("<app-route-policy><name>P</name><vpn-list><name>V</name>" + own +
                "<sequence><number>" + number + "</number>" + inner +
                "</sequence></vpn-list></app-route-policy>");
}

const std::string kApplications =
    "<match><dns-app-list>A</dns-app-list><saas-app-list>B</saas-app-list></match>";

const std::string kSla =
    "<sla-class>A</sla-class><strict>true</strict><preferred-color>lte</preferred-color>";

const std::string kTloc =
    "<tloc><address>10.0.0.1</address><color>lte</color><encap>gre</encap></tloc>";

std::vector<Trap> traps() {
  return {
      {"PrefixLosesOneBound",
       prefix("<ge>9</ge><le>24</le>"),
       {{"/policy/lists/prefix-list{A}/prefix{10.0.0.0/8}/ge", nullptr}}},
      {"PrefixChangesOneBound",
       prefix("<ge>9</ge><le>24</le>"),
       {{"/policy/lists/prefix-list{A}/prefix{10.0.0.0/8}/le", "28"}}},
      {"PrefixLosesItsLengthAndKeepsBounds",
       prefix("<length>26</length><ge>9</ge><le>24</le>"),
       {{"/policy/lists/prefix-list{A}/prefix{10.0.0.0/8}/length", nullptr}}},
      {"OneOfTwoSpellingsGoes",
       sites({"5", "5-5", "7"}),
       {{"/policy/lists/site-list{A}/site{5-5}", nullptr}}},
      {"MemberIsSpelledAnew",
       sites({"5"}),
       {{"/policy/lists/site-list{A}/site{5}", nullptr},
        {"/policy/lists/site-list{A}/site{05}", ""}}},
      {"SetTlocLosesItsColor", control(set(kTloc)), {{SEQUENCE "/action/set/tloc/color", nullptr}}},
      {"SetTlocGoes", control(set(kTloc)), {{SEQUENCE "/action/set/tloc", nullptr}}},
      {"SetTlocChangesItsFamily",
       control(set(kTloc)),
       {{SEQUENCE "/action/set/tloc/address", "2001:db8::1"}}},
      {"MatchTlocLosesItsColor",
       control(match("route", kTloc)),
       {{SEQUENCE "/match{route}/tloc/color", nullptr}}},
      {"ServiceLosesItsTloc",
       control(set("<service><type>ids</type><vpn>3</vpn>" + kTloc + "</service>")),
       {{SEQUENCE "/action/set/service/tloc", nullptr}}},
      {"ServiceLosesItsVpn",
       control(set("<service><type>ids</type><vpn>3</vpn>" + kTloc + "</service>")),
       {{SEQUENCE "/action/set/service/vpn", nullptr}}},
      {"OneOfTwoTlocListsGoes",
       control(set("<tloc-list>A</tloc-list><service><type>ids</type><tloc-list>B</tloc-list>"
                   "</service>")),
       {{SEQUENCE "/action/set/service/tloc-list", nullptr}}},
      {"TheOtherTlocListChanges",
       control(set("<tloc-list>A</tloc-list><service><type>ids</type><tloc-list>B</tloc-list>"
                   "</service>")),
       {{SEQUENCE "/action/set/tloc-list", "C"}}},
      {"TlocListGivesWayToTloc",
       control(set("<tloc-list>A</tloc-list>")),
       {{SEQUENCE "/action/set/tloc-list", nullptr},
        {SEQUENCE "/action/set/tloc/address", "10.0.0.1"}}},
      {"MatchGoes", control(match("tloc", "<tag>5</tag>")), {{SEQUENCE "/match{tloc}", nullptr}}},
      {"MatchChangesItsType",
       control(match("tloc", "<tag>5</tag>")),
       {{SEQUENCE "/match{tloc}", nullptr},
        {SEQUENCE "/match{route}", ""},
        {SEQUENCE "/match{route}/vpn", "5"}}},
      {"MatchChangesItsTypeDownwards",
       control(match("service", "<tag>5</tag>")),
       {{SEQUENCE "/match{service}", nullptr}, {SEQUENCE "/match{route}", ""}}},
      {"SecondMatchComesBeforeTheFirst",
       control(match("tloc", "<tag>5</tag>")),
       {{SEQUENCE "/match{route}", ""}, {SEQUENCE "/match{route}/vpn", "5"}}},
      {"OneOfTwoMatchesGoes",
       control(match("route", "<tag>5</tag>") + match("tloc", "<tag>6</tag>")),
       {{SEQUENCE "/match{tloc}", nullptr}}},
      {"MatchThatIsNotInForceChanges",
       control(match("route", "<tag>5</tag>") + match("tloc", "<tag>6</tag>")),
       {{SEQUENCE "/match{route}/tag", "7"}}},
      {"OriginLosesItsEffect",
       control(match("route", "<origin>static</origin>")),
       {{SEQUENCE "/match{route}/origin", "rip"}}},
      {"SequenceIsMadeAnew",
       control(match("route", "<tag>5</tag>") + set("<preference>7</preference>")),
       {{SEQUENCE, nullptr}, {SEQUENCE, ""}}},
      {"PolicyIsMadeAnew",
       control(match("route", "<site-list>A</site-list>")),
       {{"/policy/control-policy{P}", nullptr},
        {"/policy/control-policy{P}", ""},
        {"/policy/control-policy{P}/default-action", "accept"}}},
      {"SequenceGoesWithItsApplications", data(kApplications), {{FORWARDING, nullptr}}},
      {"VpnListGoesWithItsApplications",
       data(kApplications),
       {{"/policy/data-policy{P}/vpn-list{V}", nullptr}}},
      {"DataPolicyGoesWithItsApplications",
       data(kApplications),
       {{"/policy/data-policy{P}", nullptr}}},
      {"ApplicationsStayUntilTheEnd", data(kApplications), {}},
      {"ForwardingTlocLosesItsColor",
       data(set(kTloc)),
       {{FORWARDING "/action/set/tloc/color", nullptr}}},
      {"ForwardingTlocStopsBeingBinding",
       data(set("<tloc><address>10.0.0.1</address><encap>gre</encap><local/></tloc>")),
       {{FORWARDING "/action/set/tloc/local", nullptr}}},
      {"ServiceChangesItsVpn",
       data(set("<vpn>3</vpn><service><type>ids</type></service>")),
       {{FORWARDING "/action/set/vpn", "4"}}},
      {"ForwardingTlocListGoesBeforeItsPolicy",
       policy("<lists><tloc-list><name>A</name>" + kTloc + "</tloc-list></lists>") + "\n" +
           data(set("<tloc-list>A</tloc-list>")),
       {{"/policy/lists/tloc-list{A}", nullptr}}},
      {"SlaLosesItsStrictness",
       quality("", "10", "<action>" + kSla + "</action>"),
       {{QUALITY "/sequence{10}/action/strict", nullptr}}},
      {"VpnListsSlaChangesItsColor", quality(kSla, "10", ""), {{QUALITY "/strict", "false"}}},
      {"SequenceZeroGoes", quality(kSla, "0", kApplications), {{QUALITY "/sequence{0}", nullptr}}},
      {"VpnListLosesTheSlaOfSequenceZero",
       quality(kSla, "0", "<action><sla-class>B</sla-class></action>"),
       {{QUALITY "/sla-class", nullptr}}},
      {"DataPolicysVpnListHasAnSlaClass",
       policy("<data-policy><name>P</name><vpn-list><name>V</name>" + kSla +
              "</vpn-list></data-policy>"),
       {{"/policy/data-policy{P}/vpn-list{V}/strict", "false"}}},
      {"TemplateGoesWithItsCollector",
       policy("<cflowd-template><name>P</name><collector><vpn>1</vpn><address>10.0.0.1</address>"
              "<port>5</port></collector></cflowd-template>"),
       {{"/policy/cflowd-template{P}", nullptr}}},
      {"ActionGoes", control(set("<tag>1</tag>")), {{SEQUENCE "/action/action-value", nullptr}}},
  };
}

void make_edits(const test::Session& session, const std::vector<Edit>& edits) {
  int trans = session.begin();
  for (const Edit& edit : edits) {
    int status = edit.text == nullptr ? maapi_delete(session.fd(), trans, "%s", edit.path)
                 : *edit.text == '\0'
                     ? maapi_create(session.fd(), trans, "%s", edit.path)
                     : maapi_set_elem_text(session.fd(), trans, edit.text, "%s", edit.path);
    ASSERT_EQ(why(status), "ok") << edit.path;
  }
  ASSERT_EQ(why(maapi_apply_trans(session.fd(), trans, 0)), "ok");
  maapi_finish_trans(session.fd(), trans);
}

class WholePathTrap : public testing::TestWithParam<Trap> {};

TEST_P(WholePathTrap, LeavesWhatTheFinalConfigurationMakes) {
  Rig rig;
  std::istringstream parts(GetParam().before);
  for (std::string part; std::getline(parts, part);) rig.commit_and_follow(part);
  make_edits(rig.session(), GetParam().edits);
  ASSERT_TRUE(rig.commit()) << why(YARROW_ERR);
  rig.follow();
  EXPECT_EQ(rig.difference_from_scratch(), "");
}

INSTANTIATE_TEST_SUITE_P(Traps, WholePathTrap, testing::ValuesIn(traps()),
                         [](const auto& info) { return std::string(info.param.name); });

// Random edits in random commits. E2E_SEED repeats a run, E2E_ROUNDS makes it longer.
TEST(WholePath, RandomHistoriesLeaveWhatTheFinalConfigurationMakes) {
  const char* seed_text = getenv("E2E_SEED");
  const char* rounds_text = getenv("E2E_ROUNDS");
  auto seed = static_cast<uint32_t>(seed_text != nullptr ? strtoul(seed_text, nullptr, 10)
                                                         : std::random_device{}());
  unsigned long rounds = rounds_text != nullptr ? strtoul(rounds_text, nullptr, 10) : 120;
  SCOPED_TRACE("E2E_SEED=" + std::to_string(seed));
  Rig rig;
  test::Editor editor(rig.session().fd(), seed);
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  uint64_t commits = 0;
  uint64_t accepted = 0;
  for (unsigned long round = 0; round < rounds; ++round) {
    if (rounds_text == nullptr && std::chrono::steady_clock::now() > end) break;
    for (uint32_t i = 0; i < 1 + editor.below(6); ++i) {
      editor.edit(1 + editor.below(8));
      ++commits;
      accepted += rig.commit() ? 1 : 0;
    }
    rig.follow();
    ASSERT_EQ(rig.difference_from_scratch(), "") << "round " << round;
  }
  EXPECT_GT(accepted * 2, commits) << "too many edits are refused to mean much";
  editor.delete_all();
  ASSERT_TRUE(rig.commit());
  rig.follow();
  EXPECT_EQ(rig.difference_from_scratch(), "") << "nothing is left";
}

void count_call(t_pol_user* /*user*/, uint64_t count) { ++*reinterpret_cast<int*>(count); }

TEST(WholePath, OneEditInAListOfAHundredThousandTellsEachUserOnce) {
  constexpr int kMembers = 100'000;
  Rig rig;
  std::string list = "<lists><prefix-list><name>big</name>";
  for (int i = 0; i < kMembers; ++i) {
    list += "<prefix><prefix>" + std::to_string(10 + (i >> 16)) + "." +
            std::to_string(i >> 8 & 255) + "." + std::to_string(i & 255) +
            ".0/24</prefix></prefix>";
  }
  list += "</prefix-list></lists>";
  auto names_list = [](const std::string& name, const std::string& prefix_list) {
    return "<control-policy><name>" + name + "</name><sequence><number>10</number>" +
           match("route", "<prefix-list>" + prefix_list + "</prefix-list>") +
           "</sequence></control-policy>";
  };
  rig.commit_and_follow(
      policy(list + names_list("P1", "big") + names_list("P2", "big") + names_list("P3", "other")));
  int calls[3] = {};
  t_pol_user* users[3] = {};
  for (int i = 0; i < 3; ++i) {
    t_pol_registration record = {};
    std::string name = "P" + std::to_string(i + 1);
    strlcpy(record.user_name, name.c_str(), sizeof record.user_name);
    strlcpy(record.policy_name, name.c_str(), sizeof record.policy_name);
    record.kind = POL_KIND_ROUTE;
    record.direction = POL_DIR_IN;
    record.change = count_call;
    record.user_arg = reinterpret_cast<uint64_t>(&calls[i]);
    users[i] = pol_register(&record);
  }
  make_edits(rig.session(), {{"/policy/lists/prefix-list{big}/prefix{10.1.2.0/24}/le", "32"}});
  ASSERT_TRUE(rig.commit());
  rig.follow();
  EXPECT_EQ(calls[0], 1);
  EXPECT_EQ(calls[1], 1);
  EXPECT_EQ(calls[2], 0) << "its policy names another list";
  for (t_pol_user*& user : users) pol_unregister(&user);
}

}  // namespace
