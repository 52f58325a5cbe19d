// SPDX-License-Identifier: Apache-2.0
//
// The index of a prefix list against a walk over its elements: bytes become adds, overwrites,
// deletes and queries. Addresses come from few bits, so that elements nest, repeat and differ in
// host bits only; families, lengths, operators and bounds may be anything.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "byte_reader.h"
#include "lists/pol_pfx_index.h"
#include "support/pfx_oracle.h"

namespace {

constexpr uint32_t kFamilies[] = {KEL_AF_INET, KEL_AF_INET6, 0, 7};
constexpr size_t kMaxElements = 64;

// Family, address and length, one byte that says how and then what it takes.
t_ipprefix read_prefix(ByteReader* in) {
  t_ipprefix prefix = {};
  uint8_t shape = in->byte();
  prefix.addr.family = kFamilies[(shape & 0x0f) < 13 ? shape & 1 : 2 + (shape & 1)];
  if (shape >= 0xf0) return prefix;  // 0/0: elements with their own rule
  prefix.len = in->byte();
  if ((shape & 0x10) == 0) prefix.len %= 34;
  // Two bytes of address at the top, two at a place that moves: depth without long inputs.
  uint8_t bytes[16] = {};
  bytes[0] = static_cast<uint8_t>(in->byte() & 0xc3);
  bytes[1] = in->byte();
  size_t limit = prefix.addr.family == KEL_AF_INET ? 4 : 16;
  bytes[(shape >> 5) * 2 % limit] ^= in->byte();
  bytes[((shape >> 5) * 2 + 1) % limit] ^= in->byte();
  if (prefix.addr.family == KEL_AF_INET) {
    for (int i = 0; i < 4; ++i) prefix.addr.addr.v4 = prefix.addr.addr.v4 << 8 | bytes[i];
  } else {
    memcpy(prefix.addr.addr.v6, bytes, sizeof bytes);
  }
  return prefix;
}

t_pol_pfx_record read_element(ByteReader* in) {
  t_pol_pfx_record element = {};
  element.op = in->byte() % 10;
  element.min = in->byte();
  element.max = in->byte();
  element.prefix = read_prefix(in);
  return element;
}

bool is_known(uint32_t family) { return family == KEL_AF_INET || family == KEL_AF_INET6; }

// A second element of an unknown family is a broken invariant, and so is looking one up.
bool has_family(const std::vector<t_pol_pfx_record>& elements, const t_pol_pfx_record& element) {
  for (const t_pol_pfx_record& other : elements) {
    if (other.prefix.addr.family == element.prefix.addr.family) return true;
  }
  return false;
}

void compare(const pol::PfxIndex& index, const std::vector<t_pol_pfx_record>& elements,
             const t_ipprefix& prefix) {
  bool expected = false;
  for (const t_pol_pfx_record& element : elements) {
    expected = expected || element_takes(element, prefix);
  }
  if (index.matches(prefix) == expected) return;
  char address[64];
  std::fprintf(stderr, "%s/%u family %u among %zu elements: the walk says %d\n",
               ipaddr_print(&prefix.addr, address, sizeof address), prefix.len, prefix.addr.family,
               elements.size(), expected);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ByteReader in(data, size);
  pol::PfxIndex index = {};
  std::vector<t_pol_pfx_record> elements;
  std::vector<std::unique_ptr<t_pfx_entry_wide>> entries;  // the same, as the index knows them
  while (!in.done()) {
    const uint8_t what = in.byte();
    if (what % 4 == 0 && !elements.empty()) {
      const auto at = static_cast<std::ptrdiff_t>(in.byte() % elements.size());
      if (!is_known(elements[static_cast<size_t>(at)].prefix.addr.family)) continue;
      t_pfx_entry* entry = &entries[static_cast<size_t>(at)]->entry;
      if (what % 8 == 0) {
        index.remove(entry);
      } else if (index.take(elements[static_cast<size_t>(at)].prefix) != entry) {
        std::abort();
      }
      elements.erase(elements.begin() + at);
      entries.erase(entries.begin() + at);
    } else if (what % 4 == 1) {
      compare(index, elements, read_prefix(&in));
    } else {
      const t_pol_pfx_record element = read_element(&in);
      size_t at = 0;
      while (at < elements.size() && !same_prefix(elements[at].prefix, element.prefix)) ++at;
      const bool known_family = is_known(element.prefix.addr.family);
      if (known_family) {
        const t_pfx_entry* found = index.find(element.prefix);
        if (found != (at < elements.size() ? &entries[at]->entry : nullptr)) std::abort();
      }
      if (at < elements.size()) {
        if (!known_family) continue;
        if (!index.change(&entries[at]->entry, element)) std::abort();
        elements[at] = element;
      } else if (elements.size() < kMaxElements &&
                 (known_family || !has_family(elements, element))) {
        auto entry = std::make_unique<t_pfx_entry_wide>();
        pol::pfx_entry_fill(&entry->entry, element);
        pol::PfxIndex::Kept kept;
        if (!index.find_or_keep(element.prefix, &kept) || kept.element != nullptr) std::abort();
        if (kept.place != nullptr && what % 8 != 7) {
          index.settle(kept.place, &entry->entry);
        } else {
          if (kept.place != nullptr) index.give_up(element.prefix);
          if (!index.add(&entry->entry)) std::abort();
        }
        entries.push_back(std::move(entry));
        elements.push_back(element);
      }
    }
  }
  // Every element's own prefix, the one a bit longer, and both in the other family: where mistakes
  // at a border show.
  for (const t_pol_pfx_record& element : elements) {
    t_ipprefix prefix = element.prefix;
    for (uint32_t family : {element.prefix.addr.family, KEL_AF_INET, KEL_AF_INET6}) {
      prefix.addr.family = family;
      prefix.len = element.prefix.len;
      compare(index, elements, prefix);
      ++prefix.len;
      compare(index, elements, prefix);
    }
  }
  index.clear();
  return 0;
}
