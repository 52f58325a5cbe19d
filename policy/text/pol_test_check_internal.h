// SPDX-License-Identifier: Apache-2.0
//
// pol_test_check_internal.h - what a policy file amounts to, as far as its check wants to know.
//
// While the check reads the lines, FileState follows what they would make and delete. Deletes
// count, so only its final state says which lists stay empty and which sequences are out of reach.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "text/pol_test_grammar.h"

namespace pol {

struct TextPlace {
  uint32_t line;
  uint32_t column;
};

struct TextFinding {
  TextPlace place;
  pol_test_severity severity;
  std::string what;
  std::string expected;  // empty when nothing else fits
};

using TextFindings = std::vector<TextFinding>;

// "'word'", with bytes that do not print shown as \xNN and long words cut.
std::string text_quoted(const char* word);

class FileState {
 public:
  explicit FileState(TextFindings& findings) : findings_(findings) {}

  // A line begins: it has named nothing yet.
  void begin_line();
  // Takes a step of a line. `places` are those of the line's words; `valid` says that the step's
  // values are what they should be.
  void take(const TextStep& step, const TextWords& words, const TextPlace* places, bool valid);
  // The file is read: warns of what it leaves.
  void finish();

 private:
  struct List {
    bool made = false;
    bool filled = false;   // ever
    TextPlace named = {};  // by the first clause; line 0: by none
    std::unordered_set<uint64_t> elements;
  };
  struct Sequence {
    TextPlace place = {};
    uint32_t match_type = 0;
    uint32_t match_flags = 0;
    uint32_t action = POL_REJECT;
    std::map<TextOp, TextPlace> sets = {};       // what it sets, and where that stands
    std::map<uint32_t, TextPlace> matches = {};  // the same of match clauses, by their flags
  };
  struct Policy {
    bool forwarding = false;
    bool made = false;
    std::map<uint32_t, Sequence> sequences;
  };

  void error(TextPlace place, std::string what, std::string expected);
  void warn(TextPlace place, std::string what, std::string expected = {});
  bool has_needed(const TextStep& step, const char* keyword, TextPlace place);
  void take_policy(const TextStep& step, const char* name, TextPlace place);
  void take_sequence(const TextStep& step, const char* number, TextPlace place, bool valid);
  void take_match(const TextStep& step, const char* type, TextPlace place);
  void take_set(const TextStep& step, TextPlace place);
  void take_clause(const TextStep& step, const char* keyword, const char* value,
                   const TextPlace* places);
  void take_list(const TextStep& step, const char* name, TextPlace place);
  void take_element(const TextStep& step, const char* element);
  void warn_replaced(TextPlace place, TextPlace earlier);
  void warn_of_value(const TextStep& step, const char* value, TextPlace place);
  void warn_not_made(TextPlace place, const std::string& what);
  void warn_of_lists();
  void warn_of_sequences(const std::string& name, const Policy& policy);
  void warn_of_sets(const std::string& title, const Sequence& sequence);

  TextFindings& findings_;
  std::map<std::string, List> lists_[kTextLists];
  std::map<std::pair<bool, std::string>, Policy> policies_;  // by whether forwarding, and name

  // What the line has named so far.
  Policy* policy_ = nullptr;
  Policy* sequence_of_ = nullptr;  // null for a sequence that is not followed
  Sequence* sequence_ = nullptr;
  List* list_ = nullptr;
  bool told_ = false;   // that a clause of this line acts on nothing
  Sequence untracked_;  // a default sequence, or one without a number
};

}  // namespace pol
