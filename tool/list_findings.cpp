// SPDX-License-Identifier: Apache-2.0
//
// Members of lists, and ranges elsewhere, that match nothing, or more than they seem to.
#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "config_findings.h"
#include "host/address_text.h"
#include "host/config_mirror.h"
#include "policy/pol_config_tags.h"

namespace polctl {

namespace {

struct Range {
  uint64_t low = 0;
  uint64_t high = 0;
};

// REQUIRES: a text that the schema takes for a range.
Range range_of(const std::string& text) {
  Range range;
  const char* last = text.data() + text.size();
  auto [end, error] = std::from_chars(text.data(), last, range.low);
  range.high = range.low;
  if (error == std::errc() && end != last) std::from_chars(end + 1, last, range.high);
  return range;
}

void judge_order(const std::string& text, const std::string& path, ConfigFindings* findings) {
  Range range = range_of(text);
  if (range.low <= range.high) return;
  findings->push_back({path,
                       fmt::format("the range {} is the wrong way round and holds nothing", text),
                       fmt::format("{}-{}", range.high, range.low), true});
}

// The bounds as their reader settles them: both of `length` where it is there, and 0 for none.
struct Bounds {
  unsigned least = 0;
  unsigned most = 0;
  bool by_length = false;
};

Bounds bounds_of(const t_yarrow_change& change) {
  Bounds bounds;
  unsigned length = 0;
  for_each_leaf(change, [&](const Scope&, const t_yarrow_tag_value& leaf) {
    if (leaf.v.type != C_UINT8) return;
    if (leaf.tag == POL_TAG_GE) bounds.least = leaf.v.val.u8;
    if (leaf.tag == POL_TAG_LE) bounds.most = leaf.v.val.u8;
    if (leaf.tag != POL_TAG_LENGTH) return;
    length = leaf.v.val.u8;
    bounds.by_length = true;
  });
  if (bounds.by_length) bounds.least = bounds.most = length;
  return bounds;
}

void judge_prefix(const t_yarrow_change& change, const std::string& path,
                  ConfigFindings* findings) {
  Bounds bounds = bounds_of(change);
  if (bounds.least == 0 && bounds.most == 0) {
    if (bounds.by_length) {
      findings->push_back(
          {path + "/length", "a length of 0 counts as none: the prefix matches as it stands"});
    }
    return;
  }
  const auto& prefix = change.keys[1].val.ipv4prefix;
  unsigned width = prefix.len;
  // The element of all zeros takes any prefix of a length in its bounds, of either family.
  if (width == 0 && prefix.ip == 0) {
    unsigned most = bounds.most > 0 ? bounds.most : 128;
    findings->push_back(
        {path,
         fmt::format("it also takes IPv6 prefixes of {} to {} bits: 0.0.0.0/0 with bounds asks "
                     "for a length alone",
                     bounds.least, most)});
    return;
  }
  if (bounds.most > 0 && bounds.most < width) {
    findings->push_back(
        {path,
         fmt::format("it never matches: what lies in a /{} has {} bits or more, and at most {} are "
                     "let through",
                     width, width, bounds.most),
         fmt::format("{} from {} to 32", bounds.by_length ? "length" : "le", width), true});
  }
}

}  // namespace

void judge_member(const t_yarrow_change& change, ConfigFindings* findings) {
  std::string_view path = change.path;
  std::string list(path.substr(0, path.rfind('/')));
  std::string at = fmt::format("{}{{{}}}{}", list, key_text(value_text(change.keys[0])),
                               path.substr(list.size()));
  if (path == "/policy/lists/prefix-list/prefix") {
    const auto& prefix = change.keys[1].val.ipv4prefix;
    t_ipprefix shown = {};
    shown.addr.family = KEL_AF_INET;
    shown.addr.addr.v4 = ntohl(prefix.ip);
    shown.len = prefix.len;
    return judge_prefix(change, fmt::format("{}{{{}}}", at, prefix_text(shown)), findings);
  }
  bool site = path == "/policy/lists/site-list/site";
  if (!site && path != "/policy/lists/vpn-list/vpn") return;
  std::string text = value_text(change.keys[1]);
  at += fmt::format("{{{}}}", text);
  judge_order(text, at, findings);
  if (site && range_of(text).low == 0) {
    findings->push_back({at, "it holds site 0, which every route without a site counts as"});
  }
}

void judge_ranges(const t_yarrow_change& change, const std::string& path,
                  ConfigFindings* findings) {
  for_each_leaf(change, [&](const Scope& scope, const t_yarrow_tag_value& leaf) {
    auto judge = [&](const t_yarrow_value& value) {
      if (value.type != C_BUF) return;
      std::string text = value_text(value);
      // Names are texts too: what is a range is known by its form, and its leaf by not being a name.
      size_t dash = text.find('-');
      bool numbers = text.find_first_not_of("0123456789-") == std::string::npos;
      if (dash == std::string::npos || !numbers || dash == 0 || dash + 1 == text.size()) return;
      std::string at = leaf_path(change, scope, leaf.tag);
      if (at.ends_with("-port") || at.ends_with("packet-length")) {
        judge_order(text, path + at, findings);
      }
    };
    judge(leaf.v);
    for (uint32_t i = 0; leaf.v.type == C_LIST && i < leaf.v.val.list.size; ++i) {
      judge(leaf.v.val.list.ptr[i]);
    }
  });
}

}  // namespace polctl
