// SPDX-License-Identifier: Apache-2.0
#include "agent/datastore.h"

#include "agent/log.h"
#include "agent/validate.h"

namespace agent {

namespace {

// Makes `root` running: checks it, writes it down, keeps it as a version.
Result make_running(Datastores& stores, const NodeRef& root, CommitRef* record) {
  auto commit = std::make_shared<CommitRecord>();
  commit->before = stores.running();
  changes_between(commit->before, root, &commit->changes);
  if (commit->changes.empty()) return {};
  Result result = validate_changes(*stores.schema, root, commit->changes);
  if (!result.ok()) return result;
  commit->after = root;
  commit->commit = stores.commit_id() + 1;
  result = journal_append(stores.journal, commit->commit, commit->changes);
  if (!result.ok()) return result;
  stores.versions.push_back({commit->commit, root});
  if (stores.versions.size() > kMaxRollback + 1) stores.versions.pop_front();
  *record = std::move(commit);
  return {};
}

NodeRef carried_over(const NodeRef& target, const NodeRef& base, const NodeRef& edited) {
  if (target == base) return edited;
  std::vector<Change> changes;
  changes_between(base, edited, &changes);
  return changes_apply(target, changes);
}

}  // namespace

Result datastores_open(Datastores& stores, const Schema& schema,
                       const std::optional<std::string>& directory, OnDamage on_damage) {
  stores.schema = &schema;
  Result result = journal_open(stores.journal, schema, directory, on_damage, &stores.versions);
  if (!result.ok()) return result;
  stores.candidate = stores.running();
  stores.operational = empty_tree(schema);
  return {};
}

void datastores_tidy(Datastores& stores) {
  if (!journal_wants_rewrite(stores.journal)) return;
  uint64_t before = stores.journal.size;
  Result result = journal_rewrite(stores.journal, *stores.schema, stores.versions);
  if (result.ok()) {
    log_line(LogLevel::kInfo, "the journal is written anew",
             {{"commit", stores.commit_id()}, {"before", before}, {"bytes", stores.journal.size}});
    return;
  }
  // All commits stand in the old file: failing to shorten it loses nothing.
  log_line(LogLevel::kWarning, "the journal cannot be written anew and grows on",
           {{"commit", stores.commit_id()}, {"bytes", before}, {"reason", result.reason}});
}

const NodeRef* datastore_root(const Datastores& stores, int datastore) {
  switch (datastore) {
    case MAAPI_CANDIDATE:
      return &stores.candidate;
    case MAAPI_RUNNING:
      return &stores.running();
    case MAAPI_OPERATIONAL:
      return &stores.operational;
    default:
      return nullptr;
  }
}

Result datastore_apply(Datastores& stores, int datastore, const NodeRef& base,
                       const NodeRef& edited, CommitRef* record) {
  record->reset();
  const NodeRef* root = datastore_root(stores, datastore);
  if (root == nullptr) return failed(YARROW_ERR_PROTOCOL, "no such datastore");
  NodeRef result = carried_over(*root, base, edited);
  if (datastore == MAAPI_CANDIDATE) {
    stores.candidate = result;
  } else if (datastore == MAAPI_OPERATIONAL) {
    stores.operational = result;
  } else {
    NodeRef before = stores.running();
    Result committed = make_running(stores, result, record);
    // The candidate keeps its own edits on top of the new running.
    if (committed.ok()) stores.candidate = carried_over(stores.candidate, before, stores.running());
    return committed;
  }
  return {};
}

Result datastore_validate(const Datastores& stores, const NodeRef& root) {
  std::vector<Change> changes;
  changes_between(stores.running(), root, &changes);
  return validate_changes(*stores.schema, root, changes);
}

Result datastore_commit(Datastores& stores, CommitRef* record) {
  record->reset();
  Result result = make_running(stores, stores.candidate, record);
  if (result.ok()) stores.candidate = stores.running();
  return result;
}

Result datastore_rollback(Datastores& stores, unsigned back) {
  if (back >= stores.versions.size()) {
    return failed(YARROW_ERR_NOEXISTS,
                  "no configuration of " + std::to_string(back) + " commits ago");
  }
  stores.candidate = stores.versions[stores.versions.size() - 1 - back].root;
  return {};
}

}  // namespace agent
