// SPDX-License-Identifier: Apache-2.0
#include "core/pol_policy_index.h"

#include <algorithm>
#include <cstring>

#include "base/pol_memory.h"
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

// The bit of each kind's clause; INDEX_TYPE has none.
constexpr uint32_t kClauses[INDEX_KINDS] = {0,
                                            POL_MATCH_F_TAG,
                                            POL_MATCH_F_PREF,
                                            POL_MATCH_F_DOMAIN,
                                            POL_MATCH_F_VPN_ID,
                                            POL_MATCH_F_SITE,
                                            POL_MATCH_F_CARRIER,
                                            POL_MATCH_F_COLOR,
                                            POL_MATCH_F_TLOC,
                                            POL_MATCH_F_ORIGIN,
                                            POL_MATCH_F_ORIGINATOR,
                                            POL_MATCH_F_GROUP,
                                            POL_MATCH_F_VPN_LIST,
                                            POL_MATCH_F_SITE_LIST,
                                            POL_MATCH_F_TLOC_LIST,
                                            POL_MATCH_F_COLOR_LIST,
                                            POL_MATCH_F_PFX_LIST};

constexpr uint32_t kListClauses = POL_MATCH_F_VPN_LIST | POL_MATCH_F_SITE_LIST |
                                  POL_MATCH_F_TLOC_LIST | POL_MATCH_F_COLOR_LIST |
                                  POL_MATCH_F_PFX_LIST;

const t_pol_clause_user* list_user(const t_pol_match& match, IndexKind kind) {
  switch (kind) {
    case INDEX_VPN_LIST:
      return &match.vpn_list;
    case INDEX_SITE_LIST:
      return &match.site_list;
    case INDEX_TLOC_LIST:
      return &match.tloc_list;
    case INDEX_COLOR_LIST:
      return &match.color_list;
    case INDEX_PFX_LIST:
      return &match.pfx_list;
    default:
      return nullptr;
  }
}

ListDirectory* directory_of(t_pol_ctx* ctx, IndexKind kind) {
  switch (kind) {
    case INDEX_VPN_LIST:
      return &ctx->directories.vpn;
    case INDEX_SITE_LIST:
      return &ctx->directories.site;
    case INDEX_TLOC_LIST:
      return &ctx->directories.tloc;
    case INDEX_COLOR_LIST:
      return &ctx->directories.color;
    default:
      return &ctx->directories.pfx;
  }
}

bool has_clause(const t_pol_entry& entry, IndexKind kind) {
  return kind == INDEX_TYPE || (entry.match_flags & kClauses[kind]) != 0;
}

// The keys under which a sequence that has the clause is found: at most two, none when it never holds.
unsigned keys_of(const t_pol_entry& entry, IndexKind kind, uint64_t keys[2]) {
  const t_pol_match& match = entry.match;
  unsigned count = 1;
  switch (kind) {
    case INDEX_TYPE:
      keys[0] = match.type;
      break;
    case INDEX_TAG:
      keys[0] = match.tag;
      break;
    case INDEX_PREFERENCE:
      keys[0] = match.preference;
      break;
    case INDEX_DOMAIN:
      keys[0] = match.domain;
      break;
    case INDEX_VPN_ID:
      keys[0] = match.vpn_id;
      break;
    case INDEX_SITE:
      keys[0] = match.site;
      break;
    case INDEX_CARRIER:
      keys[0] = match.carrier;
      break;
    case INDEX_COLOR:
      keys[0] = match.color;
      break;
    case INDEX_TLOC:
      keys[0] = tloc_hash(match.tloc);
      break;
    case INDEX_ORIGIN:
      keys[0] = index_origin_key(match.origin_protocol, match.origin_subtype);
      keys[1] = index_origin_key(match.origin_subtype);
      count = 2;
      break;
    case INDEX_ORIGINATOR:
      keys[0] = index_key(match.originator);
      break;
    case INDEX_GROUP:
      keys[0] = match.group;
      break;
    default: {
      const NamedHead* list = list_user(match, kind)->list;
      keys[0] = reinterpret_cast<uintptr_t>(list);
      if (list == nullptr) count = 0;
    }
  }
  return count;
}

template <class T>
T* zeroed(size_t count) {
  return static_cast<T*>(pol_calloc(count, sizeof(T), MEM_UNCOUNTED));
}

// Makes one field; sequences are given last first, so that a chain's first word is its lowest.
class FieldBuilder {
 public:
  FieldBuilder(IndexField* field, uint32_t words, uint32_t with) : field_(field) {
    uint32_t slots = 4;
    const uint32_t keys = field->kind == INDEX_ORIGIN ? 2 * with : with;
    while (slots < keys + keys / 4 + 1) slots *= 2;
    field->mask = slots - 1;
    field->slots = zeroed<IndexSlot>(slots);
    done_ = field->slots != nullptr;
    if (field->without == 0) return;
    field->any = zeroed<uint64_t>(words + (words + 63) / 64);
    done_ = done_ && field->any != nullptr;
    if (done_) field->any_words = field->any + words;
  }

