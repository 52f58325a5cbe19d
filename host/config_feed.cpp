// SPDX-License-Identifier: Apache-2.0
#include "config_feed.h"

#include <fmt/format.h>
#include <unistd.h>

#include "agent_link.h"
#include "input_error.h"

namespace polctl {

ConfigFeed::ConfigFeed(uint16_t port) : sock_(agent_socket()) {
  sockaddr_in address = agent_address(port);
  if (yarrow_sub_connect(sock_, reinterpret_cast<const sockaddr*>(&address), sizeof address,
                         "/policy", YARROW_SUB_INITIAL) != YARROW_OK) {
    std::string problem = agent_problem();
    close(sock_);
    throw InputError(
        fmt::format("agent at port {}: error: {} (expected a running yarrowd)", port, problem));
  }
}

ConfigFeed::~ConfigFeed() { close(sock_); }

ConfigFeed::Batch ConfigFeed::read(int timeout_ms) {
  t_yarrow_batch* batch = nullptr;
  int status = yarrow_sub_read(sock_, timeout_ms, &batch);
  if (status == YARROW_ERR) {
    throw InputError(fmt::format("agent: error: {} (expected its changes)", agent_problem()));
  }
  return Batch(batch);
}

int64_t ConfigFeed::next(int timeout_ms, ConfigWalk* walk) {
  Batch batch = read(timeout_ms);
  if (!batch) return -1;
  walk->take(batch.get());
  return static_cast<int64_t>(yarrow_batch_count(batch.get()));
}

}  // namespace polctl
