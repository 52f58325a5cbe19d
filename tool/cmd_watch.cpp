// SPDX-License-Identifier: Apache-2.0
//
// polctl watch. What a daemon sees that uses policy while its configuration changes: one batch of
// changes a commit, and its callbacks.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <thread>
#include <vector>

#include "commands.h"
#include "host/address_text.h"
#include "host/graph_model.h"
#include "host/input_error.h"
#include "json_line.h"
#include "policy/pol_context.h"
#include "policy/pol_user.h"
#include "policy/pol_yarrow_thread.h"
#include "terminal.h"
#include "watching/host_status.h"
#include "yarrow/yarrow_types.h"

namespace polctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kReconnectPause = std::chrono::seconds(1);
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

// Where the process would look for an agent, which a source changes for itself.
class AgentPlace {
 public:
  AgentPlace() {
    for (Variable& each : variables_) {
      const char* value = getenv(each.name);
      if (value != nullptr) each.value = value;
    }
  }
  void restore() const {
    for (const Variable& each : variables_) {
      each.value ? setenv(each.name, each.value->c_str(), 1) : unsetenv(each.name);
    }
  }

 private:
  struct Variable {
    const char* name;
    std::optional<std::string> value;
  };
  Variable variables_[2] = {{YARROW_PORT_VARIABLE, {}}, {YARROW_PATH_VARIABLE, {}}};
};

// While it lives, this process may connect to its agent, and the library's worker does not: it tries
// once, at its first request, and that is over.
class Reach {
 public:
  Reach(const AgentPlace& place, const PolicyOptions& options, const LiveConfig& live)
      : live_(live) {
    t_pol_worker_queue queues[POL_WORKER_QUEUES] = {};
    pol_yarrow_thread_queues(g_pol_ctx_p, queues);
    bool asked = std::any_of(std::begin(queues), std::end(queues),
                             [](const t_pol_worker_queue& queue) { return queue.requests > 0; });
    while (asked && __atomic_load_n(&g_pol_yarrow_thread_maapi_connected, __ATOMIC_RELAXED) == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (options.agent && options.agent_port.empty()) {
      place.restore();
    } else {
      set_worker_port(live.port);
    }
  }
  ~Reach() { set_worker_port(live_.unreachable.port()); }
  Reach(const Reach&) = delete;
  Reach& operator=(const Reach&) = delete;

 private:
  const LiveConfig& live_;
};

// The next commit, walked; none when the time is over or the agent has gone.
std::optional<CommitNote> next_commit(const WatchOptions& options, const AgentPlace& place,
                                      LiveConfig* live, int timeout_ms) {
  ConfigFeed::Batch batch = live->feed->read(timeout_ms);
  if (!batch) return std::nullopt;
  CommitNote commit;
  commit.number = yarrow_batch_commit_id(batch.get());
  commit.time = std::chrono::system_clock::now();
  commit.changes = yarrow_batch_count(batch.get());
  std::vector<ChangedEntry> entries = changed_entries(batch.get());
  for (const ChangedEntry& entry : entries) {
    if (commit.changed.size() == kEntriesRead) break;
    commit.changed.push_back(entry.what + (" " + entry.name));
  }
  live->walk->take(batch.get());
  Reach reach(place, options.source, *live);
  commit.detail = read_commit(live->session.get(), live->commit, commit.number, entries);
  live->commit = commit.number;
  return commit;
}

std::string json_of(CommitNote commit, const Watchers& watchers,
                    const ConfiguredNames& configured) {
  std::vector<std::string> calls;
  for (const Watcher& watcher : watchers.all()) {
    if (!watcher.calls.empty()) commit.called.push_back(watcher.policy);
    calls.push_back(fmt::format("{}:{}", json_string(watcher.policy), watcher.calls.size()));
  }
  std::vector<std::string> absent;
  for (const std::string& name : absent_objects(&configured)) absent.push_back(json_string(name));
  std::string text = commit_json(commit);
  text.pop_back();
  return fmt::format("{},\"calls\":{{{}}},\"absent\":[{}]}}", text, joined(calls, ","),
                     joined(absent, ","));
}

void commit_and_show(const WatchOptions& options, const AgentPlace& place, LiveConfig* live,
                     Watchers* watchers, Output* out) {
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
    if (!options.json) {
      out->print("commit acknowledged after {:.2f} ms: it changed nothing\n", committed);
    }
    return;
  }
  std::optional<CommitNote> commit = next_commit(options, place, live, kBatchMs);
  if (!commit) throw InputError("agent: error: no batch of changes (expected one)");
  if (options.json) {
    out->print("{}\n", json_of(*commit, *watchers, live->walk->configured()));
    return;
  }
  out->print("commit acknowledged after {:.2f} ms: one batch of {} change{}\n", committed,
             grouped(commit->changes), plural(static_cast<int64_t>(commit->changes)));
  show_calls(*watchers, begin, "the commit began", out);
  write_commit_text(*commit, out);
  tell_absent(live->walk->configured(), out);
}