  void add(const t_pol_entry& entry, uint32_t place) {
    if (!done_) return;
    const uint32_t at = place / 64;
    const uint64_t bit = uint64_t{1} << place % 64;
    if (!has_clause(entry, field_->kind)) {
      field_->any[at] |= bit;
      field_->any_words[at / 64] |= uint64_t{1} << at % 64;
      return;
    }
    uint64_t keys[2];
    for (unsigned i = 0, count = keys_of(entry, field_->kind, keys); i < count; ++i) {
      add_key(keys[i], at, bit);
    }
  }

  // False when memory ran out.
  bool finish() {
    if (done_ && used_ != 0 && used_ < room_) {
      void* smaller = pol_realloc(field_->more, used_ * sizeof(IndexWord));
      if (smaller != nullptr) field_->more = static_cast<IndexWord*>(smaller);
    }
    return done_;
  }

 private:
  void add_key(uint64_t key, uint32_t at, uint64_t bit) {
    uint32_t i = IndexField::hash(key) & field_->mask;
    while (field_->slots[i].first.bits != 0 && field_->slots[i].key != key) {
      i = (i + 1) & field_->mask;
    }
    IndexSlot* slot = &field_->slots[i];
    if (slot->first.bits == 0) {
      *slot = {key, {bit, at, 0}};
      note_list(key);
    } else if (slot->first.at == at) {
      slot->first.bits |= bit;
    } else if (make_room()) {
      field_->more[used_++] = slot->first;
      slot->first = {bit, at, used_};
    }
  }

  void note_list(uint64_t key) {
    if (field_->kind < INDEX_VPN_LIST || field_->list_count > IndexField::kFewLists) return;
    if (field_->list_count < IndexField::kFewLists) {
      field_->lists[field_->list_count] = reinterpret_cast<const NamedHead*>(key);
    }
    ++field_->list_count;
  }

  bool make_room() {
    if (used_ < room_) return true;
    const uint32_t room = room_ == 0 ? 16 : room_ * 2;
    auto* grown =
        static_cast<IndexWord*>(room_ == 0 ? pol_malloc(room * sizeof(IndexWord), MEM_UNCOUNTED)
                                           : pol_realloc(field_->more, room * sizeof(IndexWord)));
    done_ = grown != nullptr;
    if (!done_) return false;
    field_->more = grown;
    room_ = room;
    return true;
  }

  IndexField* field_;
  uint32_t used_ = 0;
  uint32_t room_ = 0;
  bool done_ = true;
};

void enter_elements(ListDirectory* directory, const NamedHead* head, IndexKind kind) {
  switch (kind) {
    case INDEX_VPN_LIST:
      for (const RangeNode& node : reinterpret_cast<const t_vpn_list*>(head)->entries.in_order()) {
        directory_range(directory, *head, node.low, node.high, true);
      }
      break;
    case INDEX_SITE_LIST:
      for (const RangeNode& node : reinterpret_cast<const t_site_list*>(head)->entries.in_order()) {
        directory_range(directory, *head, node.low, node.high, true);
      }
      break;
    case INDEX_TLOC_LIST:
      for (const t_tloc_entry& entry : reinterpret_cast<const t_tloc_list*>(head)->entries) {
        directory_tloc(directory, *head, entry.tloc, true);
      }
      break;
    case INDEX_COLOR_LIST:
      for (const t_color_entry& entry : reinterpret_cast<const t_color_list*>(head)->entries) {
        directory_color(directory, *head, entry.color, true);
      }
      break;
    default:
      for (const t_pfx_entry& entry : reinterpret_cast<const t_pfx_list*>(head)->entries) {
        directory_prefix(directory, *head, entry, true);
      }
  }
}

void enrol_lists(t_pol_ctx* ctx, IndexField* field) {
  ListDirectory* directory = directory_of(ctx, field->kind);
  // What others had enrolled is lost to them until their next change.
  if (directory->broken) directory_clear(directory);
  for (uint32_t i = 0; i <= field->mask; ++i) {
    if (field->slots[i].first.bits == 0) continue;
    auto* list = reinterpret_cast<NamedHead*>(field->slots[i].key);
    if (directory_has(*directory, *list)) continue;
    directory_enrol(directory, list);
    enter_elements(directory, list, field->kind);
  }
  field->generation = directory->generation;
  ++directory->users;
}

void index_free(t_pol_ctx* ctx, PolicyIndex* index) {
  if (index == nullptr) return;
  for (unsigned i = 0; i < index->field_count; ++i) {
    IndexField& field = index->fields[i];
    pol_free(field.any, MEM_UNCOUNTED);
    pol_free(field.slots, MEM_UNCOUNTED);
    pol_free(field.more, MEM_UNCOUNTED);
    if (field.generation == 0) continue;
    ListDirectory* directory = directory_of(ctx, field.kind);
    if (field.generation == directory->generation && --directory->users == 0) {
      directory_clear(directory);
    }
  }
  pol_free(index->entries, MEM_UNCOUNTED);
  pol_free(index, MEM_UNCOUNTED);
}

