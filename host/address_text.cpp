// SPDX-License-Identifier: Apache-2.0
#include "address_text.h"

#include <arpa/inet.h>
#include <fmt/compile.h>
#include <fmt/format.h>

#include <algorithm>

#include <cstring>

namespace polctl {

namespace {

constexpr const char* kAddressForm = "an address such as 10.1.0.0 or 2001:db8::1";
constexpr const char* kPrefixForm = "a prefix such as 10.1.0.0/16 or 2001:db8::/32";

bool fail(LineFault* fault, size_t offset, std::string what, std::string expected) {
  *fault = {offset + 1, std::move(what), std::move(expected)};
  return false;
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Reads a decimal number of at most three digits without a leading zero.
bool read_small(std::string_view text, size_t* at, unsigned* value) {
  size_t start = *at;
  unsigned n = 0;
  while (*at < text.size() && *at - start < 3 && is_digit(text[*at])) {
    n = n * 10 + static_cast<unsigned>(text[(*at)++] - '0');
  }
  *value = n;
  bool more = *at < text.size() && is_digit(text[*at]);
  return *at > start && !more && (text[start] != '0' || *at == start + 1);
}

// A number of at most three digits without a leading zero at the text's beginning, taken off it.
bool take_small(const char** at, const char* end, unsigned highest, unsigned* value) {
  const char* next = *at;
  if (next == end || !is_digit(*next)) return false;
  unsigned n = static_cast<unsigned>(*next++ - '0');
  if (n != 0) {
    for (int more = 0; more < 2 && next != end && is_digit(*next); ++more) {
      n = n * 10 + static_cast<unsigned>(*next++ - '0');
    }
  }
  *at = next;
  *value = n;
  return n <= highest;
}

// Four octets at the beginning, taken off it. Says nothing of faults.
bool quick_v4(const char** at, const char* end, t_ipaddr* address) {
  uint32_t value = 0;
  for (int octet = 0; octet < 4; ++octet) {
    unsigned n = 0;
    if (octet > 0 && (*at == end || *(*at)++ != '.')) return false;
    if (!take_small(at, end, 255, &n)) return false;
    value = value << 8 | n;
  }
  address->family = KEL_AF_INET;
  address->addr.v4 = value;
  return true;
}

bool parse_v4(std::string_view text, t_ipaddr* address, LineFault* fault) {
  uint32_t value = 0;
  size_t at = 0;
  for (int octet = 0; octet < 4; ++octet) {
    if (octet > 0) {
      if (at == text.size() || text[at] != '.') {
        return fail(fault, at, fmt::format("bad IPv4 address {}", in_quotes(text)),
                    "four octets with dots between them");
      }
      ++at;
    }
    size_t start = at;
    unsigned n = 0;
    if (!read_small(text, &at, &n) || n > 255) {
      return fail(fault, start, fmt::format("bad IPv4 address {}", in_quotes(text)),
                  "an octet from 0 to 255 without leading zeros");
    }
    value = value << 8 | n;
  }
  if (at != text.size()) {
    return fail(fault, at, fmt::format("bad IPv4 address {}", in_quotes(text)), "nothing after it");
  }
  address->family = KEL_AF_INET;
  address->addr.v4 = value;
  return true;
}

bool parse_v6(std::string_view text, t_ipaddr* address, LineFault* fault) {
  char copy[INET6_ADDRSTRLEN];
  bool good = text.size() < sizeof copy && text.find('\0') == std::string_view::npos;
  if (good) {
    memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    good = inet_pton(AF_INET6, copy, address->addr.v6) == 1;
  }
  if (!good)
    return fail(fault, 0, fmt::format("bad IPv6 address {}", in_quotes(text)), kAddressForm);
  address->family = KEL_AF_INET6;
  return true;
}

}  // namespace

bool parse_address(std::string_view text, t_ipaddr* address, LineFault* fault) {
  const char* at = text.data();
  const char* end = at + text.size();
  if (quick_v4(&at, end, address) && at == end) return true;
  if (text.find(':') != std::string_view::npos) return parse_v6(text, address, fault);
  if (text.empty() || !is_digit(text[0])) {
    return fail(fault, 0, fmt::format("{} is no address", in_quotes(text)), kAddressForm);
  }
  return parse_v4(text, address, fault);
}

bool parse_prefix(std::string_view text, t_ipprefix* prefix, LineFault* fault) {
  const char* next = text.data();
  const char* end = next + text.size();
  unsigned bits = 0;
  if (quick_v4(&next, end, &prefix->addr) && next != end && *next++ == '/' &&
      take_small(&next, end, 32, &bits) && next == end) {
    prefix->len = static_cast<uint8_t>(bits);
    return true;
  }
  size_t slash = text.find('/');
  std::string_view head = text.substr(0, slash);
  bool looks_v6 = head.find(':') != std::string_view::npos;
  if (!looks_v6 && (head.empty() || !is_digit(head[0]))) {
    return fail(fault, 0, fmt::format("{} is no prefix", in_quotes(text)), kPrefixForm);
  }
  if (!parse_address(head, &prefix->addr, fault)) return false;
  unsigned width = looks_v6 ? 128 : 32;
  auto expected = [width] { return fmt::format("a length from 0 to {}", width); };
  if (slash == std::string_view::npos) {
    return fail(fault, text.size(), fmt::format("no length after {}", in_quotes(text)),
                fmt::format("/ and {}", expected()));
  }
  size_t at = slash + 1;
  unsigned length = 0;
  if (!read_small(text, &at, &length) || at != text.size() || length > width) {
    return fail(fault, slash + 1,
                fmt::format("bad prefix length {}", in_quotes(text.substr(slash + 1))), expected());
  }
  prefix->len = static_cast<uint8_t>(length);
  return true;
}

std::string address_text(const t_ipaddr& address) {
  if (address.family == KEL_AF_INET) {
    uint32_t v4 = address.addr.v4;
    return fmt::format(FMT_COMPILE("{}.{}.{}.{}"), v4 >> 24, v4 >> 16 & 255, v4 >> 8 & 255,
                       v4 & 255);
  }
  char text[INET6_ADDRSTRLEN];
  return ipaddr_print(&address, text, sizeof text);
}

std::string prefix_text(const t_ipprefix& prefix) {
  return address_text(prefix.addr).append("/").append(std::to_string(unsigned{prefix.len}));
}

std::string tloc_address_text(const t_tloc_id& tloc) {
  t_ipaddr address = {};
  address.family = tloc.family;
  memcpy(&address.addr, &tloc.addr, sizeof address.addr);
  return address_text(address);
}

std::string tloc_text(const t_tloc_id& tloc) {
  char text[128];
  return tloc_id_print(&tloc, text, sizeof text);
}

std::string in_quotes(std::string_view text) {
  constexpr size_t kShown = 40;
  std::string result = "\"";
  for (char c : text.substr(0, kShown)) result += c >= ' ' && c <= '~' ? c : '?';
  result += text.size() > kShown ? "...\"" : "\"";
  return result;
}

namespace {

// How many bytes the character at the beginning has and which it is; 0 bytes for none.
size_t character_at(std::string_view text, uint32_t* character) {
  auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  unsigned first = byte(0);
  size_t size = first < 0x80 ? 1 : first < 0xc2 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
  if (size == 0 || first > 0xf4 || text.size() < size) return 0;
  *character = size == 1 ? first : first & (0x7fu >> size);
  for (size_t i = 1; i < size; ++i) {
    if ((byte(i) & 0xc0u) != 0x80) return 0;
    *character = *character << 6 | (byte(i) & 0x3fu);
  }
  constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  bool surrogate = *character >= 0xd800 && *character <= 0xdfff;
  return *character < kLeast[size] || *character > 0x10ffff || surrogate ? 0 : size;
}

bool upsets_terminals(uint32_t character) {
  bool control = character < ' ' || (character >= 0x7f && character <= 0x9f);
  bool turns = character == 0x200e || character == 0x200f || character == 0x061c ||
               (character >= 0x2028 && character <= 0x202e) ||
               (character >= 0x2066 && character <= 0x2069);
  return control || turns;
}

std::string made_printable(std::string_view text, bool lines) {
  std::string result;
  while (!text.empty()) {
    uint32_t character = 0;
    size_t size = character_at(text, &character);
    bool stays = size > 0 && (!upsets_terminals(character) || (lines && character == '\n'));
    result += stays ? text.substr(0, size) : "?";
    text.remove_prefix(std::max<size_t>(size, 1));
  }
  return result;
}

}  // namespace

std::string printable(std::string_view text) { return made_printable(text, false); }
std::string printable_lines(std::string_view text) { return made_printable(text, true); }

}  // namespace polctl
