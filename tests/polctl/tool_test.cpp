// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>

#include "support/golden.h"
#include "support/paths.h"
#include "support/process.h"

namespace {

const std::string kPolicyFile = std::string(kExamplesDir) + "/branch-policy.txt";
const std::string kRoutes = std::string(kExamplesDir) + "/routes.jsonl";
const std::string kTlocs = std::string(kExamplesDir) + "/tlocs.jsonl";
const std::string kNetwork = std::string(kExamplesDir) + "/sdwan/network.xml";
const std::string kNetworkEdit = std::string(kExamplesDir) + "/sdwan/edit.xml";

Invocation eval(const std::string& policy_file, std::vector<std::string> more) {
  Invocation invocation;
  invocation.args = {"eval", "--policy-file", policy_file, "--policy", "branch"};
  invocation.args.insert(invocation.args.end(), more.begin(), more.end());
  return invocation;
}

std::string many_prefixes(int count) {
  std::string routes;
  for (int i = 0; i < count; ++i) {
    routes += std::to_string(1 + i / 65536) + "." + std::to_string(i / 256 % 256) + "." +
              std::to_string(i % 256) + ".0/24\n";
  }
  return routes;
}

// What is refused is told in a line that says what is expected, and gives no answer.
TEST(ToolTest, UsageIsRefusedAsItsGoldenHasIt) {
  std::istringstream lines(read_golden("usage/polctl.in"));
  std::string all;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    Invocation invocation = {{}, "10.0.0.0/8\n"};
    std::string word;
    words >> word;  // "polctl"
    while (words >> word) invocation.args.push_back(word);
    const Outcome outcome = run_polctl(invocation);
    all += line + "\n    " + std::to_string(outcome.status) +
           (outcome.out.empty() ? " " : " answered ") + outcome.err + "\n";
  }
  expect_golden("usage/polctl.ok", all);
}

TEST(ToolTest, JsonIsOneValidObjectALineWithEveryMember) {
  Outcome outcome = run_polctl(
      eval(kPolicyFile, {"--routes", kRoutes, "--tlocs", kTlocs, "--json", "--explain"}));
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  std::istringstream lines(outcome.out);
  std::string line;
  uint64_t index = 0;
  for (; std::getline(lines, line); ++index) {
    nlohmann::json answer = nlohmann::json::parse(line);
    EXPECT_EQ(answer.at("index"), index);
    for (const char* name : {"matched", "applied", "tlocs", "vpns", "steps"}) {
      EXPECT_TRUE(answer.at(name).is_array()) << name;
    }
    EXPECT_TRUE(answer.at("set").is_object());
    // The last step is the decision, and says the same as the answer.
    nlohmann::json last = answer.at("steps").back();
    EXPECT_EQ(last.at("decided"), true);
    EXPECT_EQ(last.at("sequence"), answer.at("sequence"));
    EXPECT_EQ(last.at("action"), answer.at("action"));
    for (size_t i = 0; i + 1 < answer.at("steps").size(); ++i) {
      EXPECT_EQ(answer.at("steps")[i].at("decided"), false);
      EXPECT_FALSE(answer.at("steps")[i].at("reason").get<std::string>().empty());
    }
  }
  EXPECT_EQ(index, 12u);
}

TEST(ToolTest, ListNamesOfAnyBytesStayValidJson) {
  std::string policy = temporary_file(
      "route-policy branch sequence 10 match route prefix-list a\"\\\xff\033[31m\n"
      "route-policy branch sequence 10 action accept\n");
  Invocation json = eval(policy, {"--json", "--explain"});
  json.input = "10.0.0.0/8\n";
  Outcome outcome = run_polctl(json);
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_TRUE(nlohmann::json::accept(outcome.out)) << outcome.out;
  Invocation text = eval(policy, {"--explain"});
  text.input = json.input;
  EXPECT_EQ(run_polctl(text).out.find('\033'), std::string::npos);
  Outcome check = run_polctl({{"check", "--policy-file", policy, "--json"}, ""});
  std::istringstream findings(check.out);
  for (std::string line; std::getline(findings, line);) {
    EXPECT_TRUE(nlohmann::json::accept(line)) << line;
  }
  EXPECT_EQ(check.status, 0) << "a warning";
  for (const char* topic : {"prefix-lists", "all"}) {
    std::string dump = run_polctl({{"dump", "--policy-file", policy, topic}, ""}).out;
    EXPECT_NE(dump.find("a\"\\??[31m"), std::string::npos) << dump;
  }
}

