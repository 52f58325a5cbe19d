// SPDX-License-Identifier: Apache-2.0
//
// Routes from a routing table in the MRT format, type TABLE_DUMP_V2 (RFC 6396; with path identifiers RFC
// 8050). Each path to a prefix is a route: LOCAL_PREF is its preference, ORIGINATOR_ID, else the address
// of the peer that it came from, its originator. Other tables and multicast are passed over.
//
// Nothing is read that a length before it does not cover, and every length lies within the one around it.
#include <fmt/format.h>

#include <cstring>

#include "host/address_text.h"
#include "host/input_error.h"
#include "kel/ipaddr.h"
#include "route_import.h"

namespace polctl {

namespace {

constexpr uint16_t kTableDumpV2 = 13;
constexpr uint32_t kMaxRecord = uint32_t{1}
                                << 20;  // a prefix that thousands of peers tell takes less

enum Subtype : uint16_t {
  kPeerIndexTable = 1,
  kRibIpv4Unicast = 2,
  kRibIpv6Unicast = 4,
  kRibIpv4UnicastAddPath = 8,
  kRibIpv6UnicastAddPath = 10,
};

enum Attribute : uint8_t { kLocalPref = 5, kOriginatorId = 9 };
constexpr uint8_t kExtendedLength = 0x10;  // of an attribute, in its flags

// Bytes that are taken from the front; more than there are is an error.
class Bytes {
 public:
  Bytes(std::string_view bytes, uint64_t offset, const std::string& name)
      : bytes_(bytes), offset_(offset), name_(name) {}

  [[noreturn]] void fail(const std::string& what, const std::string& expected) const {
    throw InputError(
        fmt::format("{}: error: byte {}: {} (expected {})", name_, offset_, what, expected));
  }

  bool empty() const { return bytes_.empty(); }

  Bytes take(size_t count, const char* what) {
    if (count > bytes_.size()) {
      fail(fmt::format("{} goes beyond its end", what),
           fmt::format("{} bytes, and there are {}", count, bytes_.size()));
    }
    Bytes part(bytes_.substr(0, count), offset_, name_);
    bytes_.remove_prefix(count);
    offset_ += count;
    return part;
  }

  uint32_t number(size_t size, const char* what) {
    Bytes part = take(size, what);
    uint32_t value = 0;
    for (char c : part.bytes_) value = value << 8 | static_cast<uint8_t>(c);
    return value;
  }

  t_ipaddr address(bool ipv6, const char* what) {
    t_ipaddr address = {};
    address.family = ipv6 ? KEL_AF_INET6 : KEL_AF_INET;
    if (ipv6) {
      memcpy(address.addr.v6, take(16, what).bytes_.data(), 16);
    } else {
      address.addr.v4 = number(4, what);
    }
    return address;
  }

  // The first `size` bytes of an address, the others 0.
  t_ipaddr prefix_address(bool ipv6, size_t size) {
    uint8_t octets[16] = {};
    Bytes part = take(size, "a prefix");
    if (size > 0) memcpy(octets, part.bytes_.data(), size);
    t_ipaddr address = {};
    address.family = ipv6 ? KEL_AF_INET6 : KEL_AF_INET;
    if (ipv6) {
      memcpy(address.addr.v6, octets, sizeof octets);
    } else {
      address.addr.v4 = uint32_t{octets[0]} << 24 | uint32_t{octets[1]} << 16 |
                        uint32_t{octets[2]} << 8 | octets[3];
    }
    return address;
  }

 private:
  std::string_view bytes_;
  uint64_t offset_;  // in the file
  const std::string& name_;
};

class MrtReader {
 public:
  explicit MrtReader(Bytes bytes) : rest_(bytes) {}

  std::string lines() {
    while (!rest_.empty()) read_record();
    return std::move(lines_);
  }

