/* SPDX-License-Identifier: Apache-2.0
 *
 * evaluation.h - routes through one policy, in the order in which a daemon goes about it: register
 * as a user of the policy, then for each route prepare the query, execute it, read the answer and
 * release it.
 */
#ifndef TOOL_EVALUATION_H
#define TOOL_EVALUATION_H

#include <cstdint>
#include <memory>
#include <string>

#include "policy/pol_exec.h"
#include "route_reader.h"
#include "verdict_writer.h"

namespace polctl {

class Evaluation {
 public:
  /* `direction` NONE: inbound. REQUIRES: a policy of that name. TLOCs resolve as tloc_resolver.h says. */
  Evaluation(const std::string& policy, uint32_t kind, uint32_t direction);
  ~Evaluation();
  Evaluation(const Evaluation&) = delete;
  Evaluation& operator=(const Evaluation&) = delete;

  /* The verdict on the next route, valid until the next call; null after the last. Throws
   * InputError. */
  const Verdict* next(RouteReader* routes, bool explain);

 private:
  struct Question;

  t_pol_user* user_;
  std::unique_ptr<Question> question_; /* large, and used again for every route */
  Verdict verdict_;
};

}  // namespace polctl

#endif
