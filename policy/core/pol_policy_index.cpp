// SPDX-License-Identifier: Apache-2.0
#include "core/pol_policy_index.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "base/pol_memory.h"
#include "core/pol_clause_internal.h"
#include "core/pol_context_internal.h"

namespace pol {
namespace {

// A walk is as fast for up to 8 sequences, and for more as long as their weights stay within a bound. By
// measuring: 13 that ask for values are walked in the time of a look-up, but only 8 that ask for lists
// alone, which are asked one after the other.
constexpr uint32_t kWalked = 8;
constexpr uint32_t kWalkedWeight = 40;
constexpr uint32_t kWeight = 3;
constexpr uint32_t kWeightOfLists = 5;

// So many sequences under a key of single values need no list in it.
constexpr uint32_t kFewAlike = 2;
constexpr unsigned kFreeShapes = 16;

NamedHead* list_named(const t_pol_match& match, uint32_t clause) {
  for (const auto& each : kMatchLists) {
    if (each.bit == clause) return (match.*each.user).list;
  }
  return nullptr;
}

// What a clause of a sequence gives to its key.
uint64_t key_of(const t_pol_match& match, uint32_t clause) {
  switch (clause) {
    case POL_MATCH_F_TAG:
      return index_key_of(clause, match.tag);
    case POL_MATCH_F_PREF:
      return index_key_of(clause, match.preference);
    case POL_MATCH_F_DOMAIN:
      return index_key_of(clause, match.domain);
    case POL_MATCH_F_VPN_ID:
      return index_key_of(clause, match.vpn_id);
    case POL_MATCH_F_SITE:
      return index_key_of(clause, match.site);
    case POL_MATCH_F_CARRIER:
      return index_key_of(clause, match.carrier);
    case POL_MATCH_F_COLOR:
      return index_key_of(clause, match.color);
    case POL_MATCH_F_TLOC:
      return index_key_of(clause, tloc_hash(match.tloc));
    case POL_MATCH_F_ORIGINATOR:
      return index_key_of(clause, index_hash(match.originator));
    case POL_MATCH_F_GROUP:
      return index_key_of(clause, match.group);
    case POL_MATCH_F_ORIGIN:
      // Of some routes the protocol is not compared.
      return index_key_of(clause, match.origin_subtype);
    default:
      return index_key_of(clause, list_named(match, clause));
  }
}

uint64_t key_of_values(const t_pol_match& match, uint32_t clauses) {
  uint64_t key = index_key_of_type(match.type);
  for (; clauses != 0; clauses &= clauses - 1) key += key_of(match, clauses & (~clauses + 1));
  return key;
}

// Whether the sequence can match: not of a type that no query has, nor by a list that could not be had.
bool can_match(const t_pol_entry& entry) {
  if (entry.match.type < POL_MATCH_ROUTE || entry.match.type > POL_MATCH_SERVICE) return false;
  for (const auto& each : kMatchLists) {
    if ((entry.match_flags & each.bit) != 0 && (entry.match.*each.user).list == nullptr) {
      return false;
    }
  }
  return true;
}

void enter_elements(const NamedHead& head, uint32_t clause) {
  switch (clause) {
    case POL_MATCH_F_VPN_LIST:
      for (const RangeNode& node : reinterpret_cast<const t_vpn_list&>(head).entries.in_order()) {
        directory_range(head, node.low, node.high, true);
      }
      break;
    case POL_MATCH_F_SITE_LIST:
      for (const RangeNode& node : reinterpret_cast<const t_site_list&>(head).entries.in_order()) {
        directory_range(head, node.low, node.high, true);
      }
      break;
    case POL_MATCH_F_TLOC_LIST:
      for (const t_tloc_entry& entry : reinterpret_cast<const t_tloc_list&>(head).entries) {
        directory_tloc(head, entry.tloc, true);
      }
      break;
    case POL_MATCH_F_COLOR_LIST:
      for (const t_color_entry& entry : reinterpret_cast<const t_color_list&>(head).entries) {
        directory_color(head, entry.color, true);
      }
      break;
    default:
      for (const t_pfx_entry& entry : reinterpret_cast<const t_pfx_list&>(head).entries) {
        directory_prefix(head, entry, true);
      }
  }
}

// Makes two directories one; what is in the smaller moves, so each thing moves seldom.
void join(ListDirectory* a, ListDirectory* b, uint32_t clause) {
  ListDirectory* larger = a->load >= b->load ? a : b;
  ListDirectory* smaller = larger == a ? b : a;
  while (NamedHead* list = smaller->lists.front()) {
    directory_forget(list);
    directory_enrol(larger, list);
    enter_elements(*list, clause);
  }
  directory_replace(smaller, larger);
}

// What a policy's sequences are like before its index is made.
struct Survey {
  uint32_t count = 0;
  uint32_t clauses = 0;
  uint32_t with[32] = {};  // sequences, by the place of a clause's bit
  uint32_t keys = 0;       // that sequences may stand under, counted for each
  uint32_t weight = 0;
  bool left_over = false;  // a clause that stays on a list which it is no user of
};

Survey survey_of(const t_pol_block& block) {
  Survey survey;
  for (const t_pol_entry& entry : block.in_order) {
    const uint32_t flags = entry.match_flags;
    ++survey.count;
    survey.clauses |= flags;
    const bool lists_alone = (flags & kIndexLists) != 0 && (flags & ~kIndexLists) == 0;
    survey.weight += lists_alone ? kWeightOfLists : kWeight;
    for (uint32_t left = flags; left != 0; left &= left - 1) ++survey.with[std::countr_zero(left)];
    survey.keys += 1 + static_cast<uint32_t>(std::popcount(flags & kIndexSeveral));
    for (const auto& each : kMatchLists) {
      survey.left_over |= (flags & each.bit) != 0 && is_stale(entry.match.*each.user);
    }
  }
  return survey;
}

// How many sequences might stand under a key.
class Tally {
 public:
  explicit Tally(uint32_t keys) {
    mask_ = std::bit_ceil(keys + keys / 2 + 1) - 1;
    slots_ = static_cast<Slot*>(pol_calloc(size_t{mask_} + 1, sizeof(Slot), MEM_UNCOUNTED));
  }
  Tally(const Tally&) = delete;
  Tally& operator=(const Tally&) = delete;
  ~Tally() { pol_free(slots_, MEM_UNCOUNTED); }

