// SPDX-License-Identifier: Apache-2.0
//
// What a change of configuration costs a daemon end to end: from the call that commits it at an
// agent, through the changes and the host's walk, to the callback of a user whose policy names the
// list. The agent is in a thread of this process, its running configuration on disk, all traffic
// over real sockets.
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "agent/yarrow_agent.h"
#include "host/agent_link.h"
#include "host/config_feed.h"
#include "host/input_error.h"
#include "kel/string.h"
#include "policy/pol_context.h"
#include "policy/pol_user.h"
#include "yarrow/yarrow_maapi.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kCommits = 1000;
constexpr int kProbes = 101;
constexpr int kWaitMs = 60'000;

double ms_between(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double, std::milli>(to - from).count();
}

void check(int status, const char* what) {
  if (status < 0) throw polctl::InputError(std::string(what) + ": " + polctl::agent_problem());
}

struct Callback {
  Clock::time_point last;
  int count = 0;
};

void note_call(t_pol_user* /*user*/, uint64_t callback) {
  auto* note = reinterpret_cast<Callback*>(callback);
  note->last = Clock::now();
  ++note->count;
}

std::string configuration(int entries) {
  std::string text = "<policy xmlns=\"urn:zenodra:policy\"><lists><prefix-list><name>big</name>";
  for (int i = 0; i < entries; ++i) {
    text += "<prefix><prefix>" + std::to_string(10 + (i >> 16)) + "." +
            std::to_string(i >> 8 & 255) + "." + std::to_string(i & 255) +
            ".0/24</prefix><le>32</le></prefix>";
  }
  return text +
         "</prefix-list></lists><control-policy><name>P</name><sequence><number>10</number><match>"
         "<type>route</type><prefix-list>big</prefix-list></match></sequence></control-policy>"
         "</policy>";
}

class Rig {
 public:
  explicit Rig(const std::string& directory) {
    agent::Options options;
    options.directory = directory;
    std::string problem;
    agent_ = agent::start(options, &problem);
    if (!agent_) throw polctl::InputError(problem);
    agent::run_in_thread(*agent_);
    uint16_t port = agent::port(*agent_);
    sock_ = polctl::agent_socket();
    sockaddr_in address = polctl::agent_address(port);
    check(maapi_connect(sock_, reinterpret_cast<const sockaddr*>(&address), sizeof address),
          "connect");
    check(maapi_start_user_session3(sock_, "bench", "bench", nullptr, nullptr), "session");
    t_pol_callbacks callbacks = {};
    walk_ = std::make_unique<polctl::ConfigWalk>(pol_init(&callbacks));
    feed_ = std::make_unique<polctl::ConfigFeed>(port);
    feed_->next(kWaitMs, walk_.get());
    t_pol_registration record = {};
    strlcpy(record.user_name, "bench", sizeof record.user_name);
    strlcpy(record.policy_name, "P", sizeof record.policy_name);
    record.kind = POL_KIND_ROUTE;
    record.direction = POL_DIR_IN;
    record.change = note_call;
    record.user_arg = reinterpret_cast<uint64_t>(&callback_);
    user_ = pol_register(&record);
  }
  ~Rig() {
    pol_unregister(&user_);
    pol_destroy();
    maapi_close(sock_);
    agent::stop(*agent_);
  }
  Rig(const Rig&) = delete;
  Rig& operator=(const Rig&) = delete;

