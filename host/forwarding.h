/* SPDX-License-Identifier: Apache-2.0
 *
 * forwarding.h - the forwarding manager's side: users of data and app-route policies and a cflowd
 * template, and the XML document that it works from.
 */
#ifndef HOST_FORWARDING_H
#define HOST_FORWARDING_H

#include <cstdint>
#include <string>
#include <vector>

#include "config_mirror.h"
#include "policy/pol_types.h"

namespace polctl {

/* Names of policies; "": none. */
struct AppliedPolicies {
  std::string from_service;
  std::string from_tunnel;
  std::string app_route;
  std::string cflowd;

  bool any() const {
    return !(from_service.empty() && from_tunnel.empty() && app_route.empty() && cflowd.empty());
  }
};

/* Registered as long as it lives; not to be moved, its users know its address. */
class ForwardingManager {
 public:
  /* Policies that are not configured are applied once they are. When none is named, the only one of
   * each kind is, and stays while it is there. Throws InputError. */
  ForwardingManager(const AppliedPolicies& applied, const ConfiguredNames& configured);
  ~ForwardingManager();
  ForwardingManager(const ForwardingManager&) = delete;
  ForwardingManager& operator=(const ForwardingManager&) = delete;

  /* To be called after each batch: applies what was waited for. A template that was deleted leaves its user without one for good;
   * a deleted data or app-route policy stays, emptied, until its users have left. So they leave, and
   * come back with the policy; not before, because the library would make one of that name and its
   * worker would ask the agent for it in vain, again and again. Throws InputError. */
  void follow(const ConfiguredNames& configured);

  /* What is named and not configured: `data-policy "branch"`. */
  std::vector<std::string> awaited() const;

  /* How often a policy told that something it uses changed. */
  uint64_t calls() const { return calls_; }

  /* The document as the cached texts make it now; what was queued must have been fetched. Throws
   * InputError. */
  std::string document() const;
  /* The same as show data. */
  std::string show_data() const;

 private:
  enum Role { kFromService, kFromTunnel, kAppRoute, kCflowd, kRoles };
  struct Applied {
    std::string policy; /* "": none */
    t_pol_user* user = nullptr;
  };

  static void note_call(t_pol_user* user, uint64_t manager) noexcept;
  std::string body() const;
  void enter(Role role);
  void leave();

  bool by_name_; /* policies were named, else the only ones are taken */
  Applied applied_[kRoles];
  uint64_t calls_ = 0;
};

/* When no policy is named, the only one of each kind, a data policy in both directions. Throws
 * InputError when a kind has several, or when a name is none's. */
AppliedPolicies applied_or_only(const AppliedPolicies& named, const std::string& origin);

/* The text with a line an element. Throws InputError when it is no XML. */
std::string pretty_xml(const std::string& text);

}  // namespace polctl

#endif
