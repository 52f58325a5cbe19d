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

// Clauses that hold a value of their own: lists are told by their names.
constexpr FlagWord kSingleMatches[] = {
    {POL_MATCH_F_TAG, "tag"},          {POL_MATCH_F_PREF, "preference"},
    {POL_MATCH_F_DOMAIN, "domain-id"}, {POL_MATCH_F_VPN_ID, "vpn"},
    {POL_MATCH_F_SITE, "site-id"},     {POL_MATCH_F_GROUP, "group-id"},
    {POL_MATCH_F_COLOR, "color"},      {POL_MATCH_F_ORIGINATOR, "originator"},
    {POL_MATCH_F_CARRIER, "carrier"},  {POL_MATCH_F_ORIGIN, "origin"},
    {POL_MATCH_F_TLOC, "tloc"},        {POL_MATCH_F_SRC_PORT, "source-port"},
    {POL_MATCH_F_DSCP, "dscp"},        {POL_MATCH_F_DST_PORT, "destination-port"},
    {POL_MATCH_F_PROTO, "protocol"},
};

constexpr FlagWord kSingleSets[] = {
    {POL_SET_F_TAG, "tag"},   {POL_SET_F_PREF, "preference"}, {POL_SET_F_VPN_ID, "vpn"},
    {POL_SET_F_TLOC, "tloc"}, {POL_SET_F_SERVICE, "service"},
};

}  // namespace

void single_match_words(uint32_t match_flags, std::vector<std::string>* words) {
  for (const FlagWord& row : kSingleMatches) {
    if ((match_flags & row.bit) != 0) words->emplace_back(row.word);
  }
}

void single_set_words(uint32_t set_flags, std::vector<std::string>* words) {
  for (const FlagWord& row : kSingleSets) {
    if ((set_flags & row.bit) != 0) words->emplace_back(row.word);
  }
}

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
