/* SPDX-License-Identifier: Apache-2.0
 *
 * tloc_resolver.h - which TLOCs can be reached, as the library asks while it evaluates.
 */
#ifndef HOST_TLOC_RESOLVER_H
#define HOST_TLOC_RESOLVER_H

#include <cstdint>
#include <vector>

#include "policy/pol_types.h"

namespace polctl {

/* A TLOC that resolves, and what it offers. */
struct ResolvableTloc {
  t_pol_tloc_result_entry entry;
  uint16_t service; /* 0: none */
  uint64_t vpn;     /* for the service; kAnyVpn: in every VPN */
};
inline constexpr uint64_t kAnyVpn = UINT64_MAX;

/* Replaces what resolves. Before the first call every TLOC of a route resolves to itself, and none has
 * a label. */
void set_resolvable_tlocs(const std::vector<ResolvableTloc>& tlocs);

/* A t_pol_resolve_cb: appends what is loaded with that address and color, in the order given. A
 * TLOC asked for with encapsulation 0, as policy files have them, takes any encapsulation.
 * Only IPv4 TLOCs resolve: of others the library passes no address. */
void resolve_tloc(uint16_t id, uint32_t ipv4, uint8_t color, uint8_t encap, uint64_t vpn,
                  uint16_t service, t_pol_tloc_result* result);

/* A t_pol_service_resolve_cb: the label of a TLOC, or the TLOCs that offer a service in a VPN. */
uint32_t resolve_service(uint32_t one, uint32_t ipv4, uint8_t color, uint8_t encap, uint64_t vpn,
                         uint16_t service, uint8_t local, uint32_t* label, t_tloc_id* tloc,
                         t_pol_service_result* result, uint32_t zero);

}  // namespace polctl

#endif
