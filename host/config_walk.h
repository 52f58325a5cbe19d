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

  /* TLOCs resolve otherwise than before: has labels computed anew. */
  void resolve_again() { forward_.resolve_again(); }

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

}  // namespace polctl

#endif
