// SPDX-License-Identifier: Apache-2.0
//
// The running configuration on disk.
//
// One file, "running", of records: a base (a whole configuration, as changes from nothing) and then
// one record for each commit after it. A commit is acknowledged once its record is on disk, so its
// cost is that of what it changes. From time to time the file is written anew: the new one is
// written aside, synced, and renamed over the old one, with the oldest configuration that rollback
// can still reach as its base. A record that was being written when the agent died is recognised by
// its checksum, and cut off; it was never acknowledged.
#ifndef AGENT_JOURNAL_H
#define AGENT_JOURNAL_H

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "agent/changes.h"

namespace agent {

constexpr size_t kMaxRollback = 50;

// One configuration that was running once.
struct Version {
  uint64_t commit = 0;
  NodeRef root;
};

struct Journal {
  std::string directory;  // empty: nothing is kept
  int file = -1;
  int lock = -1;
  uint64_t size = 0;       // of the file
  uint64_t base_size = 0;  // when it was last written anew
  bool broken = false;     // a write failed and could not be taken back

  Journal() = default;
  ~Journal();
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;
};

// Opens the directory for this process alone, made if need be, and reads the last versions, oldest
// first, at most kMaxRollback + 1 and at least one.
Result journal_open(Journal& journal, const Schema& schema, const std::string& directory,
                    std::deque<Version>* versions);

// Puts a commit on disk. On failure nothing of it is there.
Result journal_append(Journal& journal, uint64_t commit, const std::vector<Change>& changes);

// Whether the file has grown so much that it is worth writing anew.
bool journal_wants_rewrite(const Journal& journal);

// Writes the file anew with these versions. On failure the old one stays.
Result journal_rewrite(Journal& journal, const Schema& schema, const std::deque<Version>& versions);

}  // namespace agent
#endif