  int begin() const {
    int trans =
        maapi_start_trans_flags2(sock_, MAAPI_CANDIDATE, MAAPI_READ_WRITE, 0, 0, nullptr, nullptr);
    check(trans, "transaction");
    return trans;
  }
  void apply(int trans) const {
    check(maapi_apply_trans(sock_, trans, 0), "apply");
    check(maapi_finish_trans(sock_, trans), "finish");
  }
  void load(const std::string& text) const {
    int trans = begin();
    check(maapi_load_config_cmds(sock_, trans, YARROW_CONFIG_XML | YARROW_CONFIG_MERGE,
                                 text.c_str(), "%s", ""),
          "load");
    apply(trans);
  }
  void edit_one(int number, int le) const {
    int trans = begin();
    check(maapi_set_elem_text(sock_, trans, std::to_string(le).c_str(),
                              "/policy/lists/prefix-list{big}/prefix{%d.%d.%d.0/24}/le",
                              10 + (number >> 16), number >> 8 & 255, number & 255),
          "edit");
    apply(trans);
  }
  void commit_and_walk() {
    check(maapi_candidate_commit(sock_), "commit");
    if (feed_->next(kWaitMs, walk_.get()) < 0) throw polctl::InputError("no batch");
  }
  Callback& callback() { return callback_; }

 private:
  std::shared_ptr<agent::Handle> agent_;
  int sock_ = -1;
  std::unique_ptr<polctl::ConfigWalk> walk_;
  std::unique_ptr<polctl::ConfigFeed> feed_;
  Callback callback_;
  t_pol_user* user_ = nullptr;
};

struct Figures {
  double load;     // N entries: XML text into the candidate
  double at_once;  // committed and walked
  double one;      // median, commit call to callback
  double worst;
  double thousand;  // commits of one entry, edits included
  double calls;     // of the user, for one edit
};

Figures measure(int entries) {
  std::string directory = std::filesystem::temp_directory_path() / "config_bench.XXXXXX";
  if (mkdtemp(directory.data()) == nullptr) throw polctl::InputError("no directory");
  Figures figures = {};
  {
    Rig rig(directory);
    std::string text = configuration(entries);
    Clock::time_point begin = Clock::now();
    rig.load(text);
    figures.load = ms_between(begin, Clock::now());
    begin = Clock::now();
    rig.commit_and_walk();
    figures.at_once = ms_between(begin, Clock::now());

    std::vector<double> probes;
    rig.callback().count = 0;
    for (int i = 0; i < kProbes; ++i) {
      rig.edit_one(static_cast<int>(static_cast<int64_t>(i) * entries / kProbes), 25 + i % 4);
      begin = Clock::now();
      rig.commit_and_walk();
      probes.push_back(ms_between(begin, rig.callback().last));
    }
    figures.calls = static_cast<double>(rig.callback().count) / kProbes;
    std::sort(probes.begin(), probes.end());
    figures.one = probes[kProbes / 2];
    figures.worst = probes.back();

    begin = Clock::now();
    for (int i = 0; i < kCommits; ++i) {
      rig.edit_one(i % entries, i / entries % 2 == 0 ? 30 : 31);
      rig.commit_and_walk();
    }
    figures.thousand = ms_between(begin, Clock::now());
  }
  std::filesystem::remove_all(directory);
  return figures;
}

void print_row(const char* what, const Figures (&all)[3], double Figures::*figure) {
  double first = all[0].*figure;
  double last = all[2].*figure;
  printf("%-44s %10.2f %10.2f %10.2f %9.1fx\n", what, all[0].*figure, all[1].*figure, last,
         last / first);
}

}  // namespace

int main() try {
  Figures all[3];
  constexpr int kSizes[] = {1'000, 10'000, 100'000};
  for (int i = 0; i < 3; ++i) all[i] = measure(kSizes[i]);
  printf("Configuration from an agent into the library, in ms, by entries of the list\n\n");
  printf("%-44s %10s %10s %10s %10s\n", "", "1,000", "10,000", "100,000", "growth");
  print_row("all entries at once, XML to candidate", all, &Figures::load);
  print_row("all entries at once, committed and walked", all, &Figures::at_once);
  print_row("one entry, commit call to callback, median", all, &Figures::one);
  print_row("one entry, commit call to callback, worst", all, &Figures::worst);
  print_row("1,000 commits of one entry, edits included", all, &Figures::thousand);
  print_row("callbacks of the user for one entry (count)", all, &Figures::calls);
  return 0;
} catch (const std::exception& error) {
  fprintf(stderr, "config_bench: %s\n", error.what());
  return 1;
}