TEST(ToolTest, ManyRoutesAreSummedUpAndQuickly) {
  Invocation invocation = eval(kPolicyFile, {});
  invocation.input = many_prefixes(175000);
  auto start = std::chrono::steady_clock::now();
  Outcome outcome = run_polctl(invocation);
  auto took = std::chrono::steady_clock::now() - start;
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_NE(outcome.out.find("\n   total          175,000\n"), std::string::npos) << outcome.out;
  EXPECT_LT(took, std::chrono::seconds(5)) << "a tenth of a second unless sanitizers watch";
}

// Routes in several pieces, blank lines and comments between them, with and without a fault near the end.
TEST(ToolTest, OnManyThreadsTheAnswerIsTheSame) {
  std::string routes;
  for (int i = 0; i < 6000; ++i) {
    if (i % 7 == 0) routes += i % 2 == 0 ? "\n" : " # none\r\n";
    routes += i % 3 == 0 ? "{\"type\":\"route\",\"site\":" + std::to_string(i % 1000) + "}\n"
                         : std::to_string(i % 256) + "." + std::to_string(i / 256) + ".0.0/16\n";
  }
  for (const std::string& input : {routes, routes + "10.0.0.0\n" + routes}) {
    for (const char* form : {"--json", "--explain", ""}) {
      Outcome one;
      for (const char* jobs : {"1", "5"}) {
        Invocation invocation = eval(kPolicyFile, {"--jobs", jobs});
        if (*form != '\0') invocation.args.emplace_back(form);
        invocation.input = input;
        Outcome outcome = run_polctl(invocation);
        if (*jobs == '1') one = outcome;
        EXPECT_EQ(outcome.out, one.out) << form;
        EXPECT_EQ(outcome.err, one.err) << form;
      }
      EXPECT_EQ(one.status, input.size() > routes.size() ? 2 : 0) << one.err;
      if (*form == '-' && form[2] == 'j') {
        EXPECT_EQ(std::count(one.out.begin(), one.out.end(), '\n'), 6000);
      }
    }
  }
}

TEST(ToolTest, AReaderThatGoesAwayIsNoError) {
  Invocation invocation = eval(kPolicyFile, {"--json"});
  invocation.input = many_prefixes(100000);
  invocation.read_at_most = 100;
  Outcome outcome = run_polctl(invocation);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "");
  Invocation dump = {{"dump", "--policy-file", kPolicyFile}, ""};
  dump.read_at_most = 10;
  EXPECT_EQ(run_polctl(dump).err, "");
}

TEST(ToolTest, ADiskThatIsFullIs) {
  for (const char* command : {"check", "dump"}) {
    Invocation invocation = {{command, "--policy-file", kPolicyFile}, ""};
    invocation.output_file = "/dev/full";
    Outcome outcome = run_polctl(invocation);
    EXPECT_EQ(outcome.status, 2) << command;
    EXPECT_NE(outcome.err.find("No space left"), std::string::npos) << outcome.err;
  }
}

TEST(ToolTest, AProgramThatAsksAndWaitsGetsItsAnswer) {
  Invocation invocation = eval(kPolicyFile, {"--json"});
  invocation.input = "127.0.0.0/8\n0.0.0.0/0\n{\"type\":\"tloc\"}\n";
  invocation.in_turns = true;
  Outcome outcome = run_polctl(invocation);
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(std::count(outcome.out.begin(), outcome.out.end(), '\n'), 3);
}

TEST(ToolTest, ColourIsForTerminalsThatWantIt) {
  Invocation invocation = eval(kPolicyFile, {});
  invocation.input = "127.0.0.0/8\n0.0.0.0/0\n";
  EXPECT_EQ(run_polctl(invocation).out.find('\033'), std::string::npos);
  invocation.terminal = true;
  std::string coloured = run_polctl(invocation).out;
  EXPECT_NE(coloured.find("\033[31mreject\033[0m"), std::string::npos) << coloured;
  EXPECT_NE(coloured.find("\033[32maccept\033[0m"), std::string::npos) << coloured;
  invocation.env = {"NO_COLOR=1"};
  EXPECT_EQ(run_polctl(invocation).out.find('\033'), std::string::npos);
  invocation.env = {"TERM=dumb"};
  EXPECT_EQ(run_polctl(invocation).out.find('\033'), std::string::npos);
}

