// SPDX-License-Identifier: Apache-2.0
//
// Random calls of everything exported, valid or not, with allocations that fail: each sequence of
// calls in a process of its own, which may end by a deliberate crash and in no other way, and has
// to free what it counted. RANDOM_CALLS=<sequences> and RANDOM_SEED=<first> in the environment run
// more of them.
#include <fcntl.h>
#include <sys/wait.h>

#include <fstream>
#include <random>
#include <regex>

#include "support/script.h"

namespace {

using Words = std::vector<std::string>;

constexpr int kCallsEach = 100;
constexpr int kLeak = 3;

const Words kRoute = {"route:a/10", "route:a/20", "route:b/10", "members:c/10"};
const Words kData = {"data:a/v/10", "data:a/v/20"};
const Words kApp = {"app:c/w/10"};

unsigned from_environment(const char* name, unsigned otherwise) {
  const char* text = getenv(name);
  return text != nullptr ? static_cast<unsigned>(strtoul(text, nullptr, 10)) : otherwise;
}

class LineMaker {
 public:
  explicit LineMaker(unsigned seed) : random_(seed) {
    for (const std::string& reader : script::known_readers()) {
      if (!std::regex_search(reader, std::regex("-as-|flows|collector|prefix6"))) {
        readers_.push_back(reader);
      }
    }
  }

  std::string next() {
    std::string text;
    if (one_in(60)) text += "without ";
    if (one_in(5)) text += "fail " + std::to_string(1 + random_() % 4) + " 0 ";
    if (one_in(4)) return text + report();
    const auto& [name, kinds] = calls_[random_() % calls_.size()];
    const bool crashes = name.ends_with("main_deinit") || name == "block_next";  // mostly
    if (crashes && !one_in(30)) return next();
    if (name == "destroy") {
      const std::string user = any({"u1", "u2"});
      return one_in(3) ? "unregister " + user : "register " + user + registered();
    }
    // Of another kind than a call is for, a policy ends the process.
    const bool classes = name.find("sla") != name.npos;
    const bool forwarding = name.find("fwd_") != name.npos;
    const Words kinds_of = classes      ? Words{"app"}
                           : forwarding ? Words{"data"}
                                        : Words{"route", "route", "data", "app", "members"};
    bool kind_said = !forwarding && name.find("block") == name.npos;
    text += name;
    for (const char kind : kinds) {
      const bool says = kind == 'n' && !std::exchange(kind_said, kind_said || kind == 'n');
      text += " " + (says ? any(kinds_of)
                          : word(kind, classes      ? kApp
                                       : forwarding ? kData
                                                    : kRoute));
    }
    return text;
  }

 private:
  bool one_in(unsigned n) { return random_() % n == 0; }
  std::string any(const Words& words) { return words[random_() % words.size()]; }

  std::string registered() {
    return " " + any({"a", "b", "c"}) + " " + any({"route", "data", "app", "members"}) + " " +
           any({"in", "out"}) +
           " : entry_action_add route:a/10 reject ; entry_match_tag_add route:a/20 7";
  }

  // Rarely a sequence of the wrong sort, which ends the process.
  std::string word(char kind, const Words& sequences) {
    const bool other = one_in(200);
    switch (kind) {
      case 'n':
        return any({"0", "1", "2", "3", "5", "7", "10", "20", "30", "259", "65535", "4294967295"});
      case 'b':
        return any({"route:a", "route:b", "data:a", "data:b", "app:c", "members:c"});
      case 'e':
        return any(other ? kData : sequences);
      case 'f':
        return any({"data:a/v/10", "data:a/v/20", "app:c/w/10"});
      case 'u':
        return any({"u1", "u2"});
      case 't':
        return any({"10.0.0.1:3:2", "10.0.0.2:0:1", "[2001:db8::1]:5:2", "-"});
      case 'a':
        return any({"10.0.0.1", "2001:db8::1", "77", "-"});
      case 'p':
        return any({"10.0.0.0/8,0,0,0", "10.1.0.0/16,3,24,16", "0.0.0.0/0,2,0,32",
                    "10.1.2.3/99,9,200,3", "2001:db8::/32,2,0,64", "-"});
      default:
        return any({"a", "b", "c", "v", "w", "l", "m", "5-9", "''", "70*x", other ? "-" : "l"});
    }
  }

