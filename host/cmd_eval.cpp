// SPDX-License-Identifier: Apache-2.0
//
// polctl eval. The host's side of an evaluation, in the order in which a daemon goes about it:
// register as a user of the policy, then for each route prepare the query, execute it, read the
// answer and release it.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>

#include "commands.h"
#include "input_error.h"
#include "kel/string.h"
#include "policy/pol_exec.h"
#include "policy/pol_user.h"
#include "route_reader.h"
#include "summary.h"
#include "terminal.h"
#include "tloc_resolver.h"
#include "verdict_writer.h"

namespace polctl {

namespace {

constexpr uint64_t kFewRoutes = 20;       // are shown each on a line, more as a summary
constexpr uint32_t kReleaseVpnArray = 3;  // the execution kind that does

// A registration with the library, for as long as it lives.
class PolicyUser {
 public:
  explicit PolicyUser(const EvalOptions& options) {
    t_pol_registration record = {};
    strlcpy(record.user_name, "polctl", sizeof record.user_name);
    strlcpy(record.policy_name, options.policy.c_str(), sizeof record.policy_name);
    record.kind = options.kind;
    record.direction = options.direction;
    record.resolve = resolve_tloc;
    user_ = pol_register(&record);
    if (user_ == nullptr) throw InputError("polctl: error: cannot use the policy: no memory");
  }
  ~PolicyUser() { pol_unregister(&user_); }
  PolicyUser(const PolicyUser&) = delete;
  PolicyUser& operator=(const PolicyUser&) = delete;

  t_pol_user* get() const { return user_; }

 private:
  t_pol_user* user_;
};

// The records of one question; large, and used again for every route.
struct Question {
  t_pol_route_attr attr;
  t_pol_route_query query;
  t_pol_tloc_result tlocs;
};

// Between preparing a query and releasing what its evaluation allocated.
class Execution {
 public:
  explicit Execution(Question* question) : query_(&question->query) {
    pol_pre_execute(query_, kReleaseVpnArray);
    question->tlocs.count = 0;
    question->tlocs.ultimate = 0;
    query_->tlocs = &question->tlocs;
  }
  ~Execution() { pol_post_execute(query_); }
  Execution(const Execution&) = delete;
  Execution& operator=(const Execution&) = delete;

 private:
  t_pol_route_query* query_;
};

// Called by the library: running out of memory ends the process here rather than pass through it.
void keep_step(const t_pol_explain_step* step, void* arg) noexcept {
  std::string reason = step->reason != nullptr ? step->reason : "";
  static_cast<Verdict*>(arg)->steps.push_back({*step, std::move(reason)});
}

// Where the verdicts go, in one of the three forms.
class Answers {
 public:
  Answers(const EvalOptions& options, Output* out)
      : options_(options), out_(out), palette_(out->fd()), table_("llll", verdict_heading()) {}

  void add(const Verdict& verdict) {
    ++count_;
    if (options_.json) {
      write_json(verdict, out_);
      return;
    }
    summary_.count(verdict);
    if (options_.explain) {
      if (count_ > 1) out_->write("\n");
      write_explanation(verdict, out_, palette_);
    } else if (count_ <= kFewRoutes) {
      table_.add(verdict_row(verdict));
    }
  }

  void finish() {
    if (!options_.json && count_ > kFewRoutes) {
      if (options_.explain) out_->write("\n");
      summary_.print(policy_sequences(options_.policy, options_.kind), out_, palette_);
    } else if (!options_.json && count_ == 0) {
      out_->write("no routes\n");
    } else if (!options_.json && !options_.explain) {
      table_.print(out_, palette_);
    }
    out_->flush();
  }

 private:
  const EvalOptions& options_;
  Output* out_;
  Palette palette_;
  Table table_;
  Summary summary_;
  uint64_t count_ = 0;
};

}  // namespace

int run_eval(const EvalOptions& options, Output* out) {
  PolicySource source(options.source);
  require_policy(options.policy, options.kind, source_name(options.source));
  if (!options.tlocs.empty()) load_resolvable_tlocs(options.tlocs);
  RouteReader routes(options.routes);
  if (options.routes == "-" && isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1) {
    fputs("Type routes, one a line (10.1.0.0/16 or {\"type\":\"route\", ...}); Ctrl-D ends.\n",
          stderr);
  }
  PolicyUser user(options);
  Answers answers(options, out);
  bool scrolls = (options.json || options.explain) && isatty(out->fd()) == 1;
  Progress progress("Evaluating", !scrolls);

  auto question = std::make_unique<Question>();
  t_pol_route_query* query = &question->query;
  Verdict verdict;
  verdict.query = query;
  for (; !out->gone(); ++verdict.index) {
    Execution execution(question.get());
    // A program that asks and waits, or a person who types, gets its answer before the next read.
    if (!routes.lines().line_waiting()) out->flush();
    try {
      if (!routes.next(query, &question->attr)) break;
    } catch (const InputError&) {
      out->flush();  // what was answered before the fault stands
      throw;
    }
    verdict.steps.clear();
    verdict.action = pol_explain(user.get(), query, options.explain ? keep_step : nullptr, &verdict,
                                 &verdict.decision);
    answers.add(verdict);
    progress.step(routes.lines().position(), routes.lines().size());
  }
  progress.clear();
  answers.finish();
  return kDone;
}

}  // namespace polctl
