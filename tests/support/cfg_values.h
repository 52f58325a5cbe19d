// SPDX-License-Identifier: Apache-2.0
//
// cfg_values.h - the agent's typed values, made by hand.
#pragma once

#include <arpa/inet.h>

#include <cstring>
#include <vector>

#include "policy/pol_config.h"

namespace cfg {

inline pol_cfg_value none(uint32_t type = C_NOEXISTS) {
  pol_cfg_value v = {};
  v.type = type;
  return v;
}

template <class T, class Member>
pol_cfg_value scalar(uint32_t type, Member T::*member, Member value) {
  pol_cfg_value v = none(type);
  v.val.*member = value;
  return v;
}

using Val = decltype(pol_cfg_value::val);
inline pol_cfg_value u8(uint8_t value) { return scalar(C_UINT8, &Val::u8, value); }
inline pol_cfg_value u16(uint16_t value) { return scalar(C_UINT16, &Val::u16, value); }
inline pol_cfg_value u32(uint32_t value) { return scalar(C_UINT32, &Val::u32, value); }
inline pol_cfg_value ipv4(uint32_t host) { return scalar(C_IPV4, &Val::ip, htonl(host)); }
inline pol_cfg_value word(uint32_t value) { return scalar(C_ENUM_VALUE, &Val::enumvalue, value); }

inline pol_cfg_value text(const char* value) {
  pol_cfg_value v = none(C_BUF);
  v.val.buf.size = static_cast<uint32_t>(strlen(value));
  v.val.buf.ptr = reinterpret_cast<uint8_t*>(const_cast<char*>(value));
  return v;
}

inline pol_cfg_value ipv4_prefix(uint32_t host_order, uint8_t length) {
  pol_cfg_value v = none(C_IPV4PREFIX);
  v.val.ipv4prefix.ip = htonl(host_order);
  v.val.ipv4prefix.len = length;
  return v;
}

inline pol_cfg_tag_value leaf(uint32_t tag, pol_cfg_value value) { return {tag, 0, value}; }

using Keys = std::vector<pol_cfg_value>;
using Leaves = std::vector<pol_cfg_tag_value>;

}  // namespace cfg
