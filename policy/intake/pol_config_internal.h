// SPDX-License-Identifier: Apache-2.0
//
// pol_config_internal.h - typed cursors over the keys and leaves of a reported change.
//
// Each asserts the type that it reads. The names of the pointers are kept on purpose: an
// assertion's text is made of them.
#pragma once

#include <arpa/inet.h>

#include <cassert>
#include <cstring>

#include "base/pol_crash.h"
#include "base/pol_log.h"
#include "policy/pol_config.h"
#include "policy/pol_config_tags.h"

namespace pol {

inline const char* buffer_text(const pol_cfg_value& value) {
  return value.val.buf.ptr != nullptr ? reinterpret_cast<const char*>(value.val.buf.ptr) : "";
}

// Host byte order from an IPv4 or IPv6 value whose type was checked.
inline t_ipaddr address_of(const pol_cfg_value& value) {
  t_ipaddr address = {};
  if (value.type == C_IPV4) {
    address.family = KEL_AF_INET;
    address.addr.v4 = ntohl(value.val.ip);
  } else {
    address.family = KEL_AF_INET6;
    memcpy(address.addr.v6, value.val.ip6, sizeof address.addr.v6);
  }
  return address;
}

class Keys {
 public:
  explicit Keys(const pol_cfg_value* keys) : keys_(keys) {}

  const char* text(unsigned at) const {
    const pol_cfg_value* key_p = keys_ + at;
    assert((key_p)->type == C_BUF);
    return buffer_text(*key_p);
  }
  uint16_t sequence(unsigned at) const {
    const pol_cfg_value* key_p = keys_ + at;
    assert((key_p)->type == C_UINT16);
    return key_p->val.u16;
  }
  uint32_t enumeration(unsigned at) const {
    const pol_cfg_value* key_p = keys_ + at;
    assert((key_p)->type == C_ENUM_VALUE);
    return key_p->val.enumvalue;
  }
  t_ipaddr address(unsigned at) const {
    const pol_cfg_value* key_p = keys_ + at;
    if (key_p->type != C_IPV4) assert(((key_p))->type == C_IPV6);
    return address_of(*key_p);
  }
  t_ipprefix ipv4_prefix(unsigned at) const {
    const pol_cfg_value* key_p = keys_ + at;
    assert(((key_p))->type == C_IPV4PREFIX);
    t_ipprefix prefix = {};
    prefix.addr.family = KEL_AF_INET;
    prefix.addr.addr.v4 = ntohl(key_p->val.ipv4prefix.ip);
    prefix.len = key_p->val.ipv4prefix.len;
    return prefix;
  }

 private:
  const pol_cfg_value* keys_;
};

// One changed leaf.
class Leaf {
 public:
  explicit Leaf(const pol_cfg_tag_value* leaf) : cur_val_p(leaf) {}

  uint32_t tag() const { return cur_val_p->tag; }
  uint32_t type() const { return cur_val_p->v.type; }
  bool removed() const { return cur_val_p->v.type == C_NOEXISTS; }

  const char* text() const {
    assert((&cur_val_p->v)->type == C_BUF);
    return buffer_text(cur_val_p->v);
  }
  uint8_t u8() const {
    assert((&cur_val_p->v)->type == C_UINT8);
    return cur_val_p->v.val.u8;
  }
  uint32_t u32() const {
    assert((&cur_val_p->v)->type == C_UINT32);
    return cur_val_p->v.val.u32;
  }
  uint32_t enumeration() const {
    assert((&cur_val_p->v)->type == C_ENUM_VALUE);
    return cur_val_p->v.val.enumvalue;
  }
  bool boolean() const {
    assert((&cur_val_p->v)->type == C_BOOL);
    return cur_val_p->v.val.boolean != 0;
  }
  // The values of a leaf-list; text and enumeration with an index read one.
  uint32_t count() const {
    assert((&cur_val_p->v)->type == C_LIST);
    return cur_val_p->v.val.list.ptr != nullptr ? cur_val_p->v.val.list.size : 0;
  }
  const char* text(uint32_t num) const {
    assert((&cur_val_p->v.val.list.ptr[num])->type == C_BUF);
    return buffer_text(cur_val_p->v.val.list.ptr[num]);
  }
  uint32_t enumeration(uint32_t num) const {
    assert((&cur_val_p->v.val.list.ptr[num])->type == C_ENUM_VALUE);
    return cur_val_p->v.val.list.ptr[num].val.enumvalue;
  }
  t_ipaddr address() const {
    if (cur_val_p->v.type != C_IPV4) assert(((&cur_val_p->v))->type == C_IPV6);
    return address_of(cur_val_p->v);
  }

 private:
  const pol_cfg_tag_value* cur_val_p;
};

// The leaves of a change; only the low 16 bits of their number count.
class Leaves {
 public:
  Leaves(const pol_cfg_tag_value* values, uint32_t num)
      : values_(values), count_(values != nullptr ? num & 0xffff : 0) {}
  uint32_t count() const { return count_; }
  Leaf operator[](uint32_t at) const { return Leaf(values_ + at); }

 private:
  const pol_cfg_tag_value* values_;
  uint32_t count_;
};

// A policy reader called for another level than its own ends the process.
inline void check_level(uint8_t level, uint8_t own, Caller from = Caller::here()) {
  if (level != own) crash("a change of another level than the reader's", from);
}

inline t_tloc_id tloc_of(const t_ipaddr& address, uint8_t color, uint8_t encap) {
  t_tloc_id tloc = {};
  tloc.family = address.family;
  memcpy(&tloc.addr, &address.addr, sizeof tloc.addr);
  tloc.color = color;
  tloc.encap = encap;
  return tloc;
}

// A line of the reader's.
inline void log_leaf(uint32_t at, const Leaf& leaf, Caller reader = Caller::here()) {
  POL_LOG_FROM(reader, "cur: %d XML = %u, type: %d \n", static_cast<int>(at), leaf.tag(),
               static_cast<int>(leaf.type()));
}

}  // namespace pol
