/* SPDX-License-Identifier: Apache-2.0
 *
 * route_table.h - the routes that a running host's routing daemon has, and what its policies make of
 * them: decided at the start, and anew whenever a policy calls back.
 *
 * Memory is bounded: the file's lines, kMaxSourceBytes at most, and eight bytes a route and policy,
 * by which a changed answer is known. An answer is the action and what is set; which sequence gives it
 * is not.
 */
#ifndef TOOL_DECIDING_ROUTE_TABLE_H
#define TOOL_DECIDING_ROUTE_TABLE_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/counters.h"
#include "host/source_file.h"

namespace polctl {

class RouteTable {
 public:
  /* `path` "": there are no routes, and nothing is ever decided. `directions` names the control policies
   * that decide; without any all of them do, inbound. Throws InputError. */
  RouteTable(std::string path, std::string format, std::map<std::string, uint32_t> directions);

  /* Reads the file again; all is due then. Throws InputError: the routes stay as they were. */
  void read_again();
  /* All is due again, for what TLOCs resolve to has changed. */
  void forget() { all_due_ = true; }

  bool any() const { return lines_ != nullptr; }
  uint64_t routes() const { return routes_; }

  struct Round {
    std::string policy;
    bool first = false; /* it has not decided these routes before: nothing has changed */
    uint64_t accepted = 0;
    uint64_t changed = 0; /* answers */
    double ms = 0;
  };
  /* Has those policies decide that were called back, that are new, or all if all is due. `counters`
   * gets every decision. */
  std::vector<Round> decide(const ConfiguredNames& configured,
                            const std::vector<std::string>& called, Counters* counters);

 private:
  Round decide_by(const std::string& policy, uint32_t direction, Counters* counters);

  const std::string path_;
  const std::string format_;
  const std::map<std::string, uint32_t> directions_;
  std::shared_ptr<const MemoryFile> lines_; /* null: no routes */
  size_t text_hash_ = 0;
  uint64_t routes_ = 0;
  bool all_due_ = false;
  std::map<std::string, std::vector<uint64_t>> answers_; /* by policy: a digest of each route's */
};

}  // namespace polctl

#endif
