/* SPDX-License-Identifier: Apache-2.0
 *
 * evaluation.h - routes through one policy, in the order in which a daemon goes about it: register
 * as a user of the policy, then for some routes at a time prepare the queries, execute them, read the
 * answers and release them. Pieces of the input are worked on side by side.
 */
#ifndef TOOL_EVALUATION_H
#define TOOL_EVALUATION_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "host/output.h"
#include "line_pieces.h"
#include "policy/pol_exec.h"
#include "terminal.h"
#include "verdict_writer.h"

namespace polctl {

/* The kind of execution that frees what an answer holds of VPNs. */
inline constexpr uint32_t kReleaseVpnArray = 3;

/* Keeps a step of an explanation in the Verdict `arg`. Called by the library: running out of memory ends
 * the process here rather than pass through it. */
void keep_step(const t_pol_explain_step* step, void* arg) noexcept;

/* What a command makes of the verdicts on some routes in a row: on any thread, but on one. */
class Part {
 public:
  virtual ~Part() = default;
  /* May throw InputError: then nothing after this route is answered. */
  virtual void add(const Verdict& verdict) = 0;
};

struct Run {
  uint32_t jobs; /* threads; 0: one a processor */
  bool explain;
  Output* out; /* written out before input is waited for; without a reader the run ends */
  Progress* progress;
  std::function<std::unique_ptr<Part>()> begin; /* called on any thread */
  std::function<void(Part* part)> take;         /* on the caller's, in the order of the routes */
};

class Evaluation {
 public:
  /* `direction` NONE: inbound. REQUIRES: a policy of that name. TLOCs resolve as tloc_resolver.h says. */
  Evaluation(const std::string& policy, uint32_t kind, uint32_t direction);
  ~Evaluation();
  Evaluation(const Evaluation&) = delete;
  Evaluation& operator=(const Evaluation&) = delete;

  /* Answers all routes. Throws InputError, once what comes before the fault was taken and written. */
  void run(LinePieces* routes, const Run& run) const;

 private:
  class Job;

  t_pol_user* user_;
  uint32_t kind_;
  uint32_t direction_;
};

}  // namespace polctl

#endif
