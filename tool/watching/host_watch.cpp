// SPDX-License-Identifier: Apache-2.0
#include "tool/watching/host_watch.h"

#include "host/input_error.h"
#include "policy/pol_context.h"
#include "tool/watching/policy_view.h"

namespace polctl {

HostWatch::HostWatch(const PolicySource& source, RoutingDaemon* routing,
                     const ForwardingManager* manager)
    : source_(source),
      routing_(routing),
      manager_(manager),
      reader_(source.live()->port),
      started_(std::chrono::system_clock::now()),
      last_number_(source.live()->commit) {}

const CommitNote& HostWatch::note(const t_yarrow_batch* batch) {
  ++generation_;
  counters.keep(*source_.configured());
  std::vector<ChangedEntry> entries = changed_entries(batch);
  CommitNote commit;
  commit.number = yarrow_batch_commit_id(batch);
  commit.time = std::chrono::system_clock::now();
  commit.changes = yarrow_batch_count(batch);
  commit.called = routing_->take_called();
  for (const ChangedEntry& entry : entries) {
    if (commit.changed.size() < kEntriesRead)
      commit.changed.push_back(entry.what + (" " + entry.name));
  }
  HostCounts& counts = counters.host;
  ++counts.commits;
  counts.changes += commit.changes;
  counts.routing_callbacks += routing_->calls() - routing_calls_;
  routing_calls_ = routing_->calls();
  counts.forwarding_callbacks += manager_->calls() - forwarding_calls_;
  if (manager_->calls() != forwarding_calls_) commit.called.emplace_back("the forwarding manager");
  forwarding_calls_ = manager_->calls();
  reader_.ask(last_number_, commit.number, std::move(entries));
  last_number_ = commit.number;
  commits_.push_back(std::move(commit));
  if (commits_.size() > kCommitsKept) commits_.pop_front();
  return commits_.back();
}

HostStatus HostWatch::status() {
  HostStatus status;
  status.agent_port = source_.live()->port;
  status.agent_inside = source_.live()->agent != nullptr;
  status.sessions = reader_.sessions();
  status.started = started_;
  status.routes = told.routes;
  status.policies = routing_->users();
  status.absent = told.absent;
  status.awaited = told.awaited;
  pol_yarrow_thread_queues(g_pol_ctx_p, status.queues);
  status.fetching = told.fetching;
  status.document_bytes = told.document_bytes;
  status.counters = &counters;
  status.commits = &commits();
  return status;
}

const std::deque<CommitNote>& HostWatch::commits() {
  std::map<int64_t, CommitDetail> read = reader_.take();
  for (CommitNote& commit : commits_) {
    auto detail = read.find(commit.number);
    if (detail != read.end()) commit.detail = std::move(detail->second);
  }
  return commits_;
}

void HostWatch::show(const ShowOptions& options, Output* out) {
  Graph graph = read_graph(source_.configured());
  if (options.what == "status" && options.json) {
    write_status_json(status(), out);
    out->write("\n");
  } else if (options.what == "status") {
    write_status_text(status(), out);
  } else if (options.what == "commits") {
    options.json ? write_commits_json(commits(), out) : write_commits_text(commits(), out);
  } else if (options.what == "lists") {
    write_lists(graph, options.json, out);
  } else if (options.what == "policy") {
    const std::vector<size_t> policies = policies_named(graph, options.name);
    const ConfiguredPolicies configured = reader_.configured(options.name);
    for (size_t policy : policies) {
      const ConfiguredPolicy& known = known_of(configured, graph.nodes[policy]);
      options.json ? write_policy_json(graph, policy, &counters, known, out)
                   : write_policy_text(graph, policy, &counters, known, out);
      if (options.json) out->write("\n");
    }
  } else {
    throw InputError("polctl: error: nothing of that name is shown");
  }
}

}  // namespace polctl