  bool made() const { return slots_ != nullptr; }
  uint32_t& of(uint64_t key) {
    auto at = static_cast<uint32_t>(key * PolicyIndex::kOdd >> 32) & mask_;
    while (slots_[at].count != 0 && slots_[at].key != key) at = (at + 1) & mask_;
    slots_[at].key = key;
    return slots_[at].count;
  }

 private:
  struct Slot {
    uint64_t key;
    uint32_t count;  // 0: free
  };

  Slot* slots_;
  uint32_t mask_;
};

// Every key that the sequence may stand under: of its values, and of these with each further clause.
template <class Visit>
void each_key(const t_pol_entry& entry, Visit visit) {
  const uint64_t values = key_of_values(entry.match, entry.match_flags & kIndexValues);
  visit(values, 0u);
  for (uint32_t left = entry.match_flags & kIndexSeveral; left != 0; left &= left - 1) {
    const uint32_t clause = left & (~left + 1);
    visit(values + key_of(entry.match, clause), clause);
  }
}

// Enters sequences, the last one first, after all were surveyed.
class IndexBuilder {
 public:
  // Without a survey and a tally for append() alone.
  IndexBuilder(PolicyIndex* index, const Survey* survey, Tally* tally)
      : index_(index), survey_(survey), tally_(tally) {}

  // What is asked for the sake of one sequence is asked for all.
  void survey(const t_pol_entry& entry) { asked_ |= telling_clause(entry); }

