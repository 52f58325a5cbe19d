// SPDX-License-Identifier: Apache-2.0
//
// A yarrowd process, a session that edits it, and the library of this process that follows it.
#ifndef TESTS_E2E_RIG_H
#define TESTS_E2E_RIG_H

#include <memory>
#include <string>
#include <utility>

#include "host/agent_link.h"
#include "host/config_feed.h"
#include "policy/pol_context.h"
#include "tests/agent/support.h"

namespace test {

class Rig {
 public:
  Rig();
  ~Rig();
  Rig(const Rig&) = delete;
  Rig& operator=(const Rig&) = delete;

  Session& session() { return session_; }
  // Commits the candidate; whether that was accepted. A refused candidate becomes running again.
  bool commit();
  // Walks all batches that commits made since the last call.
  void follow();
  // Commits text merged into what is there, and follows.
  void commit_and_follow(const std::string& xml);

  // The state of the library of this process, and of one that is given the configuration of now at
  // once. Elements and users of a list are sorted: they stand in the order of arrival.
  std::pair<std::string, std::string> states() const;

 private:
  AgentProcess agent_;
  Session session_;
  int64_t followed_ = 0;
  std::unique_ptr<polctl::ConfigFeed> feed_;
  polctl::UnreachablePort unreachable_;  // labels are not written: histories are the test's alone
  std::unique_ptr<polctl::ConfigWalk> walk_;
};

}  // namespace test
#endif
