// SPDX-License-Identifier: Apache-2.0
//
// pol_agent_session_internal.h - connections to the management agent.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "yarrow/yarrow_types.h"

// The last three arguments of every line about a call that the agent refused.
#define POL_AGENT_REASON yarrow_strerror(yarrow_errno), yarrow_errno, yarrow_lasterr()

namespace pol {

// Below every debug level: lines that are written whatever it is.
inline constexpr int32_t kLogAlways = INT32_MIN;

// Where the agent listens.
sockaddr_in agent_address();

// A fresh close-on-exec stream socket, or -1.
int agent_socket();

// A connected socket, or -1, logged: a refusal by the agent at `level`, a missing socket as trace.
[[nodiscard]] int agent_connect(int32_t level);

// Opens a session of the system's own user. False, logged at `level`, when the agent refuses; the
// socket then is the caller's to close still.
[[nodiscard]] bool agent_start_session(int sock, const char* client_id, int32_t level);

// Room for any name of the library, quoted, as a key of an agent's path.
inline constexpr size_t kKeySize = 1024 + 3;

// Writes a name as a key: as it is, or in quotes when it holds what ends or splits keys. Cut to
// fit.
void agent_key(char (&key)[kKeySize], const char* name);

}  // namespace pol
