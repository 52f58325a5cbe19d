// SPDX-License-Identifier: Apache-2.0
#include "agent/datastore.h"

#include <algorithm>
#include <ctime>

#include "agent/clock.h"
#include "agent/rebase.h"
#include "agent/validate.h"
#include "platform/service/log.h"

namespace agent {

namespace {

// Changes from which on it pays to look for lists that older versions had.
constexpr size_t kManyChanges = 256;

// A version's tree as it is kept.
NodeRef kept(Datastores& stores, const NodeRef& before, const NodeRef& root,
             const std::vector<Change>& changes) {
  return changes.size() < kManyChanges ? root : pooled(stores.pool, before, root);
}

// When what waits is taken back, by the steady clock, which nobody turns: the time that is left by the
// wall clock, but no more than there was at first.
void settle_deadline(Datastores& stores, int64_t since) {
  size_t waiting = versions_waiting(stores.versions);
  if (waiting == 0) {
    stores.confirm_by = 0;
    return;
  }
  const int64_t deadline = stores.versions[waiting].note.deadline;
  const int64_t most = std::max<int64_t>(deadline - since, 0);
  stores.confirm_by = now_ms() + 1000 * std::clamp<int64_t>(deadline - time(nullptr), 0, most);
}

// Makes `root` running: checks it, writes it down, keeps it as a version.
Result make_running(Datastores& stores, NodeRef root, CommitNote note, CommitRef* record) {
  auto commit = std::make_shared<CommitRecord>();
  commit->before = stores.running();
  changes_between(commit->before, root, &commit->changes);
  if (commit->changes.empty()) return {};
  Result result = validate_changes(*stores.schema, root, commit->changes);
  if (!result.ok()) return result;
  root = kept(stores, commit->before, root, commit->changes);
  commit->after = root;
  commit->commit = stores.commit_id() + 1;
  note.time = time(nullptr);
  result = journal_append(stores.journal, commit->commit, commit->changes, note);
  if (!result.ok()) return result;
  versions_add(stores.versions, {commit->commit, root, note});
  if (note.confirm != Confirm::kLeaves) settle_deadline(stores, note.time);
  *record = std::move(commit);
  return {};
}

}  // namespace

Result datastores_open(Datastores& stores, const Schema& schema,
                       const std::optional<std::string>& directory, OnDamage on_damage) {
  stores.schema = &schema;
  Result result = journal_open(stores.journal, schema, directory, on_damage, &stores.versions);
  if (!result.ok()) return result;
  NodeRef before = empty_tree(schema);
  for (Version& version : stores.versions) {
    std::vector<Change> changes;
    changes_between(before, version.root, &changes);
    before = version.root = kept(stores, before, version.root, changes);
  }
  stores.operational = empty_tree(schema);
  size_t waiting = versions_waiting(stores.versions);
  if (waiting > 0) settle_deadline(stores, stores.versions[waiting].note.time);
  return {};
}

void datastores_tidy(Datastores& stores) {
  if (!journal_wants_rewrite(stores.journal)) return;
  uint64_t before = stores.journal.size;
  Result result = journal_rewrite(stores.journal, *stores.schema, stores.versions);
  if (result.ok()) {
    service::log_line(
        service::LogLevel::kInfo, "the journal is written anew",
        {{"commit", stores.commit_id()}, {"before", before}, {"bytes", stores.journal.size}});
    return;
  }
  // All commits stand in the old file: failing to shorten it loses nothing.
  service::log_line(service::LogLevel::kWarning, "the journal cannot be written anew and grows on",
                    {{"commit", stores.commit_id()}, {"bytes", before}, {"reason", result.reason}});
}

const NodeRef* datastore_root(const Datastores& stores, int datastore) {
  switch (datastore) {
    case MAAPI_CANDIDATE:
    case MAAPI_RUNNING:
      return &stores.running();
    case MAAPI_OPERATIONAL:
      return &stores.operational;
    default:
      return nullptr;
  }
}

Result datastore_apply(Datastores& stores, int datastore, const NodeRef& base,
                       const NodeRef& edited, const CommitNote& note, CommitRef* record) {
  record->reset();
  const NodeRef* root = datastore_root(stores, datastore);
  if (root == nullptr) return failed(YARROW_ERR_PROTOCOL, "no such datastore");
  NodeRef target = *root;
  Result result = rebase(base, edited, &target);
  if (!result.ok()) return result;
  if (datastore != MAAPI_OPERATIONAL) return make_running(stores, target, note, record);
  stores.operational = target;
  return {};
}

Result datastore_confirm(Datastores& stores, CommitNote note) {
  note.time = time(nullptr);
  Result result = journal_confirm(stores.journal, stores.commit_id(), note);
  if (!result.ok()) return result;
  versions_settle(stores.versions, note);
  settle_deadline(stores, note.time);
  return {};
}

Result datastore_take_back(Datastores& stores, CommitRef* record) {
  record->reset();
  const size_t waiting = versions_waiting(stores.versions);
  if (waiting == 0) return {};
  size_t last = waiting;
  for (size_t i = waiting; i < stores.versions.size(); ++i) {
    if (stores.versions[i].note.confirm == Confirm::kUntil) last = i;
  }
  const NodeRef before = stores.versions[waiting - 1].root;
  CommitNote note;
  note.user = "yarrowd";
  note.comment =
      "commit " + std::to_string(stores.versions[waiting].commit) + " was not confirmed in time";
  note.confirm = Confirm::kConfirms;
  NodeRef target = stores.running();
  Result result = rebase(stores.versions[last].root, before, &target);
  if (result.ok()) result = make_running(stores, target, note, record);
  // What others committed since does not go with it: then they lose that.
  if (!result.ok() && result.error == YARROW_ERR_INVALID) {
    result = make_running(stores, before, note, record);
  }
  if (result.ok() && !*record) result = datastore_confirm(stores, note);
  return result;
}

Result datastore_validate(const Datastores& stores, const NodeRef& base, const NodeRef& edited) {
  NodeRef target = stores.running();
  Result result = rebase(base, edited, &target);
  if (!result.ok()) return result;
  std::vector<Change> changes;
  changes_between(stores.running(), target, &changes);
  return validate_changes(*stores.schema, target, changes);
}

const NodeRef* datastore_version(const Datastores& stores, unsigned back) {
  if (back >= stores.versions.size() || back > kMaxRollback) return nullptr;
  return &stores.versions[stores.versions.size() - 1 - back].root;
}

}  // namespace agent
