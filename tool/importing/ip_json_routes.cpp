// SPDX-License-Identifier: Apache-2.0
//
// Routes as `ip -j route` prints a routing table: an array of objects. The destination is the prefix; the
// kernel's own routes are "connected", those that somebody set "static", of other protocols the table does
// not say which origin they have. The host's own addresses and broadcasts are no routes that policy is asked
// about and are passed over.
#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "host/address_text.h"
#include "host/input_error.h"
#include "route_import.h"

namespace polctl {

namespace {

using nlohmann::json;

class IpRoutes {
 public:
  explicit IpRoutes(const std::string& name) : name_(name) {}

  std::string lines(const json& table) {
    if (!table.is_array()) fail("it is no array", "what \"ip -j route\" prints");
    for (const json& each : table) {
      if (!each.is_object()) fail(fmt::format("route {} is no object", number_), "an object");
      add(each);
      ++number_;
    }
    return std::move(lines_);
  }

 private:
  [[noreturn]] void fail(const std::string& what, const std::string& expected) const {
    throw InputError(fmt::format("{}: error: {} (expected {})", name_, what, expected));
  }

  std::string text(const json& route, const char* member) const {
    auto found = route.find(member);
    if (found == route.end()) return "";
    if (!found->is_string()) {
      fail(fmt::format("route {}: \"{}\" is no text", number_, member), "a text");
    }
    return found->get<std::string>();
  }

  // Only what stands beside it tells of which family a default route is.
  bool is_ipv6(const json& route) const {
    for (const char* member : {"gateway", "prefsrc", "from"}) {
      if (text(route, member).find(':') != std::string::npos) return true;
    }
    auto via = route.find("via");
    if (via == route.end()) return ipv6_seen_;
    return via->is_object() && text(*via, "family") == "inet6";
  }

  void add(const json& route) {
    for (const char* own : {"local", "broadcast", "multicast", "anycast"}) {
      if (text(route, "type") == own) return;
    }
    std::string prefix = text(route, "dst");
    if (prefix.empty()) fail(fmt::format("route {} has no \"dst\"", number_), "its prefix");
    if (prefix == "default") {
      prefix = is_ipv6(route) ? "::/0" : "0.0.0.0/0";
    } else {
      bool ipv6 = prefix.find(':') != std::string::npos;
      ipv6_seen_ = ipv6_seen_ || ipv6;
      if (prefix.find('/') == std::string::npos) prefix += ipv6 ? "/128" : "/32";
    }
    t_ipprefix parsed = {};
    LineFault fault;
    if (!parse_prefix(prefix, &parsed, &fault)) {
      fail(fmt::format("route {}: {}", number_, fault.what), fault.expected);
    }
    std::string protocol = text(route, "protocol");
    const char* origin = protocol == "kernel"                         ? ",\"origin\":\"connected\""
                         : protocol == "static" || protocol == "boot" ? ",\"origin\":\"static\""
                                                                      : "";
    lines_ += fmt::format("{{\"type\":\"route\",\"prefix\":\"{}\"{}}}\n", prefix, origin);
  }

  const std::string& name_;
  size_t number_ = 1;
  bool ipv6_seen_ = false;
  std::string lines_;
};

}  // namespace

std::string lines_of_ip_json(std::string_view text, const std::string& name) {
  json table;
  try {
    table = json::parse(text);
  } catch (const json::parse_error& error) {
    size_t byte = std::min(error.byte, text.size());
    std::string_view before = text.substr(0, byte > 0 ? byte - 1 : 0);
    size_t line = 1 + static_cast<size_t>(std::count(before.begin(), before.end(), '\n'));
    size_t start = before.rfind('\n');
    size_t column = before.size() - (start == std::string_view::npos ? 0 : start + 1) + 1;
    throw InputError(fmt::format("{}:{}:{}: error: bad JSON (expected what \"ip -j route\" prints)",
                                 name, line, column));
  }
  return IpRoutes(name).lines(table);
}

}  // namespace polctl
