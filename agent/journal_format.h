// SPDX-License-Identifier: Apache-2.0
//
// What stands in the file of the running configuration, and how far it can be trusted.
//
// A line that names the format, then records: a length and a CRC-32 (4 bytes each, of the body), and
// the body: its kind, the number of its commit (8 bytes), its note, its changes. The first record is a
// base, a whole configuration as changes from nothing; each one after it is the next commit, or says
// what becomes of one that waits to be confirmed. The first format had no notes; it is still read.
//
// A base comes to be by a rename and a commit is synced before the next begins. So what a crash can
// leave is one torn record at the very end. Anything else that does not read is damage: by a disk,
// by hand, by a program other than this one.
#ifndef AGENT_JOURNAL_FORMAT_H
#define AGENT_JOURNAL_FORMAT_H

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "agent/changes.h"

namespace agent {

constexpr size_t kMaxRollback = 50;

// What a commit does to one that waits to be confirmed.
enum class Confirm : uint8_t {
  kLeaves,    // nothing
  kUntil,     // it waits itself, and with it all that waited already, until the deadline
  kConfirms,  // ends the waiting
};

// Who made a commit, when and why.
struct CommitNote {
  int64_t time = 0;  // seconds of the wall clock; 0: not known
  std::string user, client, comment;
  Confirm confirm = Confirm::kLeaves;
  int64_t deadline = 0;  // of kUntil, as `time`
};

// One configuration that was running once. Of those that are kept the ones with kUntil in their note
// wait to be confirmed; the one before the first of them is kept as long.
struct Version {
  uint64_t commit = 0;
  NodeRef root;
  CommitNote note = {};
};

// Adds a version, forgets the oldest that nothing needs, and does what its note says to those that wait.
void versions_add(std::deque<Version>& versions, Version version);

// Does what a note says to those that wait, where no version goes with it.
void versions_settle(std::deque<Version>& versions, const CommitNote& note);

// The place of the first version that waits; 0 for none.
size_t versions_waiting(const std::deque<Version>& versions);

struct JournalContent {
  enum class End : uint8_t {
    kWhole,
    kTorn,     // the last record was not written to its end
    kDamaged,  // before or in whole records
    kForeign,  // not a file of this format
  };
  End end = End::kWhole;
  std::string fault;             // what is wrong at good_size
  bool is_old = false;           // of the format without notes: to be written anew, not added to
  std::deque<Version> versions;  // the last ones before the fault, oldest first; maybe none
  uint64_t good_size = 0;        // everything before it was read
  uint64_t base_size = 0;        // of the first line and the base
  std::deque<uint64_t> commit_sizes;  // of the last kMaxRollback commits' records
};

JournalContent journal_read(const Schema& schema, std::string_view bytes);

// The first line and a base.
std::string journal_base(const Schema& schema, const Version& version);

std::string journal_commit(uint64_t commit, const std::vector<Change>& changes,
                           const CommitNote& note = {});

// What becomes of those that wait to be confirmed, said after this commit.
std::string journal_confirmation(uint64_t commit, const CommitNote& note);

// Puts the length and the checksum of what follows into the first 8 bytes.
void journal_seal(yarrow::Writer& record);

}  // namespace agent
#endif
