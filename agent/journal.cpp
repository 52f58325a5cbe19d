// SPDX-License-Identifier: Apache-2.0
#include "agent/journal.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace agent {

namespace {

constexpr char kMagic[] = "yarrow running 1\n";
constexpr size_t kMagicSize = sizeof kMagic - 1;
constexpr size_t kRecordHead = 8;  // length, checksum
constexpr uint64_t kRewriteSlack = 4u << 20;
constexpr mode_t kPrivateFile = 0600;
constexpr mode_t kPrivateDirectory = 0700;

enum class RecordKind : uint8_t { kBase = 'B', kCommit = 'C' };

constexpr std::array<uint32_t, 256> crc_table() {
  std::array<uint32_t, 256> table = {};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t value = i;
    for (int bit = 0; bit < 8; ++bit) value = value & 1 ? 0xedb88320u ^ value >> 1 : value >> 1;
    table[i] = value;
  }
  return table;
}

uint32_t checksum(std::string_view bytes) {
  static constexpr std::array<uint32_t, 256> kTable = crc_table();
  uint32_t crc = 0xffffffffu;
  for (char byte : bytes) crc = kTable[(crc ^ static_cast<uint8_t>(byte)) & 0xff] ^ crc >> 8;
  return ~crc;
}

Result os_failure(const std::string& what) {
  return failed(YARROW_ERR_OS, what + ": " + std::generic_category().message(errno));
}

