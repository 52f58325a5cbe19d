// SPDX-License-Identifier: Apache-2.0
//
// `query user key=value...` asks a user's policy about a route and tells the action, what was
// applied, and what was resolved; `answers=N` TLOCs come of each call of the host's. Of N groups
// the last one that there is room for is set, `behind` is what lies behind them.
#include "policy/pol_exec.h"
#include "support/script.h"

namespace {

uint32_t g_answers = 0;
std::string g_resolved;

}  // namespace

// A careless host: it may claim more than there is room for, and writes nothing.
void ScriptTest::resolved(uint16_t id, uint32_t ipv4, uint8_t color, uint8_t encap, uint64_t vpn,
                          uint16_t service, t_pol_tloc_result* result) {
  std::ostringstream asked;
  asked << " " << id << ":" << ipv4 << ":" << int{color} << ":" << int{encap} << "/" << vpn << "/"
        << service;
  g_resolved += asked.str();
  result->count += g_answers;
}

void ScriptTest::queries(Args& args) {
  t_pol_user* user = user_at(args.take());
  t_pol_route_attr attr = {};
  t_pol_route_query query;
  t_pol_tloc_result tlocs = {};
  pol_pre_execute(&query, 3);
  query.match_type = POL_MATCH_ROUTE;
  query.attr = &attr;
  query.tlocs = &tlocs;
  g_answers = 1;
  g_resolved.clear();
  while (args.more()) {
    const std::string word = args.take();
    const size_t equal = std::min(word.find('='), word.size() - 1);
    const std::string key = word.substr(0, equal);
    const std::string value = word.substr(equal + 1);
    const auto number = static_cast<uint32_t>(strtoul(value.c_str(), nullptr, 0));
    if (key == "match") query.match_type = static_cast<uint8_t>(number);
    if (key == "id") query.id = static_cast<uint16_t>(number);
    if (key == "vpn") query.vpn = number;
    if (key == "prefix") query.prefix = script::prefix(value).prefix;
    if (key == "attributes") query.attr = nullptr;
    if (key == "array") query.tlocs = nullptr;
    if (key == "answers") g_answers = number;
    if (key == "site") attr.site = number;
    if (key == "label") attr.label = number;
    if (key == "groups") attr.present |= POL_ATTR_GROUP, attr.group_count = number;
    if (key == "last") attr.group[POL_MAX_GROUP - 1] = number;
    if (key == "behind") memcpy(attr.reserved, &number, sizeof number);
    if (key == "tloc") attr.present |= POL_ATTR_TLOC, attr.tloc = script::tloc(value);
    if (key == "origin") {
      attr.present |= POL_ATTR_ORIGIN;
      attr.origin_protocol = static_cast<uint8_t>(number);
      attr.origin_subtype = static_cast<uint8_t>(atoi(value.c_str() + value.find('/') + 1));
    }
  }
  std::ostringstream out;
  const uint32_t action = script::armed(args, [&] { return pol_execute(user, &query); });
  out << (action == POL_ACCEPT ? "accepted" : "rejected") << " applied " << int{query.applied};
  if (!g_resolved.empty()) out << " resolved" << g_resolved;
  if (tlocs.count != 0) out << " TLOCs " << tlocs.count;
  if (tlocs.ultimate != 0) out << " ultimate " << int{tlocs.ultimate};
  if (tlocs.ultimate != 0 && tlocs.count != 0) {
    const Result& last = tlocs.entry[tlocs.count - 1];
    out << " " << printed_tloc(last.tloc) << "=" << last.label << "/" << last.preference;
  }
  for (uint32_t i = 0; i < query.vpn_count; ++i) {
    out << " VPN " << query.vpn_array[i].low << "-" << query.vpn_array[i].high;
  }
  say(out.str());
  pol_post_execute(&query);
}
