/* SPDX-License-Identifier: Apache-2.0
 *
 * config_walk.h - hands the agent's configuration changes to the library's readers.
 *
 * After each batch the library holds what it would hold had it been given the configuration of that
 * commit from the start. Readers notify the users of what they change; a batch that changes one
 * entry tells each user once.
 */
#ifndef HOST_CONFIG_WALK_H
#define HOST_CONFIG_WALK_H

#include <cstdint>
#include <memory>

#include "config_mirror.h"
#include "forward_walk.h"
#include "policy/pol_config.h"

namespace polctl {

struct ConfigRow;

class ConfigWalk {
 public:
  explicit ConfigWalk(t_pol_ctx* ctx) : ctx_(ctx), forward_(ctx) {}

  /* REQUIRES: the batches of one subscription from its initial one on, in order. */
  void take(const t_yarrow_batch* batch);

  /* To be called before the context is destroyed; then nothing more may be taken. */
  void release() { forward_.release_all(); }

  const ConfiguredNames& configured() const { return mirror_.names; }

  uint64_t changes() const { return changes_; }
  /* Changes of paths that no reader takes, such as labels that the library wrote. */
  uint64_t unread() const { return unread_; }

 private:
  void take_entry(const ConfigRow& row, const t_yarrow_change& change);
  void take_range(const ConfigRow& row, const t_yarrow_change& change);
  void take_prefix(const ConfigRow& row, const t_yarrow_change& change);
  void take_tloc(const ConfigRow& row, const t_yarrow_change& change);
  void empty_tloc_list(const t_yarrow_change& change);
  void take_collector(const ConfigRow& row, const t_yarrow_change& change);
  uint32_t take_sequence(const ConfigRow& row, const t_yarrow_batch* batch, uint32_t at);
  void forget(const ConfigRow& row, const t_yarrow_change& change);
  void retell(const t_yarrow_change& head, const SequenceMirror& sequence);
  void hand(const ConfigRow& row, const t_yarrow_change& change);

  t_pol_ctx* ctx_;
  ConfigMirror mirror_;
  ForwardWalk forward_;
  uint64_t changes_ = 0;
  uint64_t unread_ = 0;
};

/* A subscription to an agent's policy tree. */
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
