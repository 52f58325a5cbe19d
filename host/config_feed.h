/* SPDX-License-Identifier: Apache-2.0
 *
 * config_feed.h - a subscription to an agent's policy tree.
 */
#ifndef HOST_CONFIG_FEED_H
#define HOST_CONFIG_FEED_H

#include <cstdint>
#include <memory>

#include "config_walk.h"

namespace polctl {

class ConfigFeed {
 public:
  /* Throws InputError when the agent cannot be reached. */
  explicit ConfigFeed(uint16_t port);
  ~ConfigFeed();
  ConfigFeed(const ConfigFeed&) = delete;
  ConfigFeed& operator=(const ConfigFeed&) = delete;

  struct Free {
    void operator()(t_yarrow_batch* batch) const { yarrow_batch_free(batch); }
  };
  using Batch = std::unique_ptr<t_yarrow_batch, Free>;

  /* Waits for the next batch; null when the time is over (negative: no limit) or the agent has
   * closed. Throws InputError. */
  Batch read(int timeout_ms);

  /* Waits for the next batch and walks it; the first is the present configuration. Returns how many
   * changes it held, -1 when the time is over (negative: no limit) or the agent has closed. Throws
   * InputError. */
  int64_t next(int timeout_ms, ConfigWalk* walk);

  /* To be polled for input. */
  int fd() const { return sock_; }

 private:
  int sock_;
};

}  // namespace polctl

#endif
