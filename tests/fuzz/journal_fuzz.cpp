// SPDX-License-Identifier: Apache-2.0
// Any bytes as the file of the running configuration; and as lines that say what the records of one
// hold, whose lengths, checksums and numbers are right. Whatever is read must be read again from
// what it is written as, and from what a start leaves of the file.
//
// A line "OPPATH" (a digit and a path with keys) is a change, a line " /LEAF=ITEM|ITEM" after it a
// leaf, " /LEAF" a removed one; an empty line ends a record.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "agent/journal_format.h"
#include "agent/xml.h"

namespace {

using agent::JournalContent;
using yarrow::Writer;

std::string text_of(const JournalContent& content) {
  std::string text;
  for (const agent::Version& version : content.versions) {
    text += std::to_string(version.commit) + xml_save(version.root, {}) + '\n';
  }
  return text;
}

std::string_view next_line(std::string_view* text, char end) {
  std::string_view line = text->substr(0, text->find(end));
  text->remove_prefix(std::min(text->size(), line.size() + 1));
  return line;
}

void write_leaf(std::string_view line, Writer& out) {
  bool there = line.find('=') != std::string_view::npos;
  out.text(next_line(&line, '='));
  out.u8(there ? 1 : 0);
  if (!there) return;
  size_t count_at = out.size();
  uint32_t count = 0;
  out.u32(0);
  for (; !line.empty(); ++count) out.text(next_line(&line, '|'));
  out.patch_u32(count_at, count);
}

// The record whose lines come next.
std::string record_of(uint64_t commit, std::string_view* lines) {
  Writer out;
  out.u64(0);
  out.u8('C');
  out.u64(commit);
  out.u64(0);  // a note that says nothing
  for (int text = 0; text < 3; ++text) out.text("");
  out.u8(0);
  out.u64(0);
  size_t changes_at = out.size();
  uint32_t changes = 0;
  out.u32(0);
  size_t leaves_at = 0;
  uint32_t leaves = 0;
  while (!lines->empty()) {
    std::string_view line = next_line(lines, '\n');
    if (line.empty()) break;
    if (line[0] == ' ' && changes > 0) {
      write_leaf(line.substr(1), out);
      out.patch_u32(leaves_at, ++leaves);
      continue;
    }
    out.u8(static_cast<uint8_t>(line[0] - '0'));
    out.text(line.substr(1));
    leaves_at = out.size();
    leaves = 0;
    out.u32(0);
    out.patch_u32(changes_at, ++changes);
  }
  agent::journal_seal(out);
  return out.bytes();
}

void check(const agent::Schema& schema, std::string_view file) {
  JournalContent content = journal_read(schema, file);
  if (content.good_size > file.size() || content.versions.empty()) return;
  if (content.end == JournalContent::End::kWhole && content.good_size != file.size()) abort();
  const std::string expected = text_of(content);
  JournalContent cut = journal_read(schema, file.substr(0, content.good_size));
  if (cut.end != JournalContent::End::kWhole || text_of(cut) != expected) abort();
  std::string anew = journal_base(schema, content.versions[0]);
  for (size_t i = 1; i < content.versions.size(); ++i) {
    std::vector<agent::Change> changes;
    changes_between(content.versions[i - 1].root, content.versions[i].root, &changes);
    anew += agent::journal_commit(content.versions[i].commit, changes, content.versions[i].note);
  }
  JournalContent again = journal_read(schema, anew);
  if (again.end != JournalContent::End::kWhole || text_of(again) != expected) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static std::string error;
  static const std::unique_ptr<agent::Schema> schema = agent::schema_load(&error);
  if (!schema) abort();
  static const std::string base = agent::journal_base(*schema, {0, empty_tree(*schema)});
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  check(*schema, bytes);
  std::string file = base;
  for (uint64_t commit = 1; !bytes.empty(); ++commit) file += record_of(commit, &bytes);
  check(*schema, file);
  return 0;
}
