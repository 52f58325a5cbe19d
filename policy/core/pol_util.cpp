// SPDX-License-Identifier: Apache-2.0
// The words for the library's numbers.
#include "policy/pol_util.h"

#include <cstdio>

#include "core/pol_block_internal.h"

namespace {

// Words for 1 to N.
template <size_t N>
const char* word(const char* const (&words)[N], uint32_t value, const char* none) {
  return value >= 1 && value <= N ? words[value - 1] : none;
}

struct FlagName {
  uint32_t bit;
  const char* name;
};

// Kept on purpose: two bits print twice, so that a match on carrier also shows as SRC_IP and one on
// group as DST_IP, and SRC66_IP is spelt so.
constexpr FlagName kMatchFlags[] = {
    {0x20, "TAG"},          {0x80, "DOMAIN"},       {0x40, "PREF"},       {0x100, "VPN-ID"},
    {0x200, "VPN-LIST"},    {0x2, "SITE"},          {0x1, "SITE-LIST"},   {0x8, "TLOC"},
    {0x4, "TLOC-LIST"},     {0x10, "PFX-LIST"},     {0x400, "ORIGIN"},    {0x800, "ORIGINATOR"},
    {0x1000, "CARRIER"},    {0x2000, "GROUP"},      {0x1000, "SRC_IP"},   {0x2000, "DST_IP"},
    {0x800000, "SRC66_IP"}, {0x1000000, "DST6_IP"}, {0x4000, "SRC_PORT"}, {0x8000, "DST_PORT"},
    {0x10000, "DSCP"},      {0x20000, "PROTO"},     {0x100000, "COLOR"},  {0x200000, "COLOR-LIST"},
};

constexpr FlagName kSetFlags[] = {
    {0x1, "TAG"},       {0x4, "PREF"},     {0x2, "TLOC"},       {0x8, "VPN-ID"},
    {0x10, "VPN-LIST"}, {0x40, "SERVICE"}, {0x20, "TLOC_LIST"},
};

template <size_t N>
char* print_flags(const FlagName (&names)[N], uint32_t flags, char* buffer, size_t size) {
  if (buffer == nullptr || size == 0) return buffer;
  if (flags == 0) buffer[0] = '\0';
  size_t used = 0;
  for (const FlagName& row : names) {
    if ((flags & row.bit) == 0) continue;
    int length = snprintf(buffer + used, size - used, "%s ", row.name);
    if (length < 0 || static_cast<size_t>(length) >= size - used) break;
    used += static_cast<size_t>(length);
  }
  return buffer;
}

}  // namespace

const char* pol_util_type_str(uint32_t kind) {
  return word({"route", "data", "perf route", "membership", "cflowd"}, kind, "unknown");
}

const char* pol_util_action_str(uint32_t action) {
  return word({"accept", "reject"}, action, "unknown");
}

const char* pol_util_dir_str(uint32_t direction) {
  return direction == POL_DIR_NONE ? "none" : word({"in", "out"}, direction, "UNKNOWN");
}

const char* pol_util_match_type_str(uint32_t match_type) {
  return word({"route", "tloc", "service", "packet"}, match_type, "unknown");
}

const char* pol_util_list_type_str(uint32_t list_type) {
  return word({"prefix-list", "site-list", "tloc-list"}, list_type, "unknown");
}

const char* pol_util_pfx_op_str(uint32_t op) {
  return word({"RANGE", "XRANGE", "EQ", "NE", "LE", "LT", "GE", "GT"}, op, "UNKNOWN");
}

const char* pol_util_dscp_str(uint32_t index) {
  if (index == 0) return "default";
  return word({"af11", "af12", "af13", "af21", "af22", "af23", "af31", "af32", "af33", "af41",
               "af42", "af43", "ef",   "cs1",  "cs2",  "cs3",  "cs4",  "cs5",  "cs6",  "cs7"},
              index, "unknown");
}

const char* pol_util_proto_str(uint32_t proto) {
  return word({"udp", "tcp", "icmp"}, proto, "unknown");
}

char* pol_util_match_flags_str(const t_pol_entry* entry, char* buffer, size_t size) {
  return entry != nullptr ? print_flags(kMatchFlags, entry->match_flags, buffer, size) : buffer;
}

char* pol_util_set_flags_str(const t_pol_entry* entry, char* buffer, size_t size) {
  return entry != nullptr ? print_flags(kSetFlags, entry->set_flags, buffer, size) : buffer;
}
