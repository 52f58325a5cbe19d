/* SPDX-License-Identifier: Apache-2.0
 *
 * live_client.h - asks a running host (polctl serve).
 */
#ifndef TOOL_LIVE_CLIENT_H
#define TOOL_LIVE_CLIENT_H

#include <string>

#include "host/output.h"
#include "live_request.h"

namespace polctl {

/* Has the host answer, prints that, and returns its exit status. Throws InputError, with the host's
 * words where it refuses. */
int ask_live(const std::string& socket, const LiveRequest& request, Output* out);

/* The source as it is, or in the place of a running host the agent that it follows. Throws InputError. */
PolicyOptions with_agent_of_host(PolicyOptions source);

/* The socket that is used unless one is named: in XDG_RUNTIME_DIR, or in /tmp with the user's id. */
std::string default_socket();

}  // namespace polctl

#endif
