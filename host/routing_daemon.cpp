// SPDX-License-Identifier: Apache-2.0
#include "routing_daemon.h"

#include "policy/pol_user.h"
#include "policy_source.h"

namespace polctl {

RoutingDaemon::~RoutingDaemon() {
  for (auto& [policy, consumer] : consumers_) pol_unregister(&consumer.user);
}

void RoutingDaemon::note_call(t_pol_user* /*user*/, uint64_t consumer) noexcept {
  auto* called = reinterpret_cast<Consumer*>(consumer);
  ++called->calls;
  ++called->daemon->calls_;
}

void RoutingDaemon::follow(const ConfiguredNames& configured) {
  struct {
    uint32_t kind;
    const char* path;
  } const kinds[] = {{POL_KIND_ROUTE, "/policy/control-policy"},
                     {POL_KIND_MEMBERSHIP, "/policy/membership-policy"}};
  for (const auto& each : kinds) {
    auto found = configured.find(each.path);
    static const std::set<std::string> none;
    const std::set<std::string>& names = found != configured.end() ? found->second : none;
    for (auto row = consumers_.begin(); row != consumers_.end();) {
      bool gone = row->first.first == each.kind && names.count(row->first.second) == 0;
      if (gone) pol_unregister(&row->second.user);
      row = gone ? consumers_.erase(row) : std::next(row);
    }
    for (const std::string& name : names) {
      Consumer& consumer = consumers_[{each.kind, name}];
      if (consumer.user != nullptr) continue;
      consumer.daemon = this;
      auto said = directions_.find(name);
      uint32_t direction = said != directions_.end() ? said->second : uint32_t{POL_DIR_IN};
      consumer.user =
          register_user("routing " + name, name, each.kind, direction, note_call, &consumer);
    }
  }
}

bool RoutingDaemon::uses(const std::string& policy) const {
  return consumers_.count({POL_KIND_ROUTE, policy}) +
             consumers_.count({POL_KIND_MEMBERSHIP, policy}) >
         0;
}

std::vector<std::string> RoutingDaemon::take_called() {
  std::vector<std::string> called;
  for (auto& [policy, consumer] : consumers_) {
    if (consumer.calls > 0) called.push_back(policy.second);
    consumer.calls = 0;
  }
  return called;
}

}  // namespace polctl
