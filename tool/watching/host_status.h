/* SPDX-License-Identifier: Apache-2.0
 *
 * host_status.h - how a running host is, for people, for programs and for a collector of metrics.
 */
#ifndef TOOL_WATCHING_HOST_STATUS_H
#define TOOL_WATCHING_HOST_STATUS_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "host/counters.h"
#include "host/graph_model.h"
#include "host/output.h"
#include "policy/pol_yarrow_thread.h"
#include "tool/watching/commit_reader.h"

namespace polctl {

using WallTime = std::chrono::system_clock::time_point;

/* A commit that the host followed. */
struct CommitNote {
  int64_t number = 0;
  WallTime time; /* when the host had it */
  uint64_t changes = 0;
  std::vector<std::string> changed;   /* "new site-list hub"; the first kEntriesRead */
  std::vector<std::string> called;    /* back */
  std::optional<CommitDetail> detail; /* once it is read */
};

inline constexpr size_t kCommitsKept = 50;

struct HostStatus {
  uint16_t agent_port = 0;
  bool agent_inside = false; /* this process's own */
  int64_t sessions = -1;     /* that the agent has; negative: not known */
  WallTime started;
  size_t policies = 0;              /* control and membership policies in use */
  std::vector<std::string> absent;  /* named and not configured */
  std::vector<std::string> awaited; /* to be applied and not configured */
  t_pol_worker_queue queues[POL_WORKER_QUEUES] = {};
  bool fetching = false; /* the worker is not done with the last commit */
  uint64_t document_bytes = 0;
  uint64_t routes = 0; /* that the routing daemon has its policies decide */
  const Counters* counters = nullptr;
  const std::deque<CommitNote>* commits = nullptr; /* the last ones, the newest last */
};

void write_status_text(const HostStatus& status, Output* out);
/* One object, without a line's end. */
void write_status_json(const HostStatus& status, Output* out);

/* Who made it and what it changed, without who was called back. */
void write_commit_text(const CommitNote& commit, Output* out);
std::string commit_json(const CommitNote& commit);

void write_commits_text(const std::deque<CommitNote>& commits, Output* out);
/* One object a line. */
void write_commits_json(const std::deque<CommitNote>& commits, Output* out);

/* OpenMetrics text, version 1.0.0. */
void write_metrics(const HostStatus& status, const Graph& graph, Output* out);

/* "2026-11-22T02:27:53Z" */
std::string time_text(WallTime time);

}  // namespace polctl

#endif
