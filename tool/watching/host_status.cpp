// SPDX-License-Identifier: Apache-2.0
#include "tool/watching/host_status.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "host/address_text.h"
#include "policy/pol_context.h"
#include "tool/json_line.h"
#include "tool/terminal.h"

namespace polctl {

namespace {

constexpr const char* kQueueWords[POL_WORKER_QUEUES] = {"label writes", "fetches for labels",
                                                        "fetches"};

const CommitNote* last_commit(const HostStatus& status) {
  return status.commits->empty() ? nullptr : &status.commits->back();
}

std::string timed_text(const Timed& timed) {
  if (timed.count == 0) return "none";
  return fmt::format("{}, last {:.1f} ms, mean {:.1f} ms, most {:.1f} ms", grouped(timed.count),
                     timed.last_ms, timed.sum_ms / static_cast<double>(timed.count), timed.most_ms);
}

std::string timed_json(const char* count, const char* times, const Timed& timed) {
  return fmt::format(R"("{}":{},"{}":{{"last":{:.3f},"sum":{:.3f},"most":{:.3f}}})", count,
                     timed.count, times, timed.last_ms, timed.sum_ms, timed.most_ms);
}

void line(Output* out, std::string_view what, const std::string& text) {
  out->print("{:<16}{}\n", what, text);
}

}  // namespace

std::string time_text(WallTime time) {
  return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", std::chrono::floor<std::chrono::seconds>(time));
}

void write_status_text(const HostStatus& status, Output* out) {
  const HostCounts& counts = status.counters->host;
  line(out, "polctl", fmt::format("{}, since {}", pol_version(), time_text(status.started)));
  line(out, "agent",
       fmt::format("port {}, {}{}", status.agent_port,
                   status.agent_inside ? "in this process" : "a process of its own",
                   status.sessions < 0    ? ", sessions not known"
                   : status.sessions == 1 ? ", 1 session"
                                          : fmt::format(", {} sessions", status.sessions)));
  const CommitNote* commit = last_commit(status);
  line(out, "last commit",
       commit == nullptr ? "none since the start"
                         : fmt::format("{} at {}, {} changes", commit->number,
                                       time_text(commit->time), grouped(commit->changes)));
  line(out, "policies", fmt::format("{} control and membership policies in use", status.policies));
  if (status.routes > 0) line(out, "routes", grouped(status.routes));
  for (const std::string& name : status.absent) line(out, "not configured", printable(name));
  for (const std::string& name : status.awaited) line(out, "waited for", printable(name));
  line(out, "document",
       fmt::format("{} bytes{}", grouped(status.document_bytes),
                   status.fetching ? ", the worker is still fetching for the next" : ""));
  out->print("\ncounted since {}\n", time_text(status.counters->since()));
  line(out, "commits",
       fmt::format("{}, {} changes", grouped(counts.commits), grouped(counts.changes)));
  line(out, "callbacks",
       fmt::format("{} for routing, {} for forwarding", grouped(counts.routing_callbacks),
                   grouped(counts.forwarding_callbacks)));
  if (status.routes > 0) {
    line(out, "routes decided", timed_text(counts.rounds));
    line(out, "answers changed", grouped(counts.answers_changed));
  }
  line(out, "documents", timed_text(counts.documents));
  line(out, "requests",
       fmt::format("{}, {} refused", grouped(counts.requests), grouped(counts.refused)));
  out->write("\n");
  Table table("lrrrrr", {{"worker, since its start"},
                         {"requests"},
                         {"retries"},
                         {"dropped"},
                         {"waiting"},
                         {"first waits"}});
  for (unsigned i = 0; i < POL_WORKER_QUEUES; ++i) {
    const t_pol_worker_queue& queue = status.queues[i];
    table.add({{kQueueWords[i]},
               {grouped(queue.requests)},
               {grouped(queue.retries)},
               {grouped(queue.dropped)},
               {grouped(queue.waiting)},
               {queue.waiting == 0 ? "" : fmt::format("{:.1f} s", queue.first_ms / 1000.0)}});
  }
  table.print(out, Palette(out->fd()));
}

void write_status_json(const HostStatus& status, Output* out) {
  const HostCounts& counts = status.counters->host;
  const CommitNote* commit = last_commit(status);
  out->print(R"({{"version":"{}","started":"{}","agent":{{"port":{},"inside":{},"sessions":{}}},)",
             pol_version(), time_text(status.started), status.agent_port, status.agent_inside,
             status.sessions < 0 ? "null" : std::to_string(status.sessions));
  out->print(R"("last_commit":{},"policies":{},"routes":{},"absent":{},"awaited":{},)",
             commit == nullptr ? "null" : commit_json(*commit), status.policies, status.routes,
             json_array(status.absent), json_array(status.awaited));
  out->print(R"("document":{{"bytes":{},"fetching":{}}},"counted_since":"{}",)",
             status.document_bytes, status.fetching, time_text(status.counters->since()));
  out->print(
      R"("counts":{{"commits":{},"changes":{},"routing_callbacks":{},"forwarding_callbacks":{},)"
      R"("requests":{},"refused":{},"answers_changed":{},)",
      counts.commits, counts.changes, counts.routing_callbacks, counts.forwarding_callbacks,
      counts.requests, counts.refused, counts.answers_changed);
  out->print(R"({},{}}},"worker":[)", timed_json("rounds", "round_ms", counts.rounds),
             timed_json("documents", "document_ms", counts.documents));
  for (unsigned i = 0; i < POL_WORKER_QUEUES; ++i) {
    const t_pol_worker_queue& queue = status.queues[i];
    out->print(
        R"({}{{"queue":"{}","requests":{},"retries":{},"dropped":{},"waiting":{},"first_ms":{}}})",
        i == 0 ? "" : ",", kQueueWords[i], queue.requests, queue.retries, queue.dropped,
        queue.waiting, queue.first_ms);
  }
  out->write("]}");
}

std::string commit_json(const CommitNote& commit) {
  const CommitDetail none;
  const CommitDetail& detail = commit.detail ? *commit.detail : none;
  bool read = commit.detail.has_value() && detail.problem.empty();
  return fmt::format(
      R"({{"number":{},"time":"{}","user":{},"client":{},"comment":{},"changes":{},"changed":{},)"
      R"("called":{},"lines":{}}})",
      commit.number, time_text(commit.time), json_string(detail.user), json_string(detail.client),
      json_string(detail.comment), commit.changes, json_array(commit.changed),
      json_array(commit.called), read ? json_array(detail.lines) : "null");
}

void write_commit_text(const CommitNote& commit, Output* out) {
  const CommitDetail none;
  const CommitDetail& detail = commit.detail ? *commit.detail : none;
  std::string who = detail.user;
  if (!detail.client.empty()) who += " (" + detail.client + ")";
  out->print("commit {} at {}{}: {} change{}\n", commit.number, time_text(commit.time),
             who.empty() ? "" : " by " + printable(who), grouped(commit.changes),
             commit.changes == 1 ? "" : "s");
  if (!detail.comment.empty()) out->print("  comment: {}\n", printable(detail.comment));
  bool read = commit.detail.has_value() && detail.problem.empty();
  for (const std::string& each : read ? detail.lines : commit.changed) {
    out->print("  {}\n", printable(each));
  }
}

void write_commits_text(const std::deque<CommitNote>& commits, Output* out) {
  for (const CommitNote& commit : commits) {
    write_commit_text(commit, out);
    out->print("  called back: {}\n",
               commit.called.empty() ? "nobody" : printable(joined(commit.called, ", ")));
  }
  if (commits.empty()) out->write("no commits since the start\n");
}

void write_commits_json(const std::deque<CommitNote>& commits, Output* out) {
  for (const CommitNote& commit : commits) out->print("{}\n", commit_json(commit));
}

}  // namespace polctl
