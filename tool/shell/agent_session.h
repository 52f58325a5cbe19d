/* SPDX-License-Identifier: Apache-2.0
 *
 * agent_session.h - an operator's session at an agent: his candidate, what is running, commits.
 *
 * Calls throw InputError, without a place, for what the agent refuses as a whole.
 */
#ifndef TOOL_SHELL_AGENT_SESSION_H
#define TOOL_SHELL_AGENT_SESSION_H

#include <cstdint>
#include <string>
#include <vector>

#include "host/agent_link.h"
#include "yarrow/yarrow_maapi.h"

namespace polctl {

struct AgentCommit {
  int64_t number = 0;
  int64_t time = 0;
  std::string user, client, comment;
};

struct AgentCommits {
  std::vector<AgentCommit> all; /* the latest first */
  int64_t waiting = 0;          /* the first that waits to be confirmed; 0: none */
  int64_t seconds = 0;          /* that it has left */
};

struct AgentUser {
  int64_t since = 0;
  std::string user, context, client, source;
  uint32_t flags = 0;
};

class AgentSession {
 public:
  explicit AgentSession(uint16_t port);
  ~AgentSession() { maapi_close(sock_); }
  AgentSession(const AgentSession&) = delete;
  AgentSession& operator=(const AgentSession&) = delete;

  uint16_t port() const { return port_; }

  /* A datastore's content below a path as XML; "" for none. */
  std::string xml(int datastore, const std::string& path) const;

  /* Edit the candidate; what is wrong, nothing then being done. `flags` as of maapi_load_config. */
  std::vector<ConfigFault> load(const std::string& text, unsigned flags) const;
  std::vector<ConfigFault> remove(const std::string& path) const;

  std::vector<ConfigFault> validate() const;
  void discard() const;
  void roll_back(unsigned back) const;
  void lock() const;
  void unlock() const;

  /* The commit's number, 0 if nothing changed; what is wrong, the edits being kept. */
  int64_t commit(const std::string& comment, unsigned minutes,
                 std::vector<ConfigFault>* faults) const;

  AgentCommits commits() const;
  std::vector<AgentUser> users() const;

 private:
  int begin(int datastore, int mode) const;
  std::vector<ConfigFault> apply(int trans, int status) const;

  int sock_;
  uint16_t port_;
};

}  // namespace polctl

#endif
