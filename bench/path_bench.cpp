// SPDX-License-Identifier: Apache-2.0
//
// What a change of one sequence of a data policy costs end to end: from the call that commits it at
// an agent to the forwarding manager's document that has it. The agent is in a thread of this
// process; commits, changes and fetches go over real sockets, the fetch through the library's worker.
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "host/agent_link.h"
#include "host/config_feed.h"
#include "host/forwarding.h"
#include "host/input_error.h"
#include "policy/pol_context.h"
#include "policy/pol_fwd_document.h"
#include "yarrow/yarrow_maapi.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kProbes = 41;
constexpr int kWaitMs = 60'000;

double ms_between(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double, std::milli>(to - from).count();
}

void check(int status, const char* what) {
  if (status < 0) throw polctl::InputError(std::string(what) + ": " + polctl::agent_problem());
}

std::string configuration(int sequences) {
  std::string text = "<policy xmlns=\"urn:zenodra:policy\"><lists>";
  for (const char* name : {"voice", "video"}) {
    text += std::string("<app-list><name>") + name + "</name><app><name>a</name></app></app-list>";
  }
  text += "<vpn-list><name>V</name><vpn><id>1</id></vpn></vpn-list></lists>";
  text += "<data-policy><name>P</name><vpn-list><name>V</name>";
  for (int i = 1; i <= sequences; ++i) {
    text += "<sequence><number>" + std::to_string(i) +
            "</number><match><app-list>voice</app-list></match><action><action-value>accept"
            "</action-value></action></sequence>";
  }
  return text + "</vpn-list></data-policy></policy>";
}

class Editor {
 public:
  explicit Editor(uint16_t port) : sock_(polctl::agent_socket()) {
    sockaddr_in address = polctl::agent_address(port);
    check(maapi_connect(sock_, reinterpret_cast<const sockaddr*>(&address), sizeof address),
          "connect");
    check(maapi_start_user_session3(sock_, "bench", "bench", nullptr, nullptr), "session");
  }
  ~Editor() { maapi_close(sock_); }
  Editor(const Editor&) = delete;
  Editor& operator=(const Editor&) = delete;

  void load(const std::string& text) const {
    int trans = begin();
    check(maapi_load_config_cmds(sock_, trans, YARROW_CONFIG_XML | YARROW_CONFIG_MERGE,
                                 text.c_str(), "%s", ""),
          "load");
    end(trans);
  }
  void name_list(int sequence, const char* list) const {
    int trans = begin();
    check(maapi_set_elem_text(sock_, trans, list,
                              "/policy/data-policy{P}/vpn-list{V}/sequence{%d}/match/app-list",
                              sequence),
          "edit");
    end(trans);
  }
  void commit() const { check(maapi_candidate_commit(sock_), "commit"); }

 private:
  int begin() const {
    int trans =
        maapi_start_trans_flags2(sock_, MAAPI_CANDIDATE, MAAPI_READ_WRITE, 0, 0, nullptr, nullptr);
    check(trans, "transaction");
    return trans;
  }
  void end(int trans) const {
    check(maapi_apply_trans(sock_, trans, 0), "apply");
    check(maapi_finish_trans(sock_, trans), "finish");
  }

  int sock_;
};

struct Figures {
  double walked;    // commit call to callback
  double fetched;   // from there on, the policy's text
  double document;  // from there on, put together and filtered
  double whole;
  double worst;
  double bytes;
};

void fetch_changed() {
  pol_fwd_queue_xml_config(g_pol_ctx_p);
  while (pol_fwd_policy_is_yarrow_updated() == 0) sched_yield();
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

Figures measure(int sequences) {
  polctl::EmbeddedAgent agent;
  polctl::set_worker_port(agent.port());
  t_pol_callbacks callbacks = {};
  polctl::ConfigWalk walk(pol_init(&callbacks));
  polctl::ConfigFeed feed(agent.port());
  Figures figures = {};
  {
    Editor editor(agent.port());
    auto take_batch = [&] {
      if (feed.next(kWaitMs, &walk) < 0) throw polctl::InputError("no batch");
    };
    take_batch();  // of what is there at first: nothing
    editor.load(configuration(sequences));
    editor.commit();
    take_batch();
    polctl::AppliedPolicies applied;
    applied.from_service = "P";
    polctl::ForwardingManager manager(applied, walk.configured());
    fetch_changed();
    std::vector<double> walked, fetched, document, whole;
    for (int i = 0; i < kProbes; ++i) {
      editor.name_list(1 + i * sequences / kProbes, "video");
      const uint64_t calls = manager.calls();
      const Clock::time_point begin = Clock::now();
      editor.commit();
      while (manager.calls() == calls) take_batch();
      const Clock::time_point called = Clock::now();
      fetch_changed();
      const Clock::time_point there = Clock::now();
      const std::string text = manager.document();
      const Clock::time_point end = Clock::now();
      if (text.find("video") == std::string::npos) throw polctl::InputError("an old document");
      walked.push_back(ms_between(begin, called));
      fetched.push_back(ms_between(called, there));
      document.push_back(ms_between(there, end));
      whole.push_back(ms_between(begin, end));
      figures.bytes = static_cast<double>(text.size());
    }
    figures.walked = median(walked);
    figures.fetched = median(fetched);
    figures.document = median(document);
    figures.whole = median(whole);
    figures.worst = *std::max_element(whole.begin(), whole.end());
  }
  walk.release();
  pol_destroy();
  return figures;
}

void print_row(const char* what, const Figures (&all)[3], double Figures::*figure) {
  printf("%-44s %10.2f %10.2f %10.2f %9.1fx\n", what, all[0].*figure, all[1].*figure,
         all[2].*figure, all[2].*figure / all[1].*figure);
}

}  // namespace

int main() try {
  Figures all[3];
  constexpr int kSizes[] = {100, 1'000, 10'000};
  for (int i = 0; i < 3; ++i) all[i] = measure(kSizes[i]);
  printf("One sequence of a data policy changed, from commit to document, in ms\n\n");
  printf("%-44s %10s %10s %10s %10s\n", "sequences of the policy", "100", "1,000", "10,000",
         "last step");
  print_row("commit call to callback, median", all, &Figures::walked);
  print_row("the policy's text fetched, median", all, &Figures::fetched);
  print_row("document put together and filtered, median", all, &Figures::document);
  print_row("commit call to document, median", all, &Figures::whole);
  print_row("commit call to document, worst", all, &Figures::worst);
  print_row("bytes of the document (count)", all, &Figures::bytes);
  return 0;
} catch (const std::exception& error) {
  fprintf(stderr, "path_bench: %s\n", error.what());
  return 1;
}
