// SPDX-License-Identifier: Apache-2.0
#include "agent/journal_format.h"

#include <array>

namespace agent {

namespace {

constexpr std::string_view kMagic = "yarrow running 2\n";
constexpr std::string_view kMagicWithoutNotes = "yarrow running 1\n";
constexpr std::string_view kMagicOfAnyFormat = "yarrow running ";
constexpr size_t kRecordHead = 8;
constexpr size_t kMinBody = 13;  // kind, commit, a count of no changes
constexpr uint64_t kMaxCommit = INT64_MAX - 1;

enum class RecordKind : uint8_t { kBase = 'B', kCommit = 'C', kConfirmation = 'K' };

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

void note_write(const CommitNote& note, yarrow::Writer& out) {
  out.u64(static_cast<uint64_t>(note.time));
  out.text(note.user);
  out.text(note.client);
  out.text(note.comment);
  out.u8(static_cast<uint8_t>(note.confirm));
  out.u64(static_cast<uint64_t>(note.deadline));
}

bool note_read(yarrow::Reader& in, CommitNote* note) {
  note->time = static_cast<int64_t>(in.u64());
  note->user = in.text();
  note->client = in.text();
  note->comment = in.text();
  note->confirm = static_cast<Confirm>(in.u8());
  note->deadline = static_cast<int64_t>(in.u64());
  return in.ok() && note->confirm <= Confirm::kConfirms;
}

std::string record(RecordKind kind, uint64_t commit, const std::vector<Change>& changes,
                   const CommitNote& note) {
  yarrow::Writer out;
  out.u32(0);
  out.u32(0);
  out.u8(static_cast<uint8_t>(kind));
  out.u64(commit);
  note_write(note, out);
  changes_write(changes, out);
  journal_seal(out);
  return std::move(out.bytes());
}

// The body of the whole record at the front of `bytes`; null with what is wrong.
const char* whole_record(std::string_view bytes, std::string_view* body) {
  yarrow::Reader head(bytes);
  uint32_t length = head.u32();
  uint32_t sum = head.u32();
  if (!head.ok() || head.left() < length) return "it is cut short";
  // Zeros would pass for an empty record.
  if (length < kMinBody) return "its length is wrong";
  *body = bytes.substr(kRecordHead, length);
  return checksum(*body) == sum ? nullptr : "its checksum is wrong";
}

// Whether the write of one record, had it not come to its end, could have left these bytes: some of
// it, or room for it that was never filled.
bool could_be_torn(std::string_view bytes) {
  yarrow::Reader head(bytes);
  uint32_t length = head.u32();
  if (bytes.size() <= kRecordHead || length >= bytes.size() - kRecordHead) return true;
  return bytes.find_first_not_of('\0', kRecordHead) == std::string_view::npos;
}

// Where the first whole record begins at or after `from`; npos without one.
size_t find_whole_record(std::string_view bytes, size_t from) {
  for (size_t at = from; at + kRecordHead + kMinBody <= bytes.size(); ++at) {
    auto kind = static_cast<RecordKind>(bytes[at + kRecordHead]);
    if (kind != RecordKind::kBase && kind != RecordKind::kCommit &&
        kind != RecordKind::kConfirmation) {
      continue;
    }
    std::string_view body;
    if (whole_record(bytes.substr(at), &body) == nullptr) return at;
  }
  return std::string_view::npos;
}

std::string out_of_place(uint64_t commit, uint64_t expected) {
  return "it is commit " + std::to_string(commit) + " where commit " + std::to_string(expected) +
         " belongs";
}

// Adds the version that a record's body leads to; otherwise says what is wrong with it.
std::string add_version(const Schema& schema, std::string_view body, JournalContent* content) {
  yarrow::Reader in(body);
  auto kind = static_cast<RecordKind>(in.u8());
  uint64_t commit = in.u64();
  bool is_first = content->versions.empty();
  bool confirms = kind == RecordKind::kConfirmation && !is_first && !content->is_old;
  if (!confirms && kind != (is_first ? RecordKind::kBase : RecordKind::kCommit)) {
    return is_first ? "it is not a base" : "it is not a commit";
  }
  uint64_t expected = is_first ? commit : content->versions.back().commit + (confirms ? 0 : 1);
  if (commit != expected || commit > kMaxCommit) return out_of_place(commit, expected);
  Version version{commit, {}, {}};
  if (!content->is_old && !note_read(in, &version.note)) return "its note cannot be read";
  std::vector<Change> changes;
  Result result = changes_read(schema, in, &changes);
  if (!result.ok()) return "its content cannot be read: " + result.reason;
  if (!in.done()) return "bytes follow its content";
  if (confirms) {
    if (!changes.empty()) return "a confirmation changes something";
    versions_settle(content->versions, version.note);
    return {};
  }
  // Nothing is known of what was before a base.
  if (is_first) version.note.confirm = Confirm::kLeaves;
  version.root =
      changes_apply(is_first ? empty_tree(schema) : content->versions.back().root, changes);
  versions_add(content->versions, std::move(version));
  return {};
}

std::string foreign(std::string_view bytes) {
  if (bytes.empty()) return "it is empty";
  if (!bytes.starts_with(kMagicOfAnyFormat)) return "it is not a running configuration";
  std::string_view line = bytes.substr(0, std::min(bytes.find('\n'), size_t{40}));
  auto without_newline = [](std::string_view magic) {
    return '"' + std::string(magic.substr(0, magic.size() - 1)) + '"';
  };
  return "its format is \"" + std::string(line) + "\"; this agent reads " +
         without_newline(kMagicWithoutNotes) + " and " + without_newline(kMagic);
}

}  // namespace

JournalContent journal_read(const Schema& schema, std::string_view bytes) {
  using End = JournalContent::End;
  JournalContent content;
  content.is_old = bytes.starts_with(kMagicWithoutNotes);
  if (!content.is_old && !bytes.starts_with(kMagic)) {
    content.end = End::kForeign;
    content.fault = foreign(bytes);
    return content;
  }
  size_t at = kMagic.size();
  content.good_size = at;
  content.end = End::kDamaged;  // unless it is read to its end
  while (at < bytes.size() || content.versions.empty()) {
    std::string_view body;
    if (const char* fault = whole_record(bytes.substr(at), &body); fault != nullptr) {
      content.fault = fault;
      size_t next = find_whole_record(bytes, at + 1);
      if (next != std::string_view::npos) {
        content.fault += ", and a whole record stands at byte " + std::to_string(next);
      } else if (!content.versions.empty() && could_be_torn(bytes.substr(at))) {
        content.end = End::kTorn;
      }
      return content;
    }
    const uint64_t before = content.versions.empty() ? 0 : content.versions.back().commit;
    content.fault = add_version(schema, body, &content);
    if (!content.fault.empty()) return content;
    size_t size = kRecordHead + body.size();
    at += size;
    content.good_size = at;
    if (content.base_size == 0) {
      content.base_size = at;
      continue;
    }
    if (content.versions.back().commit == before) continue;  // a confirmation
    content.commit_sizes.push_back(size);
    if (content.commit_sizes.size() > kMaxRollback) content.commit_sizes.pop_front();
  }
  content.end = End::kWhole;
  return content;
}

std::string journal_base(const Schema& schema, const Version& version) {
  std::vector<Change> changes;
  changes_between(empty_tree(schema), version.root, &changes);
  return std::string(kMagic) + record(RecordKind::kBase, version.commit, changes, version.note);
}

void journal_seal(yarrow::Writer& record) {
  record.patch_u32(0, static_cast<uint32_t>(record.size() - kRecordHead));
  record.patch_u32(4, checksum(record.view().substr(kRecordHead)));
}

std::string journal_commit(uint64_t commit, const std::vector<Change>& changes,
                           const CommitNote& note) {
  return record(RecordKind::kCommit, commit, changes, note);
}

std::string journal_confirmation(uint64_t commit, const CommitNote& note) {
  return record(RecordKind::kConfirmation, commit, {}, note);
}

void versions_add(std::deque<Version>& versions, Version version) {
  versions_settle(versions, version.note);
  versions.push_back(std::move(version));
  while (versions.size() > kMaxRollback + 1 && versions[1].note.confirm != Confirm::kUntil) {
    versions.pop_front();
  }
}

void versions_settle(std::deque<Version>& versions, const CommitNote& note) {
  if (note.confirm == Confirm::kLeaves) return;
  for (Version& version : versions) {
    CommitNote& waiting = version.note;
    if (waiting.confirm != Confirm::kUntil) continue;
    waiting.deadline = note.deadline;
    if (note.confirm == Confirm::kConfirms) waiting.confirm = Confirm::kLeaves;
  }
}

size_t versions_waiting(const std::deque<Version>& versions) {
  for (size_t i = 1; i < versions.size(); ++i) {
    if (versions[i].note.confirm == Confirm::kUntil) return i;
  }
  return 0;
}

}  // namespace agent
