/* SPDX-License-Identifier: Apache-2.0
 *
 * routing_daemon.h - the routing daemon's side: a user of every control and membership policy.
 */
#ifndef HOST_ROUTING_DAEMON_H
#define HOST_ROUTING_DAEMON_H

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "config_mirror.h"
#include "policy/pol_types.h"

namespace polctl {

class RoutingDaemon {
 public:
  /* `directions` by policy; inbound where none is said. */
  explicit RoutingDaemon(std::map<std::string, uint32_t> directions)
      : directions_(std::move(directions)) {}
  ~RoutingDaemon();
  RoutingDaemon(const RoutingDaemon&) = delete;
  RoutingDaemon& operator=(const RoutingDaemon&) = delete;

  /* To be called after each batch: registers for new policies, and leaves those that are gone, whose
   * users would stay without a policy for good. Throws InputError. */
  void follow(const ConfiguredNames& configured);

  /* The policies that called back since the last call. */
  std::vector<std::string> take_called();

  /* How often policies called back, in all. */
  uint64_t calls() const { return calls_; }

  /* Whether it is a user of a policy of that name. */
  bool uses(const std::string& policy) const;

  size_t users() const { return consumers_.size(); }

 private:
  struct Consumer {
    t_pol_user* user = nullptr;
    uint64_t calls = 0;
    RoutingDaemon* daemon = nullptr;
  };
  static void note_call(t_pol_user* user, uint64_t consumer) noexcept;

  uint64_t calls_ = 0;
  std::map<std::string, uint32_t> directions_;
  std::map<std::pair<uint32_t, std::string>, Consumer> consumers_; /* by kind and name */
};

}  // namespace polctl

#endif
