// SPDX-License-Identifier: Apache-2.0
#include "agent/datastore.h"

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

// Makes `root` running: checks it, writes it down, keeps it as a version.
Result make_running(Datastores& stores, NodeRef root, CommitRef* record) {
  auto commit = std::make_shared<CommitRecord>();
  commit->before = stores.running();
  changes_between(commit->before, root, &commit->changes);
  if (commit->changes.empty()) return {};
  Result result = validate_changes(*stores.schema, root, commit->changes);
  if (!result.ok()) return result;
  root = kept(stores, commit->before, root, commit->changes);
  commit->after = root;
  commit->commit = stores.commit_id() + 1;
  result = journal_append(stores.journal, commit->commit, commit->changes);
  if (!result.ok()) return result;
  stores.versions.push_back({commit->commit, root});
  if (stores.versions.size() > kMaxRollback + 1) stores.versions.pop_front();
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
                       const NodeRef& edited, CommitRef* record) {
  record->reset();
  const NodeRef* root = datastore_root(stores, datastore);
  if (root == nullptr) return failed(YARROW_ERR_PROTOCOL, "no such datastore");
  NodeRef target = *root;
  Result result = rebase(base, edited, &target);
  if (!result.ok()) return result;
  if (datastore != MAAPI_OPERATIONAL) return make_running(stores, target, record);
  stores.operational = target;
  return {};
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
  if (back >= stores.versions.size()) return nullptr;
  return &stores.versions[stores.versions.size() - 1 - back].root;
}

}  // namespace agent
