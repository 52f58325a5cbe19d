/* SPDX-License-Identifier: Apache-2.0
 *
 * counters.h - what a running host counts, from its start or from when it was last cleared.
 *
 * Decisions are counted by whoever evaluates, in a record of the thread's own, and added once the
 * thread has come to an end of what it was asked: evaluation waits for nobody and shares nothing.
 *
 * Threads  add and of from any; all else belongs to the thread that runs the host.
 */
#ifndef HOST_COUNTERS_H
#define HOST_COUNTERS_H

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>

#include "config_mirror.h"

namespace polctl {

struct Decided {
  uint64_t accepted = 0;
  uint64_t rejected = 0;
};

/* What one thread had one policy decide. */
class Decisions {
 public:
  Decisions() = default;
  Decisions(const Decisions& other) : default_(other.default_), rows_(other.rows_) {}
  Decisions& operator=(const Decisions&) = delete;

  void count(bool is_default, uint32_t sequence, bool accepts) {
    Decided* row = is_default ? &default_ : row_of(sequence);
    ++(accepts ? row->accepted : row->rejected);
  }
  void add(const Decisions& other);

  const Decided& by_default() const { return default_; }
  Decided by_sequence(uint32_t sequence) const;

 private:
  // Routes come in runs that one sequence decides: the last row is found without a look-up.
  Decided* row_of(uint32_t sequence) {
    if (last_ == nullptr || sequence != last_sequence_) {
      last_ = &rows_[sequence];
      last_sequence_ = sequence;
    }
    return last_;
  }

  Decided default_;
  std::unordered_map<uint32_t, Decided> rows_;
  Decided* last_ = nullptr; /* in rows_, whose elements stay where they are */
  uint32_t last_sequence_ = 0;
};

/* How often something was done and how long it took. */
struct Timed {
  uint64_t count = 0;
  double last_ms = 0;
  double sum_ms = 0;
  double most_ms = 0;
  void add(double ms);
};

struct HostCounts {
  uint64_t commits = 0;
  uint64_t changes = 0;           /* in these commits */
  uint64_t routing_callbacks = 0; /* of control and membership policies */
  uint64_t forwarding_callbacks = 0;
  uint64_t requests = 0;        /* over the host's socket */
  uint64_t refused = 0;         /* of these, answered with what is wrong */
  Timed documents;              /* built, whether they differ or not */
  Timed rounds;                 /* a policy deciding all routes of the routing daemon */
  uint64_t answers_changed = 0; /* in these */
};

class Counters {
 public:
  using Policy = std::pair<uint32_t, std::string>; /* enum pol_kind, name */

  Counters() { clear(); }

  HostCounts host;

  void add(const Policy& policy, const Decisions& decisions);
  Decisions of(const Policy& policy) const;
  /* Forgets what policies decided that are no longer configured. */
  void keep(const ConfiguredNames& configured);

  void clear();
  /* Of the start or of the last clear; a wall clock. */
  std::chrono::system_clock::time_point since() const { return since_; }

 private:
  mutable std::mutex mutex_; /* of decisions_ */
  std::map<Policy, Decisions> decisions_;
  std::chrono::system_clock::time_point since_;
};

}  // namespace polctl

#endif
