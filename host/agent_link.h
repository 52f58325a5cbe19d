/* SPDX-License-Identifier: Apache-2.0
 *
 * agent_link.h - a management agent to take configuration from: one inside this process that is
 * filled from files, or one that runs already.
 */
#ifndef HOST_AGENT_LINK_H
#define HOST_AGENT_LINK_H

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "source_file.h"

namespace agent {
class Handle;
}

namespace polctl {

int agent_socket();
sockaddr_in agent_address(uint16_t port);
/* Why the calling thread's last call to the agent failed. */
std::string agent_problem();

/* An agent of this process's own. From its start on the process connects to its port, whatever the
 * environment says (YARROW_IPC_PORT, YARROW_IPC_PATH). */
class EmbeddedAgent {
 public:
  /* Port 0: a free one. `directory` is where it keeps the configuration; "": nowhere. Throws
   * InputError, as when the port is taken. */
  explicit EmbeddedAgent(uint16_t port = 0, const std::string& directory = "");
  ~EmbeddedAgent();
  EmbeddedAgent(const EmbeddedAgent&) = delete;
  EmbeddedAgent& operator=(const EmbeddedAgent&) = delete;
  uint16_t port() const;

 private:
  std::shared_ptr<agent::Handle> handle_;
};

/* A port number; `what` says which option or variable it comes from. Throws InputError. */
uint16_t port_of(const std::string& text, const std::string& what, uint16_t lowest);

/* The port of a running agent: the one given, else the environment's, else the usual one, which stands
 * for the Unix socket too where there is one. Throws
 * InputError when the text is none. */
uint16_t running_agent_port(const std::string& given);

/* A port of the loopback address that refuses every connection while this lives. */
class UnreachablePort {
 public:
  UnreachablePort();
  ~UnreachablePort();
  UnreachablePort(const UnreachablePort&) = delete;
  UnreachablePort& operator=(const UnreachablePort&) = delete;
  uint16_t port() const { return port_; }

 private:
  int sock_;
  uint16_t port_ = 0;
};

/* From now on every connect call of this process goes to that port, the library's worker's too, whose
 * own would be YARROW_PORT. To be called before the worker is started: it changes the environment. */
void set_worker_port(uint16_t port);

/* One reason why configuration was refused. */
struct ConfigFault {
  std::string file; /* empty: not known, as are `line` 0 and `column` 0 */
  uint32_t line = 0;
  uint32_t column = 0;
  std::string path; /* of the node in the configuration; empty when the text cannot be parsed */
  std::string what;
  std::string expected; /* empty: nothing else fits */
  uint64_t more = 0;    /* not 0: the agent names no more, and these are left; `what` says so */
};

/* What the calling thread's last call to the agent was refused for, reason by reason. */
std::vector<ConfigFault> agent_faults();

/* "FILE:LINE:COLUMN: error: PATH: WHAT" */
std::string fault_line(const ConfigFault& fault, const char* severity);

/* As the agent noted them at a commit. */
struct CommitMaker {
  std::string user;
  std::string client;
  std::string comment;
};

/* A datastore's content below a path as XML, over a session's socket at the agent of that port; "" for
 * none. Where it cannot be had `problem` says why. */
std::string saved_xml(int sock, uint16_t port, int datastore, const std::string& path,
                      std::string* problem);

/* A session that edits the candidate. */
class ConfigSession {
 public:
  explicit ConfigSession(uint16_t port);
  ~ConfigSession();
  ConfigSession(const ConfigSession&) = delete;
  ConfigSession& operator=(const ConfigSession&) = delete;

  /* Merges the files, in order, into the candidate; what is wrong with any of them goes to `faults`,
   * and then nothing was merged. */
  void load(const SourceFiles& files, std::vector<ConfigFault>* faults);

  /* Makes the candidate running; whether that changed anything. Refusals name paths; `files` say
   * where those stand. */
  bool commit(const SourceFiles& files, std::vector<ConfigFault>* faults);

  /* The number of the agent's last commit. Throws InputError. */
  int64_t commit_id();

  /* Who made a commit and why; nothing where the agent does not keep it. Throws InputError. */
  CommitMaker maker_of(int64_t number);

  /* How many others the agent has. Throws InputError. */
  int64_t other_sessions();

  /* From now on `save` tells of the configuration as it was `back` commits ago; edits of this session
   * are gone. A commit that comes meanwhile moves what it tells of: see commit_id. False when the
   * agent keeps no such configuration. Throws InputError. */
  bool look_back(int64_t back);

  /* The running configuration below the path, as XML; "" when there is none. Throws InputError. */
  std::string save(const std::string& path);

 private:
  int sock_;
  uint16_t port_;
  int datastore_; /* that `save` reads */
};

/* Ends the command with every fault, a line each. */
[[noreturn]] void throw_faults(const std::vector<ConfigFault>& faults);

}  // namespace polctl

#endif