  // With the keys that the reader takes, as others are a deliberate crash too.
  std::string report() {
    static const std::map<std::string, std::string> kKeys = {
        {"site", "5-9"},
        {"vpn", "7"},
        {"tloc", "ip:10.0.0.1 word:259 word:2"},
        {"color", "word:7"},
        {"prefix", "net:10.0.0.0/8"},
        {"fwd-prefix", "net:10.0.0.0/8"},
        {"control-sequence", "16:10"},
        {"membership-sequence", "16:10"},
        {"match", "16:10 word:0"},
        {"data-vpn", "v"},
        {"app-vpn", "w"},
        {"data-sequence", "v 16:10"},
        {"app-sequence", "w 16:10"},
        {"app-list-app", "x"},
        {"app-list-family", "x"}};
    const std::string reader = any(readers_);
    auto keys = kKeys.find(reader);
    std::string text = "report " + reader + " " +
                       any({"created", "created", "deleted", "modified", "set"}) + " " +
                       (reader == "match"            ? "a"
                        : reader.starts_with("data") ? "a"
                        : reader.starts_with("app-") ? "c"
                                                     : any({"a", "b", "c", "l"})) +
                       (keys != kKeys.end() ? " " + keys->second : "");
    if (one_in(2)) return text;
    return text + " : " +
           any({"action=word:0", "tag=32:5", "preference=32:9", "vpn=32:7", "site=32:3",
                "site-list=l", "tloc-list=l", "vpn-list=l", "prefix-list=l", "app-list=l",
                "policer=l", "default-action=word:1", "min=8:24", "max=8:16"});
  }

  std::mt19937 random_;
  std::vector<std::pair<std::string, std::string>> calls_ = script::known_calls();
  // But those that end the process whatever they are told.
  Words readers_ = {};
};

class RandomCalls : public ScriptTest {
 protected:
  // Never comes back.
  void child(unsigned seed, const std::string& report) {
    dup2(open(report.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600), 2);
    for (const int sent : {SIGSEGV, SIGABRT}) signal(sent, SIG_DFL);
    for (const char* made :
         {"sequence a 10", "sequence a 20", "report data created a", "report data-vpn created a v",
          "report data-sequence created a v 16:10", "report app created c",
          "report app-vpn created c w", "report app-sequence created c w 16:10",
          "report membership-sequence created c 16:10"}) {
      quietly(made);
    }
    LineMaker lines(seed);
    for (int i = 0; i < kCallsEach; ++i) {
      const std::string text = lines.next();
      fprintf(stderr, "%s\n", text.c_str());
      quietly(text);
    }
    drop_worker();
    pol_destroy();
    uint64_t left = 0;  // a failed allocation is counted, and never there to be freed
    for (size_t i = 0; i < POL_MEM_TYPES; ++i) left += current(i);
    _exit(left <= failed_calls ? 0 : kLeak);
  }
};

TEST_F(RandomCalls, EndWellOrOnPurpose) {
  const unsigned first = from_environment("RANDOM_SEED", 1);
  const unsigned count = from_environment("RANDOM_CALLS", 100);
  const std::string report = ::testing::TempDir() + "random_calls." + std::to_string(getpid());
  unsigned whole = 0;
  for (unsigned seed = first; seed < first + count; ++seed) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) child(seed, report);
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
      ++whole;
      continue;
    }
    std::ifstream in(report);
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    const bool meant = WIFSIGNALED(status) && (text.find("Broken invariant") != text.npos ||
                                               text.find("Assertion `") != text.npos);
    ASSERT_TRUE(meant) << "RANDOM_SEED=" << seed << " status " << status << "\n" << text;
  }
  remove(report.c_str());
  EXPECT_GT(whole, count / 4) << "most sequences end by a deliberate crash: the words are too wild";
}

}  // namespace
