// SPDX-License-Identifier: Apache-2.0
#include "agent/journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>

namespace agent {

namespace {

constexpr char kRunning[] = "running";

using End = JournalContent::End;

std::string bytes_text(uint64_t count) { return std::to_string(count) + " bytes"; }

std::string last_good(const JournalContent& content) {
  if (content.versions.empty()) return "no commit before it can be read";
  return "the last good commit is " + std::to_string(content.versions.back().commit);
}

bool is_damaged(const JournalContent& content) {
  return content.end == End::kDamaged || content.end == End::kForeign;
}

// What is wrong with a file that is damaged or none of ours.
Result damage(const std::string& name, const JournalContent& content) {
  if (content.end == End::kForeign) {
    return failed(YARROW_ERR_MALFORMED, name + ": " + content.fault);
  }
  return failed(YARROW_ERR_MALFORMED, name + ": damaged at byte " +
                                          std::to_string(content.good_size) + ": " + content.fault +
                                          "; " + last_good(content));
}

// The same for the file of a directory, with what an operator can do.
Result damage_in_place(const StateDir& dir, const JournalContent& content) {
  Result result = damage(dir.path(kRunning), content);
  if (!content.versions.empty()) result.reason += "; --recover goes on from it";
  result.reason += "; --restore takes a backup";
  return result;
}

Result cut_tail(Journal& journal, const JournalContent& content, uint64_t file_size) {
  bool done = ftruncate(journal.file, static_cast<off_t>(content.good_size)) == 0 &&
              fsync(journal.file) == 0;
  if (!done) return os_failure(journal.dir.path(kRunning));
  service::log_line(service::LogLevel::kWarning, "a torn record is cut off",
                    {{"file", journal.dir.path(kRunning)},
                     {"offset", content.good_size},
                     {"bytes", file_size - content.good_size},
                     {"reason", content.fault},
                     {"commit", content.versions.back().commit}});
  return {};
}

Result recover(Journal& journal, const Schema& schema, const JournalContent& content,
               uint64_t file_size) {
  std::string kept;
  Result result = state_file_keep(journal.dir, kRunning, "damaged", &kept);
  if (result.ok()) result = journal_rewrite(journal, schema, content.versions);
  if (result.ok()) result = state_dir_sync(journal.dir);
  if (!result.ok()) return result;
  service::log_line(service::LogLevel::kWarning, "recovered: commits after this one are given up",
                    {{"commit", content.versions.back().commit},
                     {"kept", kept},
                     {"offset", content.good_size},
                     {"bytes", file_size - content.good_size},
                     {"reason", content.fault}});
  return {};
}

std::string outgrown(const Journal& journal) {
  return journal.dir.path(kRunning) + ": it would outgrow " + bytes_text(journal.limit);
}

// Makes sure that the file ends where the last acknowledged commit does, and is found by its name.
bool repair(Journal& journal) {
  journal.broken = ftruncate(journal.file, static_cast<off_t>(journal.size)) != 0 ||
                   fdatasync(journal.file) != 0 || !state_dir_sync(journal.dir).ok();
  return !journal.broken;
}

// The versions from `first` on as a file, and the sizes in it; given up once beyond `limit`.
std::string written_anew(const Schema& schema, const std::deque<Version>& versions, size_t first,
                         uint64_t limit, Journal* sizes) {
  std::string bytes = journal_base(schema, versions[first]);
  sizes->base_size = bytes.size();
  sizes->commit_sizes.clear();
  for (size_t i = first + 1; i < versions.size() && bytes.size() <= limit; ++i) {
    std::vector<Change> changes;
    changes_between(versions[i - 1].root, versions[i].root, &changes);
    std::string commit = journal_commit(versions[i].commit, changes, versions[i].note);
    sizes->commit_sizes.push_back(commit.size());
    bytes += commit;
  }
  return bytes;
}

// Reads the directory's file, if there is one, and what is in it.
Result read_running(const Schema& schema, int flags, Journal& journal, std::string* bytes,
                    JournalContent* content) {
  Result result = state_file_open(journal.dir, kRunning, flags, &journal.file);
  if (!result.ok() || journal.file < 0) return result;
  result = file_read(journal.file, journal.dir.path(kRunning), kMaxJournal, bytes);
  if (result.ok()) *content = journal_read(schema, *bytes);
  return result;
}

// The same for those who want nothing but to read. Not ok unless a start would go well.
Result read_for_report(const Schema& schema, const std::string& directory, Journal& journal,
                       std::string* bytes, JournalContent* content, bool* in_use) {
  Result result = state_dir_open(journal.dir, directory, false);
  // Before the reading: an agent that begins later cannot have a record on its way yet.
  *in_use = result.ok() && state_dir_is_locked(journal.dir);
  if (result.ok()) result = read_running(schema, O_RDONLY, journal, bytes, content);
  if (!result.ok()) return result;
  const std::string name = journal.dir.path(kRunning);
  if (journal.file < 0) {
    return failed(YARROW_ERR_NOEXISTS, name + ": no such file: a start would begin empty");
  }
  return is_damaged(*content) ? damage_in_place(journal.dir, *content) : Result{};
}

// The name of a new file survives a crash once its directory is synced. False with errno.
bool sync_directory_of(const std::string& file) {
  size_t slash = file.rfind('/');
  std::string directory = slash == std::string::npos ? "." : file.substr(0, slash + 1);
  int handle = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  bool done = handle >= 0 && fsync(handle) == 0;
  int error = errno;
  if (handle >= 0) close(handle);
  errno = error;
  return done;
}

}  // namespace

Journal::~Journal() {
  if (file >= 0) close(file);
}

Result journal_open(Journal& journal, const Schema& schema,
                    const std::optional<std::string>& directory, OnDamage on_damage,
                    std::deque<Version>* versions) {
  versions->assign({{0, empty_tree(schema)}});
  if (!directory) return {};
  Result result = state_dir_open(journal.dir, *directory, true);
  if (result.ok()) result = state_dir_lock(journal.dir);
  std::string bytes;
  JournalContent content;
  if (result.ok()) result = read_running(schema, O_RDWR | O_APPEND, journal, &bytes, &content);
  if (!result.ok()) return result;
  if (journal.file < 0) {
    service::log_line(service::LogLevel::kNotice,
                      "nothing is kept yet: the configuration begins empty",
                      {{"directory", *directory}});
    return journal_rewrite(journal, schema, *versions);
  }
  if (is_damaged(content) && (on_damage == OnDamage::kRefuse || content.versions.empty())) {
    return damage_in_place(journal.dir, content);
  }
  *versions = content.versions;
  if (is_damaged(content)) return recover(journal, schema, content, bytes.size());
  journal.size = content.good_size;
  journal.base_size = content.base_size;
  journal.commit_sizes = std::move(content.commit_sizes);
  if (content.end == End::kTorn) result = cut_tail(journal, content, bytes.size());
  if (!result.ok() || !content.is_old) return result;
  // Whoever reads that format would take records with notes for damage.
  service::log_line(service::LogLevel::kNotice, "the journal of an older format is written anew",
                    {{"file", journal.dir.path(kRunning)}, {"commit", versions->back().commit}});
  return journal_rewrite(journal, schema, *versions);
}

namespace {

// Adds a record that belongs to `commit`.
Result append_record(Journal& journal, uint64_t commit, const std::string& bytes) {
  if (journal.dir.handle < 0) return {};
  const std::string name = journal.dir.path(kRunning);
  if (journal.broken) {
    if (!repair(journal)) return os_failure(name);
    service::log_line(service::LogLevel::kNotice, "the running configuration can be written again",
                      {{"file", name}});
  }
  if (journal.size + bytes.size() > journal.limit) {
    return failed(YARROW_ERR_TOOBIG, outgrown(journal));
  }
  if (file_write(journal.file, bytes) && fdatasync(journal.file) == 0) {
    journal.size += bytes.size();
    return {};
  }
  Result result = os_failure(name);
  // What a failed sync leaves on disk is unknown: without the cut, a restart could find a commit
  // that was refused.
  const char* what =
      repair(journal)
          ? "a commit cannot be written: the file is as it was before"
          : "a commit cannot be written nor taken back: none can, until the disk recovers";
  service::log_burst(journal.failures, service::LogLevel::kError, what,
                     {{"commit", commit}, {"reason", result.reason}});
  return result;
}

}  // namespace

Result journal_append(Journal& journal, uint64_t commit, const std::vector<Change>& changes,
                      const CommitNote& note) {
  if (journal.dir.handle < 0) return {};
  const std::string bytes = journal_commit(commit, changes, note);
  Result result = append_record(journal, commit, bytes);
  if (!result.ok()) return result;
  journal.commit_sizes.push_back(bytes.size());
  if (journal.commit_sizes.size() > kMaxRollback) journal.commit_sizes.pop_front();
  return {};
}

Result journal_confirm(Journal& journal, uint64_t commit, const CommitNote& note) {
  return append_record(journal, commit, journal_confirmation(commit, note));
}

bool journal_wants_rewrite(const Journal& journal) {
  if (journal.dir.handle < 0 || journal.size < journal.quiet_until) return false;
  // What the file written anew would have: alike after a restart, whatever the file has grown to.
  uint64_t needed =
      std::accumulate(journal.commit_sizes.begin(), journal.commit_sizes.end(), journal.base_size);
  return journal.size > std::min(2 * needed + journal.slack, journal.limit / 2);
}

Result journal_rewrite(Journal& journal, const Schema& schema,
                       const std::deque<Version>& versions) {
  if (journal.dir.handle < 0) return {};
  const std::string name = journal.dir.path(kRunning);
  Journal fresh;
  uint64_t half = journal.limit / 2;
  std::string bytes = written_anew(schema, versions, 0, half, &fresh);
  if (bytes.size() > half) {
    size_t waiting = versions_waiting(versions);
    bytes = written_anew(schema, versions, waiting > 0 ? waiting - 1 : versions.size() - 1, half,
                         &fresh);
  }
  Result result = bytes.size() <= journal.limit
                      ? state_file_replace(journal.dir, kRunning, bytes, &fresh.file)
                      : failed(YARROW_ERR_TOOBIG, outgrown(journal));
  if (result.ok()) {
    std::swap(journal.file, fresh.file);
    journal.size = bytes.size();
    journal.base_size = fresh.base_size;
    journal.commit_sizes = std::move(fresh.commit_sizes);
    journal.broken = !state_dir_sync(journal.dir).ok();
  }
  journal.quiet_until = journal.size + std::max(journal.size / 4, journal.slack);
  return result;
}

Result journal_check(const Schema& schema, const std::string& directory, std::string* report) {
  Journal journal;
  std::string bytes;
  JournalContent content;
  bool in_use = false;
  Result result = read_for_report(schema, directory, journal, &bytes, &content, &in_use);
  if (!result.ok()) return result;
  *report = journal.dir.path(kRunning) + ": ";
  if (content.end == End::kWhole) {
    *report += "whole, " + bytes_text(bytes.size());
  } else if (in_use) {
    *report += "whole but for a record on its way at byte " + std::to_string(content.good_size);
  } else {
    *report += "the last record, at byte " + std::to_string(content.good_size) +
               ", is torn: " + content.fault + "; a start cuts off its " +
               bytes_text(bytes.size() - content.good_size);
  }
  *report += "; " + last_good(content);
  if (in_use) *report += "; an agent uses it";
  return {};
}

Result journal_backup(const Schema& schema, const std::string& directory, const std::string& file,
                      std::string* report) {
  Journal journal;
  std::string bytes;
  JournalContent content;
  bool in_use = false;
  Result result = read_for_report(schema, directory, journal, &bytes, &content, &in_use);
  if (!result.ok()) return result;
  int copy = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (copy < 0) return os_failure(file);
  bytes.resize(content.good_size);
  if (!file_write(copy, bytes) || fsync(copy) != 0 || !sync_directory_of(file)) {
    result = os_failure(file);
    unlink(file.c_str());
  }
  close(copy);
  *report = file + ": " + bytes_text(bytes.size()) + "; the last commit is " +
            std::to_string(content.versions.back().commit);
  return result;
}

Result journal_restore(const Schema& schema, const std::string& directory, const std::string& file,
                       std::string* report) {
  int backup = open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (backup < 0) return os_failure(file);
  std::string bytes;
  Result result = file_read(backup, file, kMaxJournal, &bytes);
  close(backup);
  if (!result.ok()) return result;
  JournalContent content = journal_read(schema, bytes);
  // A copy of a file in use may end in a record that was on its way.
  if (is_damaged(content)) return damage(file, content);
  Journal journal;
  result = state_dir_open(journal.dir, directory, true);
  if (result.ok()) result = state_dir_lock(journal.dir);
  if (result.ok()) result = state_file_open(journal.dir, kRunning, O_RDONLY, &journal.file);
  if (!result.ok()) return result;
  std::string kept;
  if (journal.file >= 0) result = state_file_keep(journal.dir, kRunning, "replaced", &kept);
  if (result.ok()) result = journal_rewrite(journal, schema, content.versions);
  if (result.ok()) result = state_dir_sync(journal.dir);
  if (!result.ok()) return result;
  *report = journal.dir.path(kRunning) + ": restored, commit " +
            std::to_string(content.versions.back().commit);
  if (!kept.empty()) *report += "; what was there is kept as " + kept;
  return {};
}

}  // namespace agent
