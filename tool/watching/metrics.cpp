// SPDX-License-Identifier: Apache-2.0
//
// The host's counters in the OpenMetrics text format. Names and units stay as they are: what was
// collected under them is kept by them.
#include <fmt/format.h>

#include "host/address_text.h"
#include "policy/pol_context.h"
#include "tool/watching/host_status.h"
#include "tool/watching/policy_view.h"

namespace polctl {

namespace {

constexpr const char* kQueues[POL_WORKER_QUEUES] = {"label_write", "label_fetch", "fetch"};

// A label's value with what the format wants escaped, bytes that are no UTF-8 replaced.
std::string label(std::string_view text) {
  std::string safe;
  for (char c : printable(text)) {
    if (c == '\\' || c == '"') safe += '\\';
    safe += c;
  }
  return safe;
}

double seconds(WallTime time) {
  return std::chrono::duration<double>(time.time_since_epoch()).count();
}

class Metrics {
 public:
  Metrics(const HostStatus& status, Output* out)
      : out_(*out), created_(seconds(status.counters->since())) {}

  void family(const char* name, const char* type, const char* help, const char* unit = "") {
    name_ = name;
    out_.print("# TYPE {} {}\n", name, type);
    if (*unit != '\0') out_.print("# UNIT {} {}\n", name, unit);
    out_.print("# HELP {} {}\n", name, help);
  }
  // `labels` with its braces, or "".
  template <typename Number>
  void sample(const char* suffix, const std::string& labels, Number value) {
    out_.print("{}{}{} {}\n", name_, suffix, labels, value);
  }
  void counter(const char* name, const char* help, uint64_t value) {
    family(name, "counter", help);
    sample("_total", "", value);
    sample("_created", "", fmt::format("{:.3f}", created_));
  }
  void gauge(const char* name, const char* help, uint64_t value, const char* unit = "") {
    family(name, "gauge", help, unit);
    sample("", "", value);
  }

