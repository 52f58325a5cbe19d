// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <cstring>
#include <utility>

#include "policy/pol_types.h"
#include "text/pol_test_check_internal.h"

namespace pol {
namespace {

// Match clauses that decide about routes. Those of packets are kept, but never tested.
constexpr uint32_t kDecidingFlags =
    ~(POL_MATCH_F_SRC_PORT | POL_MATCH_F_DST_PORT | POL_MATCH_F_DSCP | POL_MATCH_F_PROTO);

// The parser goes by as much of a name as it keeps.
std::string name_of(const char* word) { return {word, strnlen(word, POL_TEST_TOKEN_SIZE - 1)}; }

uint64_t element_of(TextList list, const char* word) {
  if (list == TextList::kTloc) {
    t_tloc_id tloc = {};
    pol_test_tloc_str_to_tloc(word, &tloc);
    return uint64_t{tloc.addr.v4} << 8 | tloc.color;
  }
  if (list == TextList::kPfx) {
    t_ipprefix prefix = {};
    pol_test_pfx_str_to_pfx(word, &prefix);
    return uint64_t{prefix.addr.addr.v4} << 8 | prefix.len;
  }
  return static_cast<uint32_t>(text_number(word));
}

std::string list_title(TextList list, const std::string& name) {
  return std::string(text_list_line(list).keyword) + " " + text_quoted(name.c_str());
}

const char* example_of(TextList list) {
  switch (list) {
    case TextList::kSite:
      return "7";
    case TextList::kTloc:
      return "10.0.0.1:3";
    default:
      return "10.0.0.0/8";
  }
}

}  // namespace

std::string text_quoted(const char* word) {
  constexpr size_t kShown = 60;
  std::string text = "'";
  size_t length = strlen(word);
  for (size_t i = 0; i < length && i < kShown; ++i) {
    auto byte = static_cast<unsigned char>(word[i]);
    if (byte >= ' ' && byte < 0x7f) {
      text += word[i];
    } else {
      char escaped[8];
      snprintf(escaped, sizeof escaped, "\\x%02x", byte);
      text += escaped;
    }
  }
  return text + (length > kShown ? "...'" : "'");
}

void FileState::error(TextPlace place, std::string what, std::string expected) {
  findings_.push_back({place, POL_TEST_ERROR, std::move(what), std::move(expected)});
}

void FileState::warn(TextPlace place, std::string what, std::string expected) {
  findings_.push_back({place, POL_TEST_WARNING, std::move(what), std::move(expected)});
}

void FileState::begin_line() {
  policy_ = nullptr;
  sequence_of_ = nullptr;
  sequence_ = nullptr;
  list_ = nullptr;
  told_ = false;
}

void FileState::take(const TextStep& step, const TextWords& words, const TextPlace* places,
                     bool valid) {
  const char* value = words.at(step.value);
  const TextPlace keyword = places[step.keyword];
  if (!has_needed(step, words.at(step.keyword), keyword)) return;
  switch (step.row->op) {
    case TextOp::kRoutePolicy:
    case TextOp::kFwdPolicy:
      return take_policy(step, value, keyword);
    case TextOp::kSequence:
      return take_sequence(step, value, keyword, valid);
    case TextOp::kDefaultAction:
      sequence_ = &untracked_;
      sequence_of_ = nullptr;
      return;
    case TextOp::kMatch:
      return take_match(step, value, places[step.value]);
    case TextOp::kAction:
      if (sequence_ == nullptr) return;
      sequence_->action =
          step.deletes ? uint32_t{POL_REJECT} : text_word_value(*step.row->value[0], value);
      return;
    case TextOp::kSet:
      if (step.deletes && sequence_ != nullptr) sequence_->sets.clear();
      return;
    case TextOp::kList:
      return take_list(step, value, keyword);
    case TextOp::kElement:
      return take_element(step, value);
    default:
      take_clause(step, words.at(step.keyword), value, places);
      if (valid && sequence_ != nullptr) warn_of_value(step, value, places[step.value]);
      return;
  }
}

// A clause on nothing is reported once a line: those that follow it suffer from the same.
bool FileState::has_needed(const TextStep& step, const char* keyword, TextPlace place) {
  if (step.row->needs == TextNeeds::kNothing) return true;
  const bool needs_policy = step.row->needs == TextNeeds::kPolicy;
  if (needs_policy ? policy_ != nullptr : sequence_ != nullptr) return true;
  if (!told_ && needs_policy) {
    error(place, text_quoted(keyword) + " stands before any policy and has no effect",
          "route-policy NAME or forwarding-policy NAME before it");
  } else if (!told_) {
    error(place, text_quoted(keyword) + " stands before any sequence and has no effect",
          "sequence NUMBER or default-action before it");
  }
  told_ = true;
  return false;
}

void FileState::warn_not_made(TextPlace place, const std::string& what) {
  warn(place, what + " is deleted, but no line before makes it");
}

void FileState::take_policy(const TextStep& step, const char* name, TextPlace place) {
  const bool forwarding = step.row->op == TextOp::kFwdPolicy;
  Policy& policy = policies_[{forwarding, name_of(name)}];
  policy.forwarding = forwarding;
  if (!step.deletes) {
    policy.made = true;
    policy_ = &policy;
    return;
  }
  if (!policy.made) warn_not_made(place, "policy " + text_quoted(name));
  if (policy_ == &policy) policy_ = nullptr;
  if (sequence_of_ == &policy) sequence_ = nullptr;
  policy.sequences.clear();
}

void FileState::take_sequence(const TextStep& step, const char* number, TextPlace place,
                              bool valid) {
  if (policy_->forwarding) {
    error(place, "a forwarding policy has no sequences: this has no effect",
          "route-policy before it, or default-action");
    sequence_ = nullptr;
    told_ = true;
    return;
  }
  if (!valid) {
    sequence_ = step.deletes ? sequence_ : &untracked_;
    return;
  }
  const auto key = static_cast<uint32_t>(text_number(number));
  auto found = policy_->sequences.find(key);
  if (!step.deletes) {
    if (found == policy_->sequences.end()) {
      found = policy_->sequences.emplace(key, Sequence{place}).first;
    }
    sequence_ = &found->second;
    sequence_of_ = policy_;
    return;
  }
  if (found == policy_->sequences.end()) {
    return warn_not_made(place, "sequence " + std::to_string(key));
  }
  if (sequence_ == &found->second) sequence_ = nullptr;
  policy_->sequences.erase(found);
}

void FileState::take_match(const TextStep& step, const char* type, TextPlace place) {
  const uint32_t match_type = text_word_value(*step.row->value[0], type);
  if (step.deletes || sequence_->match_type != match_type) {
    sequence_->match_flags = 0;
    sequence_->matches.clear();
  }
  if (step.deletes) return;
  sequence_->match_type = match_type;
  const bool known = text_is(type, "packet", 0);
  if (known) {
    warn(place, "match packet never matches: nothing asks about packets",
         "match route, match tloc or match service");
  }
}

// Set clauses are told apart by what they set: an id and a list of VPNs are two.
void FileState::take_set(const TextStep& step, TextPlace place) {
  if (step.deletes) {
    sequence_->sets.erase(step.row->op);
    return;
  }
  const auto [set, is_new] = sequence_->sets.emplace(step.row->op, place);
  if (!is_new) warn_replaced(place, std::exchange(set->second, place));
}

// Sequences that are not followed share one record, which tells nothing of any of them.
void FileState::warn_replaced(TextPlace place, TextPlace earlier) {
  if (sequence_ == &untracked_) return;
  warn(place, "the sequence has this already (line " + std::to_string(earlier.line) +
                  "): what stands there is in force no more");
}

// Numbers that the grammar takes, and that nothing can have.
void FileState::warn_of_value(const TextStep& step, const char* value, TextPlace place) {
  const bool is_vpn = step.row->op == TextOp::kMatchVpnId || step.row->op == TextOp::kSetVpnId;
  if (!is_vpn || step.deletes || text_number(value) <= UINT16_MAX) return;
  warn(place, "VPN " + std::string(value) + " is beyond those that configuration knows",
       "a VPN from 0 to 65535");
}

void FileState::take_clause(const TextStep& step, const char* keyword, const char* value,
                            const TextPlace* places) {
  if (sequence_ == nullptr) return;
  const TextPlace place = places[step.value];
  if (step.row->op >= TextOp::kSetTag && step.row->op <= TextOp::kSetTloc) {
    take_set(step, places[step.keyword]);
  } else if (step.deletes) {
    sequence_->match_flags &= ~step.row->clears;
    sequence_->matches.erase(step.row->clears);
  } else if ((step.row->sets & kDecidingFlags) == 0) {
    warn(places[step.keyword], text_quoted(keyword) + " has no effect: no route is tested for it");
  } else {
    const auto [match, is_new] = sequence_->matches.emplace(step.row->sets, places[step.keyword]);
    if (!is_new) {
      warn_replaced(places[step.keyword], std::exchange(match->second, places[step.keyword]));
    }
  }
  if (step.deletes) return;
  sequence_->match_flags |= step.row->sets;
  if (step.row->list == TextList::kNone) return;
  List& list = lists_[static_cast<int>(step.row->list)][name_of(value)];
  list.made = true;
  if (list.named.line == 0) list.named = place;
}

void FileState::take_list(const TextStep& step, const char* name, TextPlace place) {
  list_ = &lists_[static_cast<int>(step.row->list)][name_of(name)];
  if (!step.deletes) return;
  if (!list_->made) warn_not_made(place, list_title(step.row->list, name_of(name)));
  list_->elements.clear();
}

void FileState::take_element(const TextStep& step, const char* element) {
  const uint64_t key = element_of(step.row->list, element);
  if (step.deletes) {
    list_->elements.erase(key);
    return;
  }
  list_->made = true;
  list_->filled = true;
  list_->elements.insert(key);
}

void FileState::finish() {
  warn_of_lists();
  for (const auto& [key, policy] : policies_) warn_of_sequences(key.second, policy);
}

void FileState::warn_of_lists() {
  for (const TextLine& line : text_lines()) {
    if (line.list == TextList::kNone) continue;
    for (const auto& [name, list] : lists_[static_cast<int>(line.list)]) {
      if (list.named.line == 0 || !list.elements.empty()) continue;
      const std::string title = list_title(line.list, name);
      if (line.kind == POL_TEST_OTHER) {
        warn(list.named, title + " is named, but a policy file cannot fill it");
      } else if (list.filled) {
        warn(list.named, title + " is named, but empty at the end of the file");
      } else {
        warn(list.named, title + " is named, but never filled",
             "a line such as: " + std::string(line.keyword) + " " + name + " " +
                 example_of(line.list));
      }
    }
  }
}

// By the rules of evaluation; in which direction a policy is used a file does not say.
void FileState::warn_of_sets(const std::string& title, const Sequence& sequence) {
  for (const auto& [op, place] : sequence.sets) {
    const bool any_type = op == TextOp::kSetTag || op == TextOp::kSetPreference;
    const char* why = nullptr;
    if (sequence.action == POL_REJECT) {
      why = "nothing is set on a reject";
    } else if (sequence.match_type == POL_MATCH_SERVICE) {
      why = "nothing is set on a service";
    } else if (sequence.match_type == POL_MATCH_TLOC && !any_type) {
      why = "it is set on routes alone";
    }
    if (why == nullptr) continue;
    warn(place, title + " sets this in vain: " + why,
         sequence.action == POL_REJECT ? "action accept" : "");
  }
}

void FileState::warn_of_sequences(const std::string& name, const Policy& policy) {
  // By match type, the sequence that takes all there is, and those after it in vain.
  std::map<uint32_t, std::pair<uint32_t, TextPlace>> taken;
  for (const auto& [number, sequence] : policy.sequences) {
    const std::string title =
        "sequence " + std::to_string(number) + " of policy " + text_quoted(name.c_str());
    if (sequence.match_type == 0) {
      warn(sequence.place, title + " never decides: it has no match type",
           "match route, match tloc or match service");
      continue;
    }
    warn_of_sets(title, sequence);
    if (sequence.match_type == POL_MATCH_PACKET) continue;
    auto earlier = taken.find(sequence.match_type);
    if (earlier != taken.end()) {
      const auto& [before, place] = earlier->second;
      warn(sequence.place, title + " is never reached: sequence " + std::to_string(before) +
                               " (line " + std::to_string(place.line) + ") takes everything");
    } else if ((sequence.match_flags & kDecidingFlags) == 0) {
      taken[sequence.match_type] = {number, sequence.place};
    }
  }
}

}  // namespace pol
