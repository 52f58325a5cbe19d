// SPDX-License-Identifier: Apache-2.0
//
// agent_schema.h - the agent's own schema in this process, for code that asks whether a path exists.
#pragma once

#include <arpa/inet.h>

#include <memory>
#include <string>

#include "agent/yarrow_agent.h"
#include "yarrow/yarrow_schema.h"

// Reads it from an agent that runs only meanwhile.
inline bool load_agent_schema() {
  std::string problem;
  std::shared_ptr<agent::Handle> agent = agent::start({}, &problem);
  if (agent == nullptr) return false;
  agent::run_in_thread(*agent);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(agent::port(*agent));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int status = yarrow_load_schemas(reinterpret_cast<sockaddr*>(&address), sizeof address);
  agent::stop(*agent);
  return status == YARROW_OK;
}
