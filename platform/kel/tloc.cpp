// SPDX-License-Identifier: Apache-2.0
#include "kel/tloc.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <iterator>

#include "kel/ipaddr.h"

namespace {

constexpr const char* kColors[] = {
    "default",   "mpls",     "metro-ethernet", "internet", "broadband", "lte",     "5g",
    "satellite", "red",      "green",          "blue",     "gold",      "silver",  "bronze",
    "private1",  "private2", "private3",       "private4", "custom1",   "custom2", "custom3",
};

constexpr const char* kServices[] = {
    "none", "firewall", "ids", "ips", "web-proxy", "service1", "service2", "service3", "service4",
};

constexpr const char* kUltimateTloc[] = {"none", "strict", "primary", "backup", "ecmp"};

template <size_t N>
const char* name_of(const char* const (&names)[N], uint32_t value) {
  return value < N ? names[value] : "unknown";
}

void address_text(const t_tloc_id* tloc, char (&text)[INET6_ADDRSTRLEN]) {
  t_ipaddr address = {};
  address.family = tloc->family;
  memcpy(&address.addr, &tloc->addr, sizeof address.addr);
  ipaddr_print(&address, text, sizeof text);
}

}  // namespace

char* tloc_id_print(const t_tloc_id* tloc, char* buffer, size_t size) {
  char address[INET6_ADDRSTRLEN];
  address_text(tloc, address);
  const char* encap = tloc->encap == KEL_ENCAP_GRE     ? "gre"
                      : tloc->encap == KEL_ENCAP_IPSEC ? "ipsec"
                                                       : "none";
  snprintf(buffer, size, "%s : %s : %s", address, kel_util_tloc_color_name(tloc->color), encap);
  return buffer;
}

char* tloc_id_print_short(const t_tloc_id* tloc, char* buffer, size_t size) {
  char address[INET6_ADDRSTRLEN];
  address_text(tloc, address);
  const char* format = tloc->family == KEL_AF_INET6 ? "[%s]:%u:%u" : "%s:%u:%u";
  snprintf(buffer, size, format, address, unsigned{tloc->color}, unsigned{tloc->encap});
  return buffer;
}

const char* kel_util_tloc_color_name(uint32_t color) { return name_of(kColors, color); }
const char* kel_util_svc_name(uint32_t service) { return name_of(kServices, service); }
const char* kel_attr_ultimate_tloc_str(uint8_t mode) { return name_of(kUltimateTloc, mode); }