 private:
  void read_record() {
    Bytes header = rest_.take(12, "a record's header");
    header.take(4, "a time");
    auto type = static_cast<uint16_t>(header.number(2, "a type"));
    auto subtype = static_cast<uint16_t>(header.number(2, "a type"));
    uint32_t length = header.number(4, "a length");
    if (length > kMaxRecord) {
      rest_.fail(fmt::format("a record of {} bytes", length),
                 fmt::format("at most {}; is it compressed?", kMaxRecord));
    }
    Bytes body = rest_.take(length, "a record");
    if (type != kTableDumpV2) {
      body.fail(fmt::format("a record of type {}", type), "13, a table in TABLE_DUMP_V2");
    }
    switch (subtype) {
      case kPeerIndexTable:
        return read_peers(body);
      case kRibIpv4Unicast:
      case kRibIpv4UnicastAddPath:
        return read_rib(body, false, subtype == kRibIpv4UnicastAddPath);
      case kRibIpv6Unicast:
      case kRibIpv6UnicastAddPath:
        return read_rib(body, true, subtype == kRibIpv6UnicastAddPath);
      default:
        return;
    }
  }

  void read_peers(Bytes body) {
    peers_.clear();
    body.take(4, "the collector's id");
    body.take(body.number(2, "a length"), "the view's name");
    uint32_t count = body.number(2, "the number of peers");
    for (uint32_t i = 0; i < count; ++i) {
      uint32_t type = body.number(1, "a peer's type");
      body.take(4, "a peer's id");
      peers_.push_back(body.address((type & 1) != 0, "a peer's address"));
      body.take((type & 2) != 0 ? 4 : 2, "a peer's AS");
    }
  }

  void read_rib(Bytes body, bool ipv6, bool add_path) {
    body.take(4, "a sequence number");
    t_ipprefix prefix = {};
    prefix.len = static_cast<uint8_t>(body.number(1, "a prefix length"));
    if (prefix.len > (ipv6 ? 128 : 32)) {
      body.fail(fmt::format("a prefix length of {}", unsigned{prefix.len}),
                ipv6 ? "at most 128" : "at most 32");
    }
    prefix.addr = body.prefix_address(ipv6, (size_t{prefix.len} + 7) / 8);
    uint32_t count = body.number(2, "the number of paths");
    for (uint32_t i = 0; i < count; ++i) {
      uint32_t peer = body.number(2, "a peer's index");
      if (peer >= peers_.size()) {
        body.fail(fmt::format("peer {} is in no table before it", peer),
                  fmt::format("one of {} peers", peers_.size()));
      }
      body.take(4, "a time");
      if (add_path) body.take(4, "a path identifier");
      Bytes attributes = body.take(body.number(2, "a length"), "a path's attributes");
      add_route(prefix, peers_[peer], attributes);
    }
  }

  void add_route(const t_ipprefix& prefix, const t_ipaddr& peer, Bytes attributes) {
    t_ipaddr originator = peer;
    std::string preference;
    while (!attributes.empty()) {
      uint32_t flags = attributes.number(1, "an attribute's flags");
      uint32_t type = attributes.number(1, "an attribute's type");
      size_t length_size = (flags & kExtendedLength) != 0 ? 2 : 1;
      Bytes value = attributes.take(attributes.number(length_size, "a length"), "an attribute");
      if (type == kLocalPref) {
        preference = fmt::format(",\"preference\":{}", value.number(4, "LOCAL_PREF"));
      }
      if (type == kOriginatorId) originator = value.address(false, "ORIGINATOR_ID");
    }
    lines_ += fmt::format("{{\"type\":\"route\",\"prefix\":\"{}\"{},\"originator\":\"{}\"}}\n",
                          prefix_text(prefix), preference, address_text(originator));
  }

  Bytes rest_;
  std::vector<t_ipaddr> peers_;
  std::string lines_;
};

}  // namespace

std::string lines_of_mrt(std::string_view bytes, const std::string& name) {
  return MrtReader(Bytes(bytes, 0, name)).lines();
}

}  // namespace polctl