TEST(ToolTest, NothingOverflowsANarrowTerminal) {
  for (const char* line :
       {"check config_warnings.xml", "check faulty.txt", "check config_faulty.xml",
        "diff config.xml config_new.xml --routes config_routes.jsonl",
        "eval --config config.xml --policy branch --routes config_routes.jsonl",
        "eval --config config.xml --policy branch --routes config_routes.jsonl --explain"}) {
    Invocation invocation;
    std::istringstream words(line);
    for (std::string word; words >> word;) invocation.args.push_back(word);
    invocation.terminal = true;
    invocation.env = {"COLUMNS=60", "NO_COLOR=1"};
    const Outcome outcome = run_polctl(invocation);
    EXPECT_LT(outcome.status, 2) << outcome.out;
    std::istringstream said(outcome.out);
    size_t lines = 0;
    for (std::string one; std::getline(said, one); ++lines) {
      if (one.ends_with('\r')) one.pop_back();
      // A route is to be copied, and so is not broken.
      if (!one.starts_with("    such as {")) {
        EXPECT_LE(one.size(), 60u) << line << "\n" << one;
      }
    }
    EXPECT_GT(lines, 3u);
  }
}

TEST(ToolTest, WhatTheAgentDoesNotTellIsCounted) {
  Invocation invocation = {{"check", "--all", "-"}, ""};
  for (int i = 0; i < 150; ++i) {
    invocation.input += "set policy app-id a" + std::to_string(i) + " id x\n";
  }
  const std::string counted = "<stdin>: 150 errors, 0 warnings (50 of them counted, not told)\n";
  EXPECT_TRUE(run_polctl(invocation).out.ends_with(counted)) << run_polctl(invocation).out;
}

TEST(ToolTest, ABarIsShownForSlowWorkOnTerminalsAndTakenAway) {
  Invocation invocation = eval(kPolicyFile, {});
  invocation.input = many_prefixes(40000);
  invocation.pause = true;
  EXPECT_EQ(run_polctl(invocation).err, "");
  invocation.terminal = true;
  std::string said = run_polctl(invocation).out;
  size_t bar = said.find("\rEvaluating ");
  size_t cleared = said.find("\r\033[K");
  ASSERT_NE(bar, std::string::npos) << said;
  EXPECT_LT(bar, cleared);
  EXPECT_LT(cleared, said.find("sequence")) << "before the answer";
  invocation.pause = false;
  EXPECT_EQ(run_polctl(invocation).out.find("Evaluating"), std::string::npos);
}

TEST(ToolTest, ConfigurationGoesToTheToolsOwnAgentWhateverTheEnvironmentSays) {
  Invocation invocation = {{"dump", "--config", kNetwork, "site-lists"}, ""};
  std::string expected = run_polctl(invocation).out;
  EXPECT_NE(expected.find("site-list: spokes"), std::string::npos) << expected;
  invocation.env = {"YARROW_IPC_PORT=1"};
  Outcome outcome = run_polctl(invocation);
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  Invocation agent = {{"dump", "--agent"}, ""};
  agent.env = {"YARROW_IPC_PORT=1"};
  EXPECT_NE(run_polctl(agent).err.find("agent at port 1: error: "), std::string::npos);
  agent.args = {"dump", "--agent=2"};
  EXPECT_NE(run_polctl(agent).err.find("agent at port 2: error: "), std::string::npos);
}

TEST(ToolTest, WatchShowsWhoIsCalledBackAndHowSoon) {
  Outcome outcome = run_polctl({{"watch", "--config", kNetwork, "--change", kNetworkEdit}, ""});
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  double acknowledged = 0;
  double called_back = 0;
  size_t at = outcome.out.find("commit acknowledged after");
  ASSERT_NE(at, std::string::npos) << outcome.out;
  EXPECT_EQ(sscanf(outcome.out.c_str() + at,
                   "commit acknowledged after %lf ms: one batch of 2 changes\n"
                   "  user of policy \"branch\" called back %lf ms",
                   &acknowledged, &called_back),
            2)
      << outcome.out;
  EXPECT_GT(acknowledged, 0);
  EXPECT_GT(called_back, acknowledged);
  EXPECT_NE(outcome.out.find("\"hub-out\" not called back"), std::string::npos) << outcome.out;
  outcome = run_polctl({{"watch", "--config", kNetwork, "--change", kNetwork}, ""});
  EXPECT_NE(outcome.out.find("it changed nothing"), std::string::npos) << outcome.out;
}

TEST(ToolTest, ManyRoutesThatDifferAreSummedUp) {
  std::string routes = temporary_file(many_prefixes(30'000));
  std::string accepting = temporary_file("route-policy branch default-action accept\n");
  Outcome outcome =
      run_polctl({{"diff", kPolicyFile, accepting, "--policy", "branch", "--routes", routes}, ""});
  EXPECT_EQ(outcome.status, 1) << outcome.err;
  EXPECT_NE(
      outcome.out.find("reject, default action  accept, default action                   30,000"),
      std::string::npos)
      << outcome.out;
  EXPECT_NE(outcome.out.find("\n30,000 of 30,000 routes differ\n"), std::string::npos);
}

}  // namespace
