// SPDX-License-Identifier: Apache-2.0
//
// The datastores that all sessions share, and what becomes of edits of them. Candidates are private
// to their sessions.
#ifndef AGENT_DATASTORE_H
#define AGENT_DATASTORE_H

#include <deque>
#include <memory>
#include <vector>

#include "agent/journal.h"
#include "agent/list_pool.h"
#include "yarrow/yarrow_maapi.h"

namespace agent {

// A commit as subscribers are told of it.
struct CommitRecord {
  uint64_t commit = 0;
  NodeRef before, after;
  std::vector<Change> changes;
};
using CommitRef = std::shared_ptr<const CommitRecord>;

struct Datastores {
  const Schema* schema = nullptr;
  Journal journal;
  std::deque<Version> versions;  // oldest first; the last is running
  NodeRef operational;
  int64_t confirm_by = 0;  // milliseconds of the steady clock; 0: nothing waits to be confirmed
  ListPool pool;           // of the versions' lists

  const NodeRef& running() const { return versions.back().root; }
  uint64_t commit_id() const { return versions.back().commit; }
};

Result datastores_open(Datastores& stores, const Schema& schema,
                       const std::optional<std::string>& directory, OnDamage on_damage);

// Shortens the file on disk when that is due. Takes as long as writing the whole configuration: to
// be called when no client waits.
void datastores_tidy(Datastores& stores);

// The tree of a datastore by its number, the candidate's as it is before any edit; null for a number
// that has none.
const NodeRef* datastore_root(const Datastores& stores, int datastore);

// Brings what turned `base` into `edited` into running or operational, or refuses it with the paths
// of conflicts. For running this is a commit with that note, but for its time: checked, written to
// disk, its record handed out; `record` is null if nothing changed, and then what the note says of
// those that wait to be confirmed is not done either.
Result datastore_apply(Datastores& stores, int datastore, const NodeRef& base,
                       const NodeRef& edited, const CommitNote& note, CommitRef* record);

// Does what a note says of those that wait to be confirmed, without a commit.
Result datastore_confirm(Datastores& stores, CommitNote note);

// Takes back what waited to be confirmed: its changes alone where that goes, else running becomes
// what it was before. To be called once `confirm_by` is over.
Result datastore_take_back(Datastores& stores, CommitRef* record);

// Whether a commit of what turned `base` into `edited` would be taken.
Result datastore_validate(const Datastores& stores, const NodeRef& base, const NodeRef& edited);

// Running of `back` commits ago; null if so many are not kept.
const NodeRef* datastore_version(const Datastores& stores, unsigned back);

}  // namespace agent
#endif
