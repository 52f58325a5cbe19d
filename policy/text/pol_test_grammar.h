// SPDX-License-Identifier: Apache-2.0
//
// pol_test_grammar.h - the grammar of the text policy file: tables, and the walk over a line.
//
// The tables say which keyword may stand where, how it is compared, which values follow and what
// it is about. The walk turns the words of a line into steps, one for each keyword with its
// values; it neither judges values nor acts. The parser carries steps out, the check reports on
// them: what both have to agree on stands here.
//
// Invariant: every step but a list's consumes at least one word, so a walk ends.
#pragma once

#include <cstdint>
#include <span>

#include "policy/pol_test.h"

namespace pol {

// A word that stands for a number.
struct TextWord {
  const char* text;
  uint8_t compared;  // leading characters that decide; 0: the whole word
  uint32_t value;
};

// What a value may be.
struct TextValue {
  enum Kind : uint8_t { kName, kNumber, kAddress, kPrefix, kTloc, kWord, kAny };
  Kind kind;
  const char* expected;  // in the operator's words; null where `words` says it
  uint64_t highest = 0;  // of a number
  std::span<const TextWord> words = {};
  uint32_t otherwise = 0;  // what any other word stands for
};

enum class TextOp : uint8_t {
  kRoutePolicy,
  kFwdPolicy,
  kSequence,
  kMatch,
  kDefaultAction,
  kSet,
  kAction,
  kMatchTag,
  kMatchPreference,
  kMatchDomain,
  kMatchVpnId,
  kMatchSite,
  kMatchSiteList,
  kMatchVpnList,
  kMatchTlocList,
  kMatchPfxList,
  kMatchTloc,
  kMatchSrcPort,
  kMatchDstPort,
  kMatchProtocol,
  kMatchDscp,
  kMatchSrcIp,
  kMatchDstIp,
  kSetTag,
  kSetPreference,
  kSetVpnId,
  kSetVpnList,
  kSetTloc,
  kList,
  kElement,
};

// Where in a line the walk is: what may stand next.
enum class TextState : uint8_t {
  kEnd,
  kGroup,
  kMatchClause,
  kSetClause,
  kSiteList,
  kVpnList,
  kTlocList,
  kPfxList,
  kSite,
  kVpn,
  kTloc,
  kPrefix,
};

enum class TextList : uint8_t { kNone, kSite, kVpn, kTloc, kPfx };
inline constexpr int kTextLists = 5;

// What a keyword acts on: of no effect while the line has named none.
enum class TextNeeds : uint8_t { kNothing, kPolicy, kSequence };

// A keyword with its values. Every row takes "delete" after its values.
struct TextRow {
  const char* keyword;  // null: the value stands here itself
  uint8_t compared;     // leading characters that decide; 0: the whole word
  TextOp op;
  TextNeeds needs;
  TextState next;
  const TextValue* value[2] = {};  // null after the last one
  uint32_t sets = 0;               // POL_MATCH_F_* that the clause sets
  uint32_t clears = 0;             // and that its delete clears
  TextList list = TextList::kNone;
};

// The kinds of line, by first word.
struct TextLine {
  const char* keyword;
  uint32_t kind;  // enum pol_test_line
  TextState start;
  uint32_t first;  // the word at which the walk starts
  TextList list = TextList::kNone;
};

// The words of a line. Past the last one all words are empty: a missing value reads as an empty
// word.
struct TextWords {
  const char* word[POL_TEST_TOKENS];
  uint32_t count;

  const char* at(uint32_t index) const { return index < count ? word[index] : ""; }
};

struct TextStep {
  const TextRow* row;  // null: no keyword stands here, and the walk is over
  TextState state;     // what could have stood here
  uint32_t keyword;    // index of the row's first word
  uint32_t value;      // index of its first value
  bool deletes;
};

class TextWalk {
 public:
  TextWalk(const TextWords& words, const TextLine& line)
      : words_(words), state_(line.start), at_(line.first) {}

  // False at the line's end.
  bool next(TextStep* step);
  // The first word that no step has taken.
  uint32_t at() const { return at_; }

 private:
  const TextWords& words_;
  TextState state_;
  uint32_t at_;
};

std::span<const TextRow> text_rows(TextState state);
// The row that a word begins there, or null.
const TextRow* text_find(TextState state, const char* word);
// The state whose keywords may stand in place of this one's; kEnd when there is none.
TextState text_fallback(TextState state);

std::span<const TextLine> text_lines();
// Null for a first word that starts no line.
const TextLine* text_line(const char* word);
// REQUIRES: `list` is not kNone.
const TextLine& text_list_line(TextList list);

bool text_is(const char* word, const char* keyword, uint8_t compared);
uint32_t text_word_value(const TextValue& value, const char* word);

// The words in the slots of a caller, each of which is cut to its size.
TextWords text_words(t_pol_test_tokens tokens, uint32_t count);

// Numbers as the file has them: leading digits, with a sign; 0 without any. Too large for a long is
// the largest long; what the caller keeps of it is its low bits.
int64_t text_number(const char* word);

}  // namespace pol