bool write_all(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t written = write(file, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

bool read_all(int file, std::string* bytes) {
  struct stat info = {};
  if (fstat(file, &info) != 0) return false;
  bytes->resize(static_cast<size_t>(info.st_size));
  size_t have = 0;
  while (have < bytes->size()) {
    ssize_t got = pread(file, bytes->data() + have, bytes->size() - have, static_cast<off_t>(have));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    have += static_cast<size_t>(got);
  }
  return true;
}

bool sync_directory(const std::string& directory) {
  int handle = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (handle < 0) return false;
  bool done = fsync(handle) == 0;
  close(handle);
  return done;
}

std::string record(RecordKind kind, uint64_t commit, const std::vector<Change>& changes) {
  yarrow::Writer out;
  out.u32(0);
  out.u32(0);
  out.u8(static_cast<uint8_t>(kind));
  out.u64(commit);
  changes_write(changes, out);
  out.patch_u32(0, static_cast<uint32_t>(out.size() - kRecordHead));
  out.patch_u32(4, checksum(std::string_view(out.bytes()).substr(kRecordHead)));
  return std::move(out.bytes());
}

// Takes the next whole record off the front; false at the end, or at a record that was cut short.
bool next_record(std::string_view* rest, std::string_view* body) {
  yarrow::Reader head(*rest);
  uint32_t length = head.u32();
  uint32_t sum = head.u32();
  if (!head.ok() || head.left() < length) return false;
  *body = rest->substr(kRecordHead, length);
  if (checksum(*body) != sum) return false;
  rest->remove_prefix(kRecordHead + length);
  return true;
}

Result read_versions(const Schema& schema, std::string_view text, std::deque<Version>* versions,
                     uint64_t* good_size) {
  if (text.substr(0, kMagicSize) != kMagic) {
    return failed(YARROW_ERR_MALFORMED, "is not a running configuration");
  }
  std::string_view rest = text.substr(kMagicSize);
  std::string_view body;
  NodeRef root = empty_tree(schema);
  while (next_record(&rest, &body)) {
    yarrow::Reader in(body);
    auto kind = static_cast<RecordKind>(in.u8());
    uint64_t commit = in.u64();
    std::vector<Change> changes;
    Result result = changes_read(schema, in, &changes);
    if (!result.ok()) return result;
    if (!in.done() || (kind == RecordKind::kBase) != versions->empty()) {
      return failed(YARROW_ERR_MALFORMED, "records out of order");
    }
    root = changes_apply(root, changes);
    versions->push_back({commit, root});
    if (versions->size() > kMaxRollback + 1) versions->pop_front();
  }
  if (versions->empty()) return failed(YARROW_ERR_MALFORMED, "its base cannot be read");
  *good_size = text.size() - rest.size();
  return {};
}

}  // namespace

Journal::~Journal() {
  if (file >= 0) close(file);
  if (lock >= 0) close(lock);
}

Result journal_open(Journal& journal, const Schema& schema, const std::string& directory,
                    std::deque<Version>* versions) {
  journal.directory = directory;
  if (directory.empty()) {
    versions->push_back({0, empty_tree(schema)});
    return {};
  }
  if (mkdir(directory.c_str(), kPrivateDirectory) != 0 && errno != EEXIST)
    return os_failure(directory);
  std::string lock_name = directory + "/lock";
  journal.lock = open(lock_name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kPrivateFile);
  if (journal.lock < 0) return os_failure(lock_name);
  if (flock(journal.lock, LOCK_EX | LOCK_NB) != 0) {
    return failed(YARROW_ERR_LOCKED, directory + ": another agent uses it");
  }
  std::string name = directory + "/running";
  journal.file = open(name.c_str(), O_RDWR | O_CLOEXEC | O_APPEND);
  if (journal.file < 0) {
    if (errno != ENOENT) return os_failure(name);
    versions->push_back({0, empty_tree(schema)});
    return journal_rewrite(journal, schema, *versions);
  }
  std::string text;
  if (!read_all(journal.file, &text)) return os_failure(name);
  Result result = read_versions(schema, text, versions, &journal.size);
  if (!result.ok()) {
    result.reason = name + ": " + result.reason;
    return result;
  }
  journal.base_size = journal.size;
  if (journal.size == text.size()) return {};
  if (ftruncate(journal.file, static_cast<off_t>(journal.size)) != 0 || fsync(journal.file) != 0) {
    return os_failure(name);
  }
  return {};
}

Result journal_append(Journal& journal, uint64_t commit, const std::vector<Change>& changes) {
  if (journal.directory.empty()) return {};
  if (journal.broken) return failed(YARROW_ERR_OS, "the running configuration cannot be written");
  std::string bytes = record(RecordKind::kCommit, commit, changes);
  if (bytes.size() - kRecordHead > UINT32_MAX) return failed(YARROW_ERR_TOOBIG, "a commit too big");
  if (write_all(journal.file, bytes) && fdatasync(journal.file) == 0) {
    journal.size += bytes.size();
    return {};
  }
  Result result = os_failure("writing the running configuration");
  // What a failed sync leaves on disk is unknown: without the cut, a restart could find a commit
  // that was refused.
  journal.broken = ftruncate(journal.file, static_cast<off_t>(journal.size)) != 0 ||
                   fdatasync(journal.file) != 0;
  return result;
}

bool journal_wants_rewrite(const Journal& journal) {
  return !journal.directory.empty() && journal.size > 2 * journal.base_size + kRewriteSlack;
}

Result journal_rewrite(Journal& journal, const Schema& schema,
                       const std::deque<Version>& versions) {
  if (journal.directory.empty()) return {};
  std::string bytes(kMagic, kMagicSize);
  NodeRef before = empty_tree(schema);
  for (const Version& version : versions) {
    std::vector<Change> changes;
    changes_between(before, version.root, &changes);
    bool is_base = &version == &versions.front();
    bytes += record(is_base ? RecordKind::kBase : RecordKind::kCommit, version.commit, changes);
    before = version.root;
  }
  std::string name = journal.directory + "/running";
  std::string aside = name + ".new";
  int file = open(aside.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_APPEND, kPrivateFile);
  if (file < 0) return os_failure(aside);
  bool done =
      write_all(file, bytes) && fsync(file) == 0 && rename(aside.c_str(), name.c_str()) == 0;
  if (!done) {
    Result result = os_failure(aside);
    close(file);
    unlink(aside.c_str());
    return result;
  }
  if (journal.file >= 0) close(journal.file);
  journal.file = file;
  journal.size = journal.base_size = bytes.size();
  journal.broken = !sync_directory(journal.directory);
  return {};
}

}  // namespace agent
