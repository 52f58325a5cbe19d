// SPDX-License-Identifier: Apache-2.0
#include "evaluation.h"

#include <utility>

#include "host/input_error.h"
#include "host/tloc_resolver.h"
#include "kel/string.h"
#include "policy/pol_user.h"

namespace polctl {

namespace {

constexpr uint32_t kReleaseVpnArray = 3;  // the execution kind that does

// Called by the library: running out of memory ends the process here rather than pass through it.
void keep_step(const t_pol_explain_step* step, void* arg) noexcept {
  std::string reason = step->reason != nullptr ? step->reason : "";
  static_cast<Verdict*>(arg)->steps.push_back({*step, std::move(reason)});
}

}  // namespace

struct Evaluation::Question {
  t_pol_route_attr attr;
  t_pol_route_query query;
  t_pol_tloc_result tlocs;
};

Evaluation::Evaluation(const std::string& policy, uint32_t kind, uint32_t direction)
    : question_(std::make_unique<Question>()) {
  if (direction == POL_DIR_NONE) direction = POL_DIR_IN;
  t_pol_registration record = {};
  strlcpy(record.user_name, "polctl", sizeof record.user_name);
  strlcpy(record.policy_name, policy.c_str(), sizeof record.policy_name);
  record.kind = kind;
  record.direction = direction;
  verdict_.direction = direction;
  record.resolve = resolve_tloc;
  user_ = pol_register(&record);
  if (user_ == nullptr) throw InputError("polctl: error: cannot use the policy: no memory");
  verdict_.query = &question_->query;
  pol_pre_execute(&question_->query, kReleaseVpnArray);
}

Evaluation::~Evaluation() {
  pol_post_execute(&question_->query);
  pol_unregister(&user_);
}

const Verdict* Evaluation::next(RouteReader* routes, bool explain) {
  t_pol_route_query* query = &question_->query;
  if (verdict_.action != 0) ++verdict_.index;
  pol_post_execute(query);  // what the last route's evaluation allocated
  pol_pre_execute(query, kReleaseVpnArray);
  question_->tlocs.count = 0;
  question_->tlocs.ultimate = 0;
  query->tlocs = &question_->tlocs;
  if (!routes->next(query, &question_->attr)) return nullptr;
  verdict_.steps.clear();
  verdict_.action =
      pol_explain(user_, query, explain ? keep_step : nullptr, &verdict_, &verdict_.decision);
  return &verdict_;
}

}  // namespace polctl
