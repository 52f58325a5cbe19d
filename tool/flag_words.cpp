// SPDX-License-Identifier: Apache-2.0
#include "flag_words.h"

#include "policy/pol_types.h"

namespace polctl {

namespace {

struct FlagWord {
  uint32_t bit;
  const char* word;
};

constexpr FlagWord kMatchWords[] = {
    {POL_MATCH_F_TAG, "TAG"},
    {POL_MATCH_F_DOMAIN, "DOMAIN"},
    {POL_MATCH_F_PREF, "PREF"},
    {POL_MATCH_F_VPN_ID, "VPN-ID"},
    {POL_MATCH_F_VPN_LIST, "VPN-LIST"},
    {POL_MATCH_F_SITE, "SITE"},
    {POL_MATCH_F_SITE_LIST, "SITE-LIST"},
    {POL_MATCH_F_TLOC, "TLOC"},
    {POL_MATCH_F_TLOC_LIST, "TLOC-LIST"},
    {POL_MATCH_F_PFX_LIST, "PFX-LIST"},
    {POL_MATCH_F_ORIGIN, "ORIGIN"},
    {POL_MATCH_F_ORIGINATOR, "ORIGINATOR"},
    {POL_MATCH_F_CARRIER, "CARRIER"},
    {POL_MATCH_F_GROUP, "GROUP"},
    {POL_MATCH_F_SRC_PORT, "SRC_PORT"},
    {POL_MATCH_F_DST_PORT, "DST_PORT"},
    {POL_MATCH_F_DSCP, "DSCP"},
    {POL_MATCH_F_PROTO, "PROTO"},
    {POL_MATCH_F_COLOR, "COLOR"},
    {POL_MATCH_F_COLOR_LIST, "COLOR-LIST"},
};

constexpr FlagWord kAppliedWords[] = {
    {POL_APPLIED_TAG, "TAG"},         {POL_APPLIED_PREF, "PREF"},
    {POL_APPLIED_TLOC, "TLOC"},       {POL_APPLIED_VPN, "VPN-ID"},
    {POL_APPLIED_SERVICE, "SERVICE"}, {POL_APPLIED_TLOC_LIST, "TLOC_LIST"},
};

}  // namespace

void matched_words(uint32_t matched, std::vector<const char*>* words) {
  words->clear();
  for (const FlagWord& row : kMatchWords) {
    if ((matched & row.bit) != 0) words->push_back(row.word);
  }
}

void applied_words(uint32_t applied, std::vector<const char*>* words) {
  words->clear();
  for (const FlagWord& row : kAppliedWords) {
    if ((applied & row.bit) != 0) words->push_back(row.word);
  }
}

const char* clause_word(uint32_t clause) {
  if (clause == 0) return "TYPE";
  for (const FlagWord& row : kMatchWords) {
    if (clause == row.bit) return row.word;
  }
  return "unknown";
}

}  // namespace polctl
