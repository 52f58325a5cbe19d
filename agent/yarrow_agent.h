// SPDX-License-Identifier: Apache-2.0
//
// The management agent inside a process of its own or of a tool: it listens on the loopback address,
// and on a Unix socket if it is given one, and serves its clients from one thread.
#ifndef AGENT_YARROW_AGENT_H
#define AGENT_YARROW_AGENT_H

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace agent {

struct Options {
  std::string directory;            // where running is kept; empty: nowhere
  uint16_t port = 0;                // 0: a free one
  std::string socket_path;          // of a Unix socket to listen on too; empty: none
  std::string socket_group;         // whose members may connect there; empty: the owner alone
  std::vector<uid_t> allowed_uids;  // beside this process's own
};

class Handle;

// Starts an agent. Null on failure, with the reason in `error`.
std::shared_ptr<Handle> start(const Options& options, std::string* error);

// The port it listens on.
uint16_t port(const Handle& handle);

// Serves until stopped, in the calling thread.
void run(Handle& handle);

// Serves in a thread of its own. `stop` ends and joins it.
void run_in_thread(Handle& handle);

// Asks the agent to end. All it acknowledged is on disk. Safe in a signal handler.
void request_stop(Handle& handle);

// Asks, and waits for the thread of run_in_thread.
void stop(Handle& handle);

}  // namespace agent
#endif
