/* SPDX-License-Identifier: Apache-2.0
 *
 * forward_walk.h - hands changes of data and app-route policies to the library's readers.
 *
 * As config_walk.h; a part of it. Readers of these policies end the process where what they are told
 * cannot be; nothing of the kind is handed to them, whatever is configured.
 */
#ifndef HOST_FORWARD_WALK_H
#define HOST_FORWARD_WALK_H

#include <cstdint>
#include <map>
#include <string>

#include "config_mirror.h"
#include "policy/pol_types.h"

namespace polctl {

class ForwardWalk {
 public:
  explicit ForwardWalk(t_pol_ctx* ctx) : ctx_(ctx) {}

  /* False when it is a change of something else. Notes names of policies in `names`. */
  bool take(const t_yarrow_change& change, ConfiguredNames* names);

  /* Has every sequence with a TLOC, a TLOC list or a service resolve them again. */
  void resolve_again();

  /* Lets go of what sequences would leave registered for good, which a context must not hold when it
   * is destroyed. */
  void release_all();

 private:
  struct VpnList {
    LeafMirror leaves;
    std::map<uint16_t, LeafMirror> sequences;
  };
  using Policy = std::map<std::string, VpnList>;

  /* Where a change belongs. */
  struct Place {
    uint32_t kind; /* enum pol_kind */
    std::string policy;
    std::string vpn_list; /* "" above its level */
    uint16_t sequence = 0;
  };

  void take_policy(const Place& at, const t_yarrow_change& change);
  void take_vpn_list(const Place& at, const t_yarrow_change& change);
  void take_sequence(const Place& at, const t_yarrow_change& change);
  /* A sequence; number 0 with the settings of its VPN list. */
  void make_anew(const Place& at);
  /* Takes DNS and SaaS application lists out of a sequence, or of all in a VPN list or policy. */
  void release(const Place& at);
  void release(const Place& at, const VpnList& list);
  void release(const Place& at, const Policy& policy);
  void hand(const Place& at, uint8_t level, uint32_t op,
            const std::vector<t_yarrow_tag_value>& values);

  std::map<std::string, Policy>& policies(uint32_t kind) {
    return policies_[kind == POL_KIND_DATA ? 0 : 1];
  }
  VpnList& vpn_list(const Place& at) { return policies(at.kind)[at.policy][at.vpn_list]; }

  t_pol_ctx* ctx_;
  std::map<std::string, Policy> policies_[2];
};

}  // namespace polctl

#endif
