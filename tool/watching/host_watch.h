/* SPDX-License-Identifier: Apache-2.0
 *
 * host_watch.h - what a running host keeps to tell of itself: counters and its last commits.
 */
#ifndef TOOL_WATCHING_HOST_WATCH_H
#define TOOL_WATCHING_HOST_WATCH_H

#include <deque>
#include <string>
#include <vector>

#include "host/counters.h"
#include "host/forwarding.h"
#include "host/policy_source.h"
#include "host/routing_daemon.h"
#include "tool/commands.h"
#include "tool/watching/commit_reader.h"
#include "tool/watching/host_status.h"

namespace polctl {

class HostWatch {
 public:
  /* Both daemons must live as long. */
  HostWatch(const PolicySource& source, RoutingDaemon* routing, const ForwardingManager* manager);

  /* Notes a batch that was walked, and which users it had called back. */
  const CommitNote& note(const t_yarrow_batch* batch);

  /* What the rest of the host knows, and tells as it changes. */
  struct Told {
    std::vector<std::string> absent;
    std::vector<std::string> awaited;
    bool fetching = false;
    uint64_t document_bytes = 0;
    uint64_t routes = 0; /* that the routing daemon has */
  };
  Told told;
  Counters counters;

  HostStatus status();
  /* With their lines as far as they have been read. */
  const std::deque<CommitNote>& commits();
  const PolicySource& source() const { return source_; }
  /* One more with each batch. */
  uint64_t generation() const { return generation_; }

  /* Throws InputError. */
  void show(const ShowOptions& options, Output* out);

 private:
  const PolicySource& source_;
  RoutingDaemon* routing_;
  const ForwardingManager* manager_;
  CommitReader reader_;
  std::deque<CommitNote> commits_;
  WallTime started_;
  int64_t last_number_;
  uint64_t generation_ = 0;
  uint64_t routing_calls_ = 0; /* counted already, as are the manager's */
  uint64_t forwarding_calls_ = 0;
};

}  // namespace polctl

#endif
