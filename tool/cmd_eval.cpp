// SPDX-License-Identifier: Apache-2.0
//
// polctl eval.
#include <unistd.h>

#include <cstdio>

#include "commands.h"
#include "evaluation.h"
#include "host/input_error.h"
#include "live_client.h"
#include "route_reader.h"
#include "summary.h"
#include "terminal.h"
#include "tloc_reader.h"
#include "verdict_writer.h"

namespace polctl {

namespace {

constexpr uint64_t kFewRoutes = 20;  // are shown each on a line, more as a summary

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
  if (!options.source.live.empty()) {
    EvalOptions asked = options;
    if (asked.routes_name.empty())
      asked.routes_name = options.routes == "-" ? "<stdin>" : options.routes;
    return ask_live(options.source.live, {asked, read_input(options.routes)}, out);
  }
  PolicySource source(options.source);
  if (!options.tlocs.empty()) load_resolvable_tlocs(options.tlocs);
  return answer_eval(options, out);
}

int answer_eval(const EvalOptions& options, Output* out) {
  require_policy(options.policy, options.kind, source_name(options.source));
  RouteReader routes(options.routes, options.routes_name);
  if (options.routes == "-" && isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1) {
    fputs("Type routes, one a line (10.1.0.0/16 or {\"type\":\"route\", ...}); Ctrl-D ends.\n",
          stderr);
  }
  Evaluation evaluation(options.policy, options.kind, options.direction);
  Answers answers(options, out);
  bool scrolls = (options.json || options.explain) && isatty(out->fd()) == 1;
  Progress progress("Evaluating", !scrolls);
  while (!out->gone()) {
    // A program that asks and waits, or a person who types, gets its answer before the next read.
    if (!routes.lines().line_waiting()) out->flush();
    const Verdict* verdict = nullptr;
    try {
      verdict = evaluation.next(&routes, options.explain);
    } catch (const InputError&) {
      out->flush();  // what was answered before the fault stands
      throw;
    }
    if (verdict == nullptr) break;
    answers.add(*verdict);
    progress.step(routes.lines().position(), routes.lines().size());
  }
  progress.clear();
  answers.finish();
  return kDone;
}

}  // namespace polctl
