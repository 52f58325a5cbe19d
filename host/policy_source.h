/* SPDX-License-Identifier: Apache-2.0
 *
 * policy_source.h - where a command's policy comes from, and the library's context that holds it.
 */
#ifndef HOST_POLICY_SOURCE_H
#define HOST_POLICY_SOURCE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "agent_link.h"
#include "config_feed.h"
#include "policy/pol_types.h"

namespace polctl {

/* The options that every command with policy shares: exactly one of the three sources. */
struct PolicyOptions {
  std::string policy_file;
  std::vector<std::string> config; /* configuration files, merged in order */
  bool agent = false;              /* a running agent, at `agent_port` ("": the usual one) */
  std::string agent_port;
  std::string live;      /* a running host's socket, asked instead; "": none */
  bool force = false;    /* take a policy file that has errors */
  std::string directory; /* where an agent of this process's own keeps its configuration */
  int trace = -1; /* the library's debug level, its trace going to syslog; negative: no trace */
  /* The library's worker fetches from the agent and writes into it. Otherwise it may not: who only
   * looks at a running system must not write labels into its configuration. */
  bool worker = false;
  uint16_t listen = 0; /* where an agent of this process's own listens; 0: a free port */
};

/* What a message calls the source. */
std::string source_name(const PolicyOptions& options);

/* Configuration that came from an agent, and goes on coming. */
struct LiveConfig {
  std::unique_ptr<EmbeddedAgent> agent; /* null when the agent runs elsewhere */
  uint16_t port = 0;
  std::unique_ptr<ConfigSession> session;
  std::unique_ptr<ConfigFeed> feed;
  std::unique_ptr<ConfigWalk> walk;
  int64_t commit = 0;          /* that the first batch told of */
  UnreachablePort unreachable; /* where a worker that may not reach the agent looks for it */
};

/* Makes the process's context and fills it; destroys it with all it holds. One at a time. */
class PolicySource {
 public:
  /* Throws InputError when the policy cannot be had. */
  explicit PolicySource(const PolicyOptions& options);
  ~PolicySource();
  PolicySource(const PolicySource&) = delete;
  PolicySource& operator=(const PolicySource&) = delete;

  /* Null when the policy came from a policy file. */
  LiveConfig* live() const { return live_.get(); }

  /* What is configured; null when the policy came from a policy file. */
  const ConfiguredNames* configured() const { return live_ ? &live_->walk->configured() : nullptr; }

  enum class Settling { kLabels, kTexts };
  /* Waits until the worker has written all labels and, if asked to, fetched all texts, and walks what
   * commits that caused. Throws InputError when that takes too long, and at once when texts are asked
   * for that the agent does not have. REQUIRES: options.worker, an agent. */
  void settle(Settling what);

 private:
  void connect(const PolicyOptions& options);
  void destroy();

  std::unique_ptr<LiveConfig> live_;
};

/* Ends the command: the document would lack these. */
[[noreturn]] void throw_absent(const std::vector<std::string>& absent);

/* A handle of pol_register for the user's own callbacks, which may be null. Throws InputError. */
t_pol_user* register_user(const std::string& name, const std::string& policy, uint32_t kind,
                          uint32_t direction, t_pol_change_cb change, void* arg,
                          t_pol_resolve_cb resolve = nullptr);

/* The names of the policies of one kind (enum pol_kind), in the library's order. */
std::vector<std::string> policy_names(uint32_t kind);

/* The sequence numbers of a policy, ascending. */
std::vector<uint32_t> policy_sequences(const std::string& name, uint32_t kind);

/* The set clauses (POL_SET_F_*) of a route policy's sequences and default action together. */
uint32_t policy_sets(const std::string& name);

/* Throws InputError, naming what is near and what there is, unless a policy of that name exists. */
void require_policy(const std::string& name, uint32_t kind, const std::string& origin);

}  // namespace polctl

#endif