  void enter(uint32_t place) {
    const t_pol_entry& entry = *index_->nodes[place].entry;
    if (!can_match(entry)) return;
    uint32_t* head = head_of(key_by(fitting_shape(entry), entry));
    index_->nodes[place].next = *head;
    index_->nodes[place].last = *head != 0 ? index_->nodes[*head - 1].last : place;
    *head = place + 1;
  }

  // Enters a sequence behind all others, under the nearest shape that there is.
  void append(uint32_t place) {
    const t_pol_entry& entry = *index_->nodes[place].entry;
    if (!can_match(entry)) return;
    uint32_t* head = head_of(key_by(known_shape(entry), entry));
    if (*head == 0) *head = place + 1;
    IndexNode* first = &index_->nodes[*head - 1];
    if (*head != place + 1) index_->nodes[first->last].next = place + 1;
    first->last = place;
  }

  // False when memory ran out.
  [[nodiscard]] bool finish() {
    std::stable_sort(
        index_->shapes, index_->shapes + index_->shape_count,
        [](const IndexShape& a, const IndexShape& b) { return a.several < b.several; });
    index_->values = 0;
    for (unsigned i = 0; i < index_->shape_count; ++i) index_->values |= index_->shapes[i].values;
    return made_;
  }

 private:
  // The clause that makes the sequence's key one of few; 0 where its values do. Of equal ones it is the one
  // that most sequences have, so that few families of lists are asked.
  uint32_t telling_clause(const t_pol_entry& entry) {
    uint32_t best = 0;
    uint32_t fewest = 0;
    bool few = false;
    each_key(entry, [&](uint64_t key, uint32_t clause) {
      const uint32_t alike = std::max(tally_->of(key), kFewAlike);
      if (clause == 0) {
        few = alike == kFewAlike;
      } else if ((!few || (clause & asked_) != 0) &&
                 (best == 0 || alike < fewest || (alike == fewest && with(clause) > with(best)))) {
        fewest = alike;
        best = clause;
      }
    });
    return best;
  }

  uint32_t with(uint32_t clause) const {
    return clause != 0 ? survey_->with[std::countr_zero(clause)] : 0;
  }

  IndexShape fitting_shape(const t_pol_entry& entry) {
    IndexShape wanted = {entry.match_flags & kIndexValues, telling_clause(entry)};
    for (unsigned i = 0; i < index_->shape_count; ++i) {
      const IndexShape& shape = index_->shapes[i];
      if (shape.values == wanted.values && shape.several == wanted.several) return shape;
    }
    if (index_->shape_count >= kFreeShapes) {
      const IndexShape* nearest = nearest_shape(entry);
      if (nearest != nullptr && clauses_of(*nearest) != 0) return *nearest;
      // A shape of one clause, or of none.
      wanted.values = wanted.several != 0 ? 0 : wanted.values & (~wanted.values + 1);
      if (nearest != nullptr && clauses_of(wanted) == 0) return *nearest;
    }
    return index_->shapes[index_->shape_count++] = wanted;
  }

  // Of those that there are, or one of its own values, as nothing is known of how many share them.
  IndexShape known_shape(const t_pol_entry& entry) {
    const uint32_t several = entry.match_flags & kIndexSeveral;
    IndexShape own = {entry.match_flags & kIndexValues, 0};
    if (own.values == 0) own.several = several & (~several + 1);
    const IndexShape* nearest = nearest_shape(entry);
    if (nearest != nullptr && clauses_of(*nearest) >= clauses_of(own)) return *nearest;
    if (index_->shape_count < kFreeShapes) return index_->shapes[index_->shape_count++] = own;
    if (nearest != nullptr) return *nearest;
    made_ = false;  // only a survey finds one
    return {};
  }

  // The one with most of the sequence's clauses, and no others; null without one.
  const IndexShape* nearest_shape(const t_pol_entry& entry) const {
    const IndexShape* nearest = nullptr;
    for (unsigned i = 0; i < index_->shape_count; ++i) {
      const IndexShape* shape = &index_->shapes[i];
      if (((shape->values | shape->several) & ~entry.match_flags) != 0) continue;
      if (nearest == nullptr || clauses_of(*shape) > clauses_of(*nearest)) nearest = shape;
    }
    return nearest;
  }