 private:
  Output& out_;
  double created_;
  const char* name_ = "";
};

void write_decided(Metrics* metrics, const std::string& head, const std::string& sequence,
                   const Decided& decided) {
  auto labels = [&](const char* action) {
    return fmt::format("{{{},sequence=\"{}\",action=\"{}\"}}", head, sequence, action);
  };
  if (decided.accepted > 0) metrics->sample("_total", labels("accept"), decided.accepted);
  if (decided.rejected > 0) metrics->sample("_total", labels("reject"), decided.rejected);
}

// What never decided has no sample: a large policy costs what it is used for.
void write_decisions(const HostStatus& status, const Graph& graph, Metrics* metrics) {
  metrics->family("polctl_decisions", "counter",
                  "Routes decided, by policy, deciding sequence and outcome.");
  Decisions decisions;
  std::string head;
  for (size_t i = 0; i < graph.nodes.size(); ++i) {
    const GraphNode& policy = graph.nodes[i];
    if (!decides(policy)) continue;
    const Decisions decided = status.counters->of({policy.kind, policy.name});
    std::string head =
        fmt::format("kind=\"{}\",policy=\"{}\"", graph_word(policy), label(policy.name));
    for (size_t at = i + 1; at < graph.nodes.size() && graph.nodes[at].parent == i; ++at) {
      uint32_t sequence = graph.nodes[at].sequence;
      write_decided(metrics, head, std::to_string(sequence), decided.by_sequence(sequence));
    }
    write_decided(metrics, head, "default", decided.by_default());
  }
}

void write_lists_of(const Graph& graph, Metrics* metrics) {
  struct {
    const char* name;
    const char* help;
    bool elements;
  } const rows[] = {
      {"polctl_list_elements", "Elements of a list, where the library knows them.", true},
      {"polctl_list_users", "Clauses and policies that name a list or an object.", false}};
  for (const auto& row : rows) {
    metrics->family(row.name, "gauge", row.help);
    for (const GraphNode& node : graph.nodes) {
      bool shown = node.type <= (row.elements ? POL_GRAPH_PREFIX_LIST : POL_GRAPH_APP_ID);
      if (!shown) continue;
      metrics->sample(
          "", fmt::format("{{type=\"{}\",name=\"{}\"}}", graph_word(node), label(node.name)),
          row.elements ? node.elements : node.users);
    }
  }
}

void write_worker(const HostStatus& status, Metrics* metrics) {
  struct {
    const char* name;
    const char* help;
    uint64_t t_pol_worker_queue::*count;
  } const rows[] = {
      {"polctl_worker_requests", "Requests to the worker.", &t_pol_worker_queue::requests},
      {"polctl_worker_retries", "Attempts after a request's first.", &t_pol_worker_queue::retries},
      {"polctl_worker_dropped", "Requests given up.", &t_pol_worker_queue::dropped}};
  auto queue_label = [](unsigned i) { return fmt::format("{{queue=\"{}\"}}", kQueues[i]); };
  for (const auto& row : rows) {
    metrics->family(row.name, "counter", row.help);
    for (unsigned i = 0; i < POL_WORKER_QUEUES; ++i) {
      metrics->sample("_total", queue_label(i), status.queues[i].*row.count);
    }
  }
  metrics->family("polctl_worker_waiting", "gauge", "Requests that wait for the worker.");
  for (unsigned i = 0; i < POL_WORKER_QUEUES; ++i) {
    metrics->sample("", queue_label(i), status.queues[i].waiting);
  }
  metrics->family("polctl_worker_first_wait_seconds", "gauge",
                  "How long the first request of a queue has held up the others.", "seconds");
  for (unsigned i = 0; i < POL_WORKER_QUEUES; ++i) {
    metrics->sample("", queue_label(i), fmt::format("{:.3f}", status.queues[i].first_ms / 1000.0));
  }
}

}  // namespace

void write_metrics(const HostStatus& status, const Graph& graph, Output* out) {
  Metrics metrics(status, out);
  const HostCounts& counts = status.counters->host;
  metrics.family("polctl_build", "info", "The version that runs.");
  metrics.sample("_info", fmt::format("{{version=\"{}\"}}", pol_version()), 1);
  metrics.counter("polctl_commits", "Commits followed.", counts.commits);
  metrics.counter("polctl_changes", "Changes in these commits.", counts.changes);
  metrics.family("polctl_callbacks", "counter", "Callbacks of policies to their users.");
  metrics.sample("_total", "{user=\"routing\"}", counts.routing_callbacks);
  metrics.sample("_total", "{user=\"forwarding\"}", counts.forwarding_callbacks);
  metrics.counter("polctl_requests", "Requests over the host's socket.", counts.requests);
  metrics.counter("polctl_refused_requests", "Of these, refused.", counts.refused);
  metrics.family("polctl_document_build_seconds", "summary",
                 "Documents built, from the commit on, fetches included.", "seconds");
  metrics.sample("_count", "", counts.documents.count);
  metrics.sample("_sum", "", fmt::format("{:.6f}", counts.documents.sum_ms / 1000.0));
  if (status.routes > 0) {
    metrics.gauge("polctl_routes", "Routes of the routing daemon.", status.routes);
    metrics.family("polctl_route_rounds_seconds", "summary",
                   "Rounds in which a policy decides all routes.", "seconds");
    metrics.sample("_count", "", counts.rounds.count);
    metrics.sample("_sum", "", fmt::format("{:.6f}", counts.rounds.sum_ms / 1000.0));
    metrics.counter("polctl_changed_answers", "Answers that a round changed.",
                    counts.answers_changed);
  }
  if (status.sessions >= 0) {
    metrics.gauge("polctl_agent_sessions", "Sessions that the agent has.",
                  static_cast<uint64_t>(status.sessions));
  }
  metrics.gauge("polctl_document_bytes", "Size of the forwarding manager's document.",
                status.document_bytes, "bytes");
  metrics.gauge("polctl_commit_number", "The last commit followed; 0: none since the start.",
                status.commits->empty() ? 0 : static_cast<uint64_t>(status.commits->back().number));
  metrics.gauge("polctl_policies_used", "Control and membership policies in use.", status.policies);
  metrics.gauge("polctl_absent_names", "Names that policies use and nobody configured.",
                status.absent.size());
  write_worker(status, &metrics);
  write_decisions(status, graph, &metrics);
  write_lists_of(graph, &metrics);
  out->write("# EOF\n");
}

}  // namespace polctl