// What a policy's sequences are like before its index is made.
struct Survey {
  uint32_t count = 0;
  uint32_t clauses = 0;
  uint32_t type = 0;  // of all sequences; 0 once two differ
  uint32_t with[INDEX_KINDS] = {};
  uint32_t weight = 0;
  bool left_over = false;  // a clause that stays on a list which it is no user of
};

Survey survey_of(const t_pol_block& block) {
  Survey survey;
  for (const t_pol_entry& entry : block.in_order) {
    const uint32_t type = entry.match.type;
    if (survey.count++ == 0) survey.type = type;
    if (survey.type != type) survey.type = 0;
    survey.clauses |= entry.match_flags;
    const bool lists = (entry.match_flags & kListClauses) != 0;
    const bool values = (entry.match_flags & ~kListClauses) != 0;
    survey.weight += lists && !values ? kWeightOfLists : kWeight;
    for (unsigned kind = 0; kind < INDEX_KINDS; ++kind) {
      if (!has_clause(entry, static_cast<IndexKind>(kind))) continue;
      ++survey.with[kind];
      const t_pol_clause_user* user = list_user(entry.match, static_cast<IndexKind>(kind));
      survey.left_over |= user != nullptr && is_stale(*user);
    }
  }
  return survey;
}

PolicyIndex* index_make(t_pol_ctx* ctx, const t_pol_block& block) {
  const Survey survey = survey_of(block);
  if (survey.count <= kWalked || survey.weight <= kWalkedWeight || survey.left_over) return nullptr;
  IndexKind kinds[INDEX_KINDS];
  uint8_t used = 0;
  for (unsigned kind = 0; kind < INDEX_KINDS; ++kind) {
    if (kind == INDEX_TYPE && survey.type != 0) continue;
    if (survey.with[kind] != 0) kinds[used++] = static_cast<IndexKind>(kind);
  }
  std::sort(kinds, kinds + used, [&survey](IndexKind a, IndexKind b) {
    if ((a >= INDEX_VPN_LIST) != (b >= INDEX_VPN_LIST)) return b >= INDEX_VPN_LIST;
    if (survey.with[a] != survey.with[b]) return survey.with[a] > survey.with[b];
    return a < b;
  });
  auto* index = static_cast<PolicyIndex*>(
      pol_calloc(1, sizeof(PolicyIndex) + used * sizeof(IndexField), MEM_UNCOUNTED));
  if (index == nullptr) return nullptr;
  index->directories = &ctx->directories;
  index->clauses = survey.clauses;
  index->type = static_cast<uint8_t>(survey.type);
  index->count = survey.count;
  index->words = (survey.count + 63) / 64;
  index->entries =
      static_cast<t_pol_entry**>(pol_calloc(survey.count, sizeof(void*), MEM_UNCOUNTED));
  bool done = index->entries != nullptr;
  if (done) {
    uint32_t place = 0;
    for (t_pol_entry& entry : block.in_order) index->entries[place++] = &entry;
  }
  for (unsigned i = 0; done && i < used; ++i) {
    IndexField* field = &index->fields[index->field_count++];
    field->kind = kinds[i];
    field->without = survey.count - survey.with[kinds[i]];
    FieldBuilder builder(field, index->words, survey.with[kinds[i]]);
    for (uint32_t place = survey.count; place-- > 0;) builder.add(*index->entries[place], place);
    done = builder.finish();
    if (done && field->list_count > IndexField::kFewLists) enrol_lists(ctx, field);
  }
  if (!done) {
    index_free(ctx, index);
    return nullptr;
  }
  index->fresh = true;
  return index;
}

}  // namespace

uint64_t index_key(const t_ipaddr& address) {
  t_tloc_id tloc = {};
  tloc.family = address.family;
  if (address.family == KEL_AF_INET) {
    tloc.addr.v4 = address.addr.v4;
  } else {
    memcpy(tloc.addr.v6, address.addr.v6, sizeof tloc.addr.v6);
  }
  return tloc_hash(tloc);
}

void policy_index_stale(t_pol_ctx* ctx, t_pol_block* block) {
  if (ctx == nullptr || block == nullptr || is_forwarding(block->kind)) return;
  if (block->index != nullptr) block->index->fresh = false;
  block->index_due = 1;
  if (!block->users.empty() && !IndexQueue::linked(block)) ctx->index_due.push_back(block);
}

void policy_index_refresh(t_pol_ctx* ctx, t_pol_block* block) {
  if (block->index_due == 0) return;
  block->index_due = 0;
  if (IndexQueue::linked(block)) ctx->index_due.remove(block);
  PolicyIndex* made = index_make(ctx, *block);
  // After the new one is there, so that lists which both have stay enrolled.
  index_free(ctx, block->index);
  block->index = made;
}

void policy_index_refresh_all(t_pol_ctx* ctx) {
  while (t_pol_block* block = ctx->index_due.front()) policy_index_refresh(ctx, block);
}

void policy_index_drop(t_pol_ctx* ctx, t_pol_block* block) {
  if (IndexQueue::linked(block)) ctx->index_due.remove(block);
  index_free(ctx, block->index);
  block->index = nullptr;
}

}  // namespace pol