void show_commit(const WatchOptions& options, const CommitNote& commit, const Watchers& watchers,
                 const ConfiguredNames& configured, Output* out) {
  if (options.json) {
    out->print("{}\n", json_of(commit, watchers, configured));
    return;
  }
  write_commit_text(commit, out);
  for (const Watcher& watcher : watchers.all()) {
    out->print("  user of policy \"{}\" called back {} time{}\n", watcher.policy,
               watcher.calls.size(), plural(static_cast<int64_t>(watcher.calls.size())));
  }
  tell_absent(configured, out);
}

// Until the agent goes, or whoever watches has seen enough. Why the agent has gone, "" if it has not.
std::string watch_agent(const WatchOptions& options, const AgentPlace& place,
                        const PolicySource& source, Output* out) {
  LiveConfig* live = source.live();
  std::vector<std::string> policies = options.policies;
  if (policies.empty()) policies = policy_names(POL_KIND_ROUTE);
  for (const std::string& policy : policies) {
    require_policy(policy, POL_KIND_ROUTE, source_name(options.source));
  }
  Watchers watchers(policies);
  if (!options.json) {
    out->print("{} change{} walked; {} user{} registered\n", grouped(live->walk->changes()),
               plural(static_cast<int64_t>(live->walk->changes())), policies.size(),
               plural(static_cast<int64_t>(policies.size())));
    tell_absent(*source.configured(), out);
  }
  if (!options.change.empty()) {
    commit_and_show(options, place, live, &watchers, out);
    out->flush();
    return "";
  }
  while (!out->gone()) {
    out->flush();
    std::optional<CommitNote> commit;
    try {
      commit = next_commit(options, place, live, -1);
    } catch (const InputError& error) {
      return error.what();
    }
    if (!commit) return fmt::format("agent at port {}: error: it has gone", live->port);
    show_commit(options, *commit, watchers, *source.configured(), out);
    watchers.forget_calls();
  }
  return "";
}

}  // namespace

int run_watch(const WatchOptions& options, Output* out) {
  AgentPlace place;
  std::optional<PolicySource> source(std::in_place, options.source);
  for (;;) {
    std::string gone = watch_agent(options, place, *source, out);
    out->flush();
    if (gone.empty() || out->gone()) return kDone;
    fmt::print(stderr, "polctl: {} ({})\n", printable(gone),
               options.reconnect ? "it is waited for" : "--reconnect waits for it");
    if (!options.reconnect) return kFindings;
    source.reset();
    while (!source) {
      std::this_thread::sleep_for(kReconnectPause);
      place.restore();
      try {
        source.emplace(options.source);
      } catch (const InputError&) {
        // Not yet: who waits knows already.
      }
    }
  }
}

}  // namespace polctl
