// SPDX-License-Identifier: Apache-2.0
//
// The directory that an agent keeps its state in, and files in it.
//
// Whoever can write to it, or could put something else in its place, would decide what the agent
// runs. So the directory and every file are this process's own user's and writable by nobody else;
// links are not followed; what is made is made anew, for this user alone, and never an opened
// leftover.
#ifndef AGENT_STATE_DIR_H
#define AGENT_STATE_DIR_H

#include <cstdint>
#include <string>
#include <string_view>

#include "agent/result.h"

namespace agent {

struct StateDir {
  std::string name;
  int handle = -1;
  int lock = -1;

  StateDir() = default;
  ~StateDir();
  StateDir(const StateDir&) = delete;
  StateDir& operator=(const StateDir&) = delete;

  std::string path(std::string_view file) const { return name + "/" + std::string(file); }
};

// The operating system's reason, from errno.
Result os_failure(const std::string& what);

// Opens the directory; made, if `make` says so and it is missing.
Result state_dir_open(StateDir& dir, const std::string& name, bool make);

// Claims the directory for this process, until it ends. YARROW_ERR_LOCKED if another has it.
Result state_dir_lock(StateDir& dir);

// Whether a process has the directory.
bool state_dir_is_locked(const StateDir& dir);

// Opens a file in it, -1 if there is none. `flags` as for open.
Result state_file_open(const StateDir& dir, const std::string& name, int flags, int* file);

// Writes and syncs `bytes` under `name` so that a crash leaves what was there or all of it. The file
// is handed out open for appending.
Result state_file_replace(const StateDir& dir, const std::string& name, std::string_view bytes,
                          int* file);

// Gives the file a second name, `name`.`why`.N with the first free N: its own may then be given
// away.
Result state_file_keep(const StateDir& dir, const std::string& name, const std::string& why,
                       std::string* kept);

Result state_dir_sync(const StateDir& dir);

// The whole of a file of at most `limit` bytes. `name` is for the reason.
Result file_read(int file, const std::string& name, uint64_t limit, std::string* bytes);

// False with errno. A signal or a short write does not end it.
bool file_write(int file, std::string_view bytes);

}  // namespace agent
#endif
