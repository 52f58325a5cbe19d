// SPDX-License-Identifier: Apache-2.0
//
// The management agent inside a process of its own or of a tool: it listens on the loopback address,
// and on a Unix socket if it is given one, and serves its clients from one thread.
#ifndef AGENT_YARROW_AGENT_H
#define AGENT_YARROW_AGENT_H

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace agent {

struct Options {
  std::optional<std::string> directory;  // where running is kept; none: nowhere
  bool recover = false;      // a damaged file is kept under another name and its good commits used
  uint16_t port = 0;         // 0: a free one
  std::string socket_path;   // of a Unix socket to listen on too; empty: none
  std::string socket_group;  // whose members may connect there; empty: the owner alone
  std::vector<uid_t> allowed_uids;  // beside this process's own
};

class Handle;

// Starts an agent. Null on failure, with the reason in `error`.
std::shared_ptr<Handle> start(const Options& options, std::string* error);

// The number of the last commit. REQUIRES: no thread serves.
uint64_t commit(const Handle& handle);

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

// What a start would find in a directory, which an agent may be using; writes nothing. `text` is a
// line for the operator; false if a start would end.
bool check(const std::string& directory, std::string* text);

// Copies what a directory keeps, which an agent may be using, to a new file.
bool backup(const std::string& directory, const std::string& file, std::string* text);

// Makes a directory keep what the file does; what it kept stays under another name. False if an
// agent uses the directory.
bool restore(const std::string& directory, const std::string& file, std::string* text);

}  // namespace agent
#endif