  static int clauses_of(const IndexShape& shape) {
    return std::popcount(shape.values) + (shape.several != 0 ? 1 : 0);
  }

  uint64_t key_by(const IndexShape& shape, const t_pol_entry& entry) {
    uint64_t key = key_of_values(entry.match, shape.values);
    if (shape.several != 0) key += key_of(entry.match, shape.several);
    if ((shape.several & kIndexLists) != 0) {
      note_list(shape.several, list_named(entry.match, shape.several));
    }
    return key;
  }

  // What the key's chain begins with; 0 and free for it where it has none.
  uint32_t* head_of(uint64_t key) const {
    const uint32_t print = PolicyIndex::print_of(key);
    for (uint64_t at = key >> index_->shift;; at = (at + 1) & (~uint64_t{0} >> index_->shift)) {
      IndexBucket* bucket = &index_->buckets[at];
      for (unsigned i = 0; i < IndexBucket::kSize; ++i) {
        if (bucket->heads[i] != 0 && bucket->prints[i] != print) continue;
        bucket->prints[i] = print;
        return reinterpret_cast<uint32_t*>(&bucket->heads) + i;
      }
    }
  }

  void note_list(uint32_t clause, NamedHead* list) {
    IndexLists* family = index_->families;
    while (family->clause != 0 && family->clause != clause) ++family;
    family->clause = clause;
    if (family->few()) {
      NamedHead** end = family->lists + family->count;
      if (std::find(family->lists, end, list) != end) return;
      if (family->count++ < IndexLists::kFew) {
        *end = list;
        return;
      }
      for (NamedHead* each : family->lists) made_ = made_ && enrol(family, each);
    }
    made_ = made_ && enrol(family, list);
  }

  // False when memory runs out.
  static bool enrol(IndexLists* family, NamedHead* list) {
    ListDirectory* own = family->user.directory;
    if (list->directory != own && list->directory != nullptr && list->directory->broken) {
      // What others had enrolled is lost to them until their next change.
      directory_dissolve(list->directory);
    }
    if (list->directory == nullptr) {
      if (own == nullptr) {
        own = directory_make();
        if (own == nullptr) return false;
        directory_use(own, &family->user);
      }
      directory_enrol(own, list);
      enter_elements(*list, family->clause);
    } else if (own == nullptr) {
      directory_use(list->directory, &family->user);
    } else if (list->directory != own) {
      join(own, list->directory, family->clause);
    }
    return family->directory() != nullptr;
  }

