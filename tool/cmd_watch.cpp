// SPDX-License-Identifier: Apache-2.0
//
// polctl watch. What a daemon sees that uses policy while its configuration changes: one batch of
// changes a commit, and its callbacks.
#include <chrono>
#include <vector>

#include "commands.h"
#include "host/graph_model.h"
#include "host/input_error.h"
#include "policy/pol_user.h"
#include "terminal.h"

namespace polctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kBatchMs = 10'000;  // that a commit of our own may take to arrive

double ms_between(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double, std::milli>(to - from).count();
}

// A consumer of one policy, who notes when it is called back.
struct Watcher {
  std::string policy;
  t_pol_user* user = nullptr;
  std::vector<Clock::time_point> calls;
};

// Called by the library: running out of memory ends the process here rather than pass through it.
void note_call(t_pol_user* /*user*/, uint64_t watcher) noexcept {
  reinterpret_cast<Watcher*>(watcher)->calls.push_back(Clock::now());
}

class Watchers {
 public:
  explicit Watchers(const std::vector<std::string>& policies) : watchers_(policies.size()) {
    for (size_t i = 0; i < policies.size(); ++i) {
      Watcher& watcher = watchers_[i];
      watcher.policy = policies[i];
      watcher.user = register_user(watcher.policy, watcher.policy, POL_KIND_ROUTE, POL_DIR_IN,
                                   note_call, &watcher);
    }
  }
  ~Watchers() {
    for (Watcher& watcher : watchers_) pol_unregister(&watcher.user);
  }
  Watchers(const Watchers&) = delete;
  Watchers& operator=(const Watchers&) = delete;

  void forget_calls() {
    for (Watcher& watcher : watchers_) watcher.calls.clear();
  }
  const std::vector<Watcher>& all() const { return watchers_; }

 private:
  std::vector<Watcher> watchers_;
};

void show_calls(const Watchers& watchers, Clock::time_point since, const char* since_what,
                Output* out) {
  for (const Watcher& watcher : watchers.all()) {
    for (Clock::time_point call : watcher.calls) {
      out->print("  user of policy \"{}\" called back {:.2f} ms after {}\n", watcher.policy,
                 ms_between(since, call), since_what);
    }
    if (watcher.calls.empty())
      out->print("  user of policy \"{}\" not called back\n", watcher.policy);
  }
}

// What would hold up the worker of a system with this configuration.
void tell_absent(const ConfiguredNames& configured, Output* out) {
  std::vector<std::string> absent = absent_objects(&configured);
  if (!absent.empty()) out->print("  named, but not configured: {}\n", joined(absent, ", "));
}

const char* plural(int64_t count) { return count == 1 ? "" : "s"; }

void commit_and_show(const WatchOptions& options, LiveConfig* live, Watchers* watchers,
                     Output* out) {
  std::vector<ConfigFault> faults;
  ConfigSession& session = *live->session;
  SourceFiles files = open_configuration(options.change);
  session.load(files, &faults);
  if (!faults.empty()) throw_faults(faults);
  Clock::time_point begin = Clock::now();
  bool changed = session.commit(files, &faults);
  if (!faults.empty()) throw_faults(faults);
  double committed = ms_between(begin, Clock::now());
  if (!changed) {
    out->print("commit acknowledged after {:.2f} ms: it changed nothing\n", committed);
    return;
  }
  int64_t changes = live->feed->next(kBatchMs, live->walk.get());
  if (changes < 0) throw InputError("agent: error: no batch of changes (expected one)");
  out->print("commit acknowledged after {:.2f} ms: one batch of {} change{}\n", committed,
             grouped(static_cast<uint64_t>(changes)), plural(changes));
  show_calls(*watchers, begin, "the commit began", out);
  tell_absent(live->walk->configured(), out);
}

}  // namespace

int run_watch(const WatchOptions& options, Output* out) {
  PolicySource source = load_policy(options.source);
  LiveConfig* live = source.live();
  std::vector<std::string> policies = options.policies;
  if (policies.empty()) policies = policy_names(POL_KIND_ROUTE);
  for (const std::string& policy : policies) {
    require_policy(policy, POL_KIND_ROUTE, source_name(options.source));
  }
  Watchers watchers(policies);
  out->print("{} change{} walked; {} user{} registered\n", grouped(live->walk->changes()),
             plural(static_cast<int64_t>(live->walk->changes())), policies.size(),
             plural(static_cast<int64_t>(policies.size())));
  tell_absent(*source.configured(), out);
  if (!options.change.empty()) {
    commit_and_show(options, live, &watchers, out);
    out->flush();
    return kDone;
  }
  // Until the agent goes, or whoever watches has seen enough.
  while (!out->gone()) {
    out->flush();
    int64_t changes = live->feed->next(-1, live->walk.get());
    if (changes < 0) break;
    out->print("one batch of {} change{}\n", grouped(static_cast<uint64_t>(changes)),
               plural(changes));
    for (const Watcher& watcher : watchers.all()) {
      out->print("  user of policy \"{}\" called back {} time{}\n", watcher.policy,
                 watcher.calls.size(), plural(static_cast<int64_t>(watcher.calls.size())));
    }
    watchers.forget_calls();
    tell_absent(*source.configured(), out);
  }
  return kDone;
}

}  // namespace polctl
