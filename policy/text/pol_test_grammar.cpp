// SPDX-License-Identifier: Apache-2.0
#include "text/pol_test_grammar.h"

#include <cstring>

#include "base/pol_crash.h"

namespace pol {
namespace {

constexpr uint8_t kWhole = 0;

constexpr TextWord kActionWords[] = {{"accept", 6, POL_ACCEPT}, {"reject", kWhole, POL_REJECT}};
constexpr TextWord kMatchTypeWords[] = {{"route", 5, POL_MATCH_ROUTE},
                                        {"tloc", 4, POL_MATCH_TLOC},
                                        {"service", 7, POL_MATCH_SERVICE},
                                        {"packet", kWhole, POL_MATCH_PACKET}};
constexpr TextWord kProtocolWords[] = {{"udp", kWhole, 1}, {"tcp", kWhole, 2}, {"icmp", kWhole, 3}};
constexpr TextWord kDscpWords[] = {{"af11", kWhole, 1}, {"af12", kWhole, 2}, {"af13", kWhole, 3}};

constexpr TextValue kName = {TextValue::kName, "a name"};
constexpr TextValue kAnything = {TextValue::kAny, "an address"};
constexpr TextValue kNumber8 = {TextValue::kNumber, "a number from 0 to 255", UINT8_MAX};
constexpr TextValue kNumber16 = {TextValue::kNumber, "a number from 0 to 65535", UINT16_MAX};
constexpr TextValue kNumber32 = {TextValue::kNumber, "a number from 0 to 4294967295", UINT32_MAX};
constexpr TextValue kNumber63 = {TextValue::kNumber, "a number from 0 to 9223372036854775807",
                                 INT64_MAX};
constexpr TextValue kAddress = {TextValue::kAddress, "an IPv4 address such as 10.0.0.1"};
constexpr TextValue kPrefix = {TextValue::kPrefix, "an IPv4 prefix such as 10.0.0.0/8"};
constexpr TextValue kTloc = {TextValue::kTloc, "an IPv4 address and a color such as 10.0.0.1:3"};
constexpr TextValue kAction = {TextValue::kWord, nullptr, 0, kActionWords, POL_REJECT};
constexpr TextValue kMatchType = {TextValue::kWord, nullptr, 0, kMatchTypeWords, POL_MATCH_PACKET};
constexpr TextValue kProtocol = {TextValue::kWord, nullptr, 0, kProtocolWords, 0};
constexpr TextValue kDscp = {TextValue::kWord, nullptr, 0, kDscpWords, 0};

using enum TextNeeds;

constexpr TextRow kGroups[] = {
    {"sequence", kWhole, TextOp::kSequence, kPolicy, TextState::kGroup, {&kNumber32}},
    {"match", kWhole, TextOp::kMatch, kSequence, TextState::kMatchClause, {&kMatchType}},
    {"set", kWhole, TextOp::kSet, kSequence, TextState::kSetClause},
    {"action", 6, TextOp::kAction, kSequence, TextState::kGroup, {&kAction}},
    {"default-action", kWhole, TextOp::kDefaultAction, kPolicy, TextState::kGroup, {&kAction}},
    {"route-policy", 12, TextOp::kRoutePolicy, kNothing, TextState::kGroup, {&kName}},
    {"forwarding-policy", 17, TextOp::kFwdPolicy, kNothing, TextState::kGroup, {&kName}},
};

constexpr TextRow match_row(const char* keyword, uint8_t compared, TextOp op,
                            const TextValue* value, uint32_t flag,
                            TextList list = TextList::kNone) {
  return {keyword, compared, op, kSequence, TextState::kGroup, {value}, flag, flag, list};
}

constexpr TextRow set_row(const char* keyword, uint8_t compared, TextOp op, const TextValue* value,
                          TextList list = TextList::kNone) {
  return {keyword, compared, op, kSequence, TextState::kGroup, {value}, 0, 0, list};
}

constexpr TextRow kMatchClauses[] = {
    match_row("tag", kWhole, TextOp::kMatchTag, &kNumber32, POL_MATCH_F_TAG),
    match_row("preference", kWhole, TextOp::kMatchPreference, &kNumber32, POL_MATCH_F_PREF),
    match_row("domain", kWhole, TextOp::kMatchDomain, &kNumber32, POL_MATCH_F_DOMAIN),
    match_row("vpn-id", kWhole, TextOp::kMatchVpnId, &kNumber63, POL_MATCH_F_VPN_ID),
    match_row("site", kWhole, TextOp::kMatchSite, &kNumber32, POL_MATCH_F_SITE),
    match_row("site-list", 9, TextOp::kMatchSiteList, &kName, POL_MATCH_F_SITE_LIST,
              TextList::kSite),
    match_row("vpn-list", 8, TextOp::kMatchVpnList, &kName, POL_MATCH_F_VPN_LIST, TextList::kVpn),
    match_row("tloc-list", kWhole, TextOp::kMatchTlocList, &kName, POL_MATCH_F_TLOC_LIST,
              TextList::kTloc),
    match_row("prefix-list", 11, TextOp::kMatchPfxList, &kName, POL_MATCH_F_PFX_LIST,
              TextList::kPfx),
    {"tloc",
     kWhole,
     TextOp::kMatchTloc,
     kSequence,
     TextState::kGroup,
     {&kAddress, &kNumber8},
     POL_MATCH_F_TLOC,
     POL_MATCH_F_TLOC},
    match_row("source-port", 11, TextOp::kMatchSrcPort, &kNumber16, POL_MATCH_F_SRC_PORT),
    match_row("destination-port", 16, TextOp::kMatchDstPort, &kNumber16, POL_MATCH_F_DST_PORT),
    // On purpose: a protocol is kept under the DSCP's flag, and deleted under its own.
    {"protocol",
     8,
     TextOp::kMatchProtocol,
     kSequence,
     TextState::kGroup,
     {&kProtocol},
     POL_MATCH_F_DSCP,
     POL_MATCH_F_PROTO},
    match_row("dscp", 4, TextOp::kMatchDscp, &kDscp, POL_MATCH_F_DSCP),
    // Known, so that files which have them can be read; no sequence holds them.
    {"source-ip", 9, TextOp::kMatchSrcIp, kNothing, TextState::kGroup, {&kAnything}},
    {"destination-ip", 14, TextOp::kMatchDstIp, kNothing, TextState::kGroup, {&kAnything}},
};

constexpr TextRow kSetClauses[] = {
    set_row("tag", kWhole, TextOp::kSetTag, &kNumber32),
    set_row("preference", kWhole, TextOp::kSetPreference, &kNumber32),
    set_row("vpn-id", kWhole, TextOp::kSetVpnId, &kNumber63),
    set_row("vpn-list", 8, TextOp::kSetVpnList, &kName, TextList::kVpn),
    {"tloc", kWhole, TextOp::kSetTloc, kSequence, TextState::kGroup, {&kAddress, &kNumber8}},
};

constexpr TextRow list_row(TextOp op, TextState next, const TextValue* value, TextList list) {
  return {nullptr, 0, op, kNothing, next, {value}, 0, 0, list};
}

constexpr TextRow kSiteListRow[] = {
    list_row(TextOp::kList, TextState::kSite, &kName, TextList::kSite)};
constexpr TextRow kVpnListRow[] = {
    list_row(TextOp::kList, TextState::kVpn, &kName, TextList::kVpn)};
constexpr TextRow kTlocListRow[] = {
    list_row(TextOp::kList, TextState::kTloc, &kName, TextList::kTloc)};
constexpr TextRow kPfxListRow[] = {
    list_row(TextOp::kList, TextState::kPrefix, &kName, TextList::kPfx)};
constexpr TextRow kSiteRow[] = {
    list_row(TextOp::kElement, TextState::kEnd, &kNumber32, TextList::kSite)};
constexpr TextRow kVpnRow[] = {
    list_row(TextOp::kElement, TextState::kEnd, &kNumber32, TextList::kVpn)};
constexpr TextRow kTlocRow[] = {
    list_row(TextOp::kElement, TextState::kEnd, &kTloc, TextList::kTloc)};
constexpr TextRow kPrefixRow[] = {
    list_row(TextOp::kElement, TextState::kEnd, &kPrefix, TextList::kPfx)};

constexpr TextLine kLines[] = {
    {"route-policy", POL_TEST_ROUTE_POLICY, TextState::kGroup, 0},
    {"forwarding-policy", POL_TEST_FWD_POLICY, TextState::kGroup, 0},
    {"site-policy", POL_TEST_SITE_POLICY, TextState::kEnd, 0},
    {"prefix-list", POL_TEST_PFX_LIST, TextState::kPfxList, 1, TextList::kPfx},
    {"tloc-list", POL_TEST_TLOC_LIST, TextState::kTlocList, 1, TextList::kTloc},
    {"site-list", POL_TEST_SITE_LIST, TextState::kSiteList, 1, TextList::kSite},
    // On purpose: files never fill VPN lists, though there is a grammar for a host to call.
    {"vpn-list", POL_TEST_OTHER, TextState::kVpnList, 1, TextList::kVpn},
};

}  // namespace

std::span<const TextRow> text_rows(TextState state) {
  switch (state) {
    case TextState::kEnd:
      break;
    case TextState::kGroup:
      return kGroups;
    case TextState::kMatchClause:
      return kMatchClauses;
    case TextState::kSetClause:
      return kSetClauses;
    case TextState::kSiteList:
      return kSiteListRow;
    case TextState::kVpnList:
      return kVpnListRow;
    case TextState::kTlocList:
      return kTlocListRow;
    case TextState::kPfxList:
      return kPfxListRow;
    case TextState::kSite:
      return kSiteRow;
    case TextState::kVpn:
      return kVpnRow;
    case TextState::kTloc:
      return kTlocRow;
    case TextState::kPrefix:
      return kPrefixRow;
  }
  return {};
}

const TextRow* text_find(TextState state, const char* word) {
  for (const TextRow& row : text_rows(state)) {
    if (row.keyword == nullptr || text_is(word, row.keyword, row.compared)) return &row;
  }
  return nullptr;
}

TextState text_fallback(TextState state) {
  return state == TextState::kMatchClause ? TextState::kGroup : TextState::kEnd;
}

std::span<const TextLine> text_lines() { return kLines; }

const TextLine* text_line(const char* word) {
  for (const TextLine& line : kLines) {
    if (strcmp(word, line.keyword) == 0) return &line;
  }
  return nullptr;
}

const TextLine& text_list_line(TextList list) {
  for (const TextLine& line : kLines) {
    if (line.list == list) return line;
  }
  crash("a text list that no line fills");
}

bool text_is(const char* word, const char* keyword, uint8_t compared) {
  return compared == kWhole ? strcmp(word, keyword) == 0 : strncmp(word, keyword, compared) == 0;
}

uint32_t text_word_value(const TextValue& value, const char* word) {
  for (const TextWord& known : value.words) {
    if (text_is(word, known.text, known.compared)) return known.value;
  }
  return value.otherwise;
}

bool TextWalk::next(TextStep* step) {
  if (state_ == TextState::kEnd) return false;
  const char* word = words_.at(at_);
  const bool done = at_ >= words_.count;
  if (done && state_ == TextState::kGroup) return false;
  *step = {nullptr, state_, at_, at_, false};
  step->row = text_find(state_, word);
  if (step->row == nullptr && text_fallback(state_) != TextState::kEnd) {
    if (done) return false;
    step->row = text_find(text_fallback(state_), word);
  }
  if (step->row == nullptr) {
    state_ = TextState::kEnd;
    return true;
  }
  if (step->row->keyword != nullptr) ++at_;
  step->value = at_;
  for (const TextValue* value : step->row->value) {
    if (value != nullptr) ++at_;
  }
  step->deletes = text_is(words_.at(at_), "delete", 6);
  if (step->deletes) ++at_;
  const bool list_gone = step->deletes && step->row->op == TextOp::kList;
  state_ = list_gone ? TextState::kEnd : step->row->next;
  return true;
}

}  // namespace pol
