// SPDX-License-Identifier: Apache-2.0
//
// The running configuration on disk: the file "running" of the state directory.
//
// A commit is acknowledged once its record is on disk, so its cost is that of what it changes. From
// time to time the file is written anew: aside, synced, renamed over the old one, with the oldest
// configuration that rollback can still reach as its base. So at any moment the file is whole but
// for a record on its way, and a copy of it is a backup.
//
// A torn record at the end was never acknowledged: a start cuts it off. Before any other damage a
// start ends, and nothing is written, until the operator says what is to become of it.
#ifndef AGENT_JOURNAL_H
#define AGENT_JOURNAL_H

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "agent/journal_format.h"
#include "agent/state_dir.h"
#include "platform/service/log.h"

namespace agent {

constexpr uint64_t kMaxJournal = 1u << 30;    // bytes of a file
constexpr uint64_t kRewriteSlack = 4u << 20;  // that it may outgrow twice what is needed

struct Journal {
  StateDir dir;  // not open: nothing is kept
  int file = -1;
  uint64_t size = 0;                  // of the file
  uint64_t base_size = 0;             // of its base
  std::deque<uint64_t> commit_sizes;  // of its last kMaxRollback commits
  uint64_t quiet_until = 0;           // not written anew below this size
  uint64_t slack = kRewriteSlack;
  uint64_t limit = kMaxJournal;
  bool broken = false;  // a write failed and could not be taken back
  service::LogBurst failures;

  Journal() = default;
  ~Journal();
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;
};

enum class OnDamage : uint8_t {
  kRefuse,
  kRecover,  // keep the file under another name, go on from its last good commit
};

// Opens the directory for this process alone, made if need be, and reads the last versions, oldest
// first, at most kMaxRollback + 1 and at least one. Without a directory nothing is kept.
Result journal_open(Journal& journal, const Schema& schema,
                    const std::optional<std::string>& directory, OnDamage on_damage,
                    std::deque<Version>* versions);

// Puts a commit on disk. On failure nothing of it is there.
Result journal_append(Journal& journal, uint64_t commit, const std::vector<Change>& changes,
                      const CommitNote& note = {});

// The same of what becomes of those that wait to be confirmed, after this commit.
Result journal_confirm(Journal& journal, uint64_t commit, const CommitNote& note);

// Whether the file has grown so much that it is worth writing anew.
bool journal_wants_rewrite(const Journal& journal);

// Writes the file anew with these versions; where all would take half of the limit with the last one
// alone, or, as long as one waits to be confirmed, from the one before that on. On failure the old file stays, and is not tried again before it has grown.
Result journal_rewrite(Journal& journal, const Schema& schema, const std::deque<Version>& versions);

// What a start would find in the directory, as a line for the operator; nothing is written. Not ok
// when the start would end.
Result journal_check(const Schema& schema, const std::string& directory, std::string* report);

// Copies the whole records of the directory's file, which an agent may be using, to a new file.
Result journal_backup(const Schema& schema, const std::string& directory, const std::string& file,
                      std::string* report);

// Puts a backup in the place of the directory's file, which is kept under another name.
Result journal_restore(const Schema& schema, const std::string& directory, const std::string& file,
                       std::string* report);

}  // namespace agent
#endif