  PolicyIndex* index_;
  const Survey* survey_;
  Tally* tally_;
  uint32_t asked_ = 0;  // clauses of several values
  bool made_ = true;    // false: memory ran out
};

PolicyIndex* index_alloc(uint32_t count) {
  // To grow by an eighth: what comes one by one costs a few times what it costs at once.
  const uint32_t room = count + count / 8 + 8;
  const size_t buckets = std::bit_ceil(size_t{room} / 2 + 2);
  const size_t head = sizeof(PolicyIndex) + buckets * sizeof(IndexBucket);
  auto* memory = static_cast<char*>(pol_calloc(1, head + room * sizeof(IndexNode), MEM_UNCOUNTED));
  if (memory == nullptr) return nullptr;
  auto* index = reinterpret_cast<PolicyIndex*>(memory);
  index->count = count;
  index->room = room;
  index->buckets = reinterpret_cast<IndexBucket*>(memory + sizeof(PolicyIndex));
  index->nodes = reinterpret_cast<IndexNode*>(memory + head);
  index->shift = static_cast<uint8_t>(64 - std::countr_zero(buckets));
  return index;
}

void index_free(PolicyIndex* index) {
  if (index == nullptr) return;
  for (IndexLists& family : index->families) directory_let_go(&family.user);
  pol_free(index, MEM_UNCOUNTED);
}

PolicyIndex* index_make(const t_pol_block& block) {
  const Survey survey = survey_of(block);
  if (survey.count <= kWalked || survey.weight <= kWalkedWeight || survey.left_over) return nullptr;
  Tally tally(survey.keys);
  if (!tally.made()) return nullptr;
  PolicyIndex* index = index_alloc(survey.count);
  if (index == nullptr) return nullptr;
  index->clauses = survey.clauses;
  uint32_t place = 0;
  for (t_pol_entry& entry : block.in_order) {
    index->nodes[place++].entry = &entry;
    if (can_match(entry)) each_key(entry, [&tally](uint64_t key, uint32_t) { ++tally.of(key); });
  }
  IndexBuilder builder(index, &survey, &tally);
  for (const t_pol_entry& entry : block.in_order) {
    if (can_match(entry)) builder.survey(entry);
  }
  while (place-- > 0) builder.enter(place);
  if (builder.finish()) {
    index->fresh = true;
    return index;
  }
  index_free(index);
  return nullptr;
}

using InOrder = decltype(t_pol_block::in_order);

// Adds what came behind the last sequence. False where the index is to be made anew. No clause of
// these is left over on a list: it would have left one.
bool index_grow(PolicyIndex* index) {
  if (!index->grows) return false;
  for (const IndexLists& family : index->families) {
    // A directory that was dissolved had the lists of the sequences before.
    if (!family.few() && family.directory() == nullptr) return false;
  }
  t_pol_entry* last = index->nodes[index->count - 1].entry;
  IndexBuilder builder(index, nullptr, nullptr);
  for (t_pol_entry* entry = index->last_grew ? last : InOrder::next(last); entry != nullptr;
       entry = InOrder::next(entry)) {
    if (index->count == index->room) return false;
    index->clauses |= entry->match_flags;
    index->nodes[index->count] = {entry, 0, 0};
    builder.append(index->count++);
  }
  index->fresh = builder.finish();
  return index->fresh;
}

}  // namespace

uint32_t index_hash(const t_ipaddr& address) {
  t_tloc_id tloc = {};
  tloc.family = address.family;
  if (address.family == KEL_AF_INET) {
    tloc.addr.v4 = address.addr.v4;
  } else {
    memcpy(tloc.addr.v6, address.addr.v6, sizeof tloc.addr.v6);
  }
  return tloc_hash(tloc);
}

void policy_index_stale(t_pol_ctx* ctx, t_pol_block* block, const t_pol_entry* grown) {
  if (ctx == nullptr || block == nullptr || is_forwarding(block->kind)) return;
  if (PolicyIndex* index = block->index) {
    if (index->fresh) {
      index->fresh = false;
      index->grows = true;
      index->last_grew = false;
    }
    const bool is_last =
        grown != nullptr && InOrder::linked(grown) && InOrder::next(grown) == nullptr;
    index->grows = index->grows && is_last;
    if (index->grows && grown == index->nodes[index->count - 1].entry) index->last_grew = true;
  }
  block->index_due = 1;
  if (!block->users.empty() && !IndexQueue::linked(block)) ctx->index_due.push_back(block);
}

void policy_index_refresh(t_pol_ctx* ctx, t_pol_block* block) {
  if (block->index_due == 0) return;
  block->index_due = 0;
  if (IndexQueue::linked(block)) ctx->index_due.remove(block);
  if (block->index != nullptr && index_grow(block->index)) return;
  PolicyIndex* made = index_make(*block);
  // After the new one is there, so that lists which both have stay enrolled.
  index_free(block->index);
  block->index = made;
}

void policy_index_refresh_all(t_pol_ctx* ctx) {
  while (t_pol_block* block = ctx->index_due.front()) policy_index_refresh(ctx, block);
}

void policy_index_drop(t_pol_ctx* ctx, t_pol_block* block) {
  if (IndexQueue::linked(block)) ctx->index_due.remove(block);
  index_free(block->index);
  block->index = nullptr;
}

}  // namespace pol
