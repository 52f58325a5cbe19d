// SPDX-License-Identifier: Apache-2.0
//
// polctl eval.
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "commands.h"
#include "evaluation.h"
#include "host/input_error.h"
#include "host/live_frame.h"
#include "host/source_file.h"
#include "importing/route_import.h"
#include "live_client.h"
#include "route_option.h"
#include "set_rules.h"
#include "summary.h"
#include "terminal.h"
#include "tloc_reader.h"
#include "verdict_writer.h"

namespace polctl {

namespace {

// Verdicts on some routes in a row, in one of the three forms.
class EvalPart : public Part {
 public:
  EvalPart(const EvalOptions& options, const Palette& palette, bool counts)
      : options_(options), palette_(palette), counts_(counts) {}

  void add(const Verdict& verdict) override {
    ++count_;
    if (counts_) {
      const t_pol_explain_step& decision = verdict.decision;
      decisions_.count(decision.is_default != 0, decision.sequence, verdict.action == POL_ACCEPT);
    }
    if (options_.json) {
      write_json(verdict, &text_);
      return;
    }
    summary_.count(verdict);
    if (options_.explain) {
      if (verdict.index > 0) text_.write("\n");
      write_explanation(verdict, &text_, palette_);
    } else if (verdict.index < kFewRoutes) {
      rows_.push_back(verdict_row(verdict));
    }
  }

 private:
  friend class Answers;
  const EvalOptions& options_;
  const Palette& palette_;
  bool counts_;
  Decisions decisions_;
  Output text_{Output::kNoFile};
  std::vector<std::vector<Table::Cell>> rows_;
  Summary summary_;
  uint64_t count_ = 0;
};

// Where they go.
class Answers {
 public:
  Answers(const EvalOptions& options, Output* out, Decisions* decisions)
      : options_(options),
        out_(out),
        decisions_(decisions),
        palette_(out->fd()),
        table_("llll", verdict_heading()) {}

  std::unique_ptr<Part> begin() const {
    return std::make_unique<EvalPart>(options_, palette_, decisions_ != nullptr);
  }

  void take(EvalPart* part) {
    out_->pass(part->text_.text());
    for (auto& row : part->rows_) table_.add(std::move(row));
    summary_.add(part->summary_);
    count_ += part->count_;
    if (decisions_ != nullptr) decisions_->add(part->decisions_);
  }

  // `note` stands below what people read.
  void finish(const std::string& note) {
    if (!options_.json && count_ > kFewRoutes) {
      if (options_.explain) out_->write("\n");
      summary_.print(policy_sequences(options_.policy, options_.kind), out_, palette_);
    } else if (!options_.json && count_ == 0) {
      out_->write("no routes\n");
    } else if (!options_.json && !options_.explain) {
      table_.print(out_, palette_);
    }
    if (!options_.json && !note.empty()) out_->print("\n{}", folded(note, palette_.width(), 0));
    out_->flush();
  }

 private:
  const EvalOptions& options_;
  Output* out_;
  Decisions* decisions_;
  Palette palette_;
  Table table_;
  Summary summary_;
  uint64_t count_ = 0;
};

}  // namespace

PolicySource load_policy(const PolicyOptions& options) {
  Waiting waiting("Loading");
  return PolicySource(options);
}

int run_eval(const EvalOptions& given, Output* out) {
  EvalOptions options = given;
  std::optional<MemoryFile> lines;
  if (!options.route.empty()) {
    lines.emplace(route_lines(options.route));
    options.routes = lines->path();
    options.routes_name = "--route";
  }
  ImportedRoutes imported(options.routes_format, options.routes);
  options.routes = imported.path();
  if (options.routes_name.empty()) options.routes_name = imported.name();
  if (!options.source.live.empty()) {
    EvalOptions asked = options;
    if (asked.routes_name.empty())
      asked.routes_name = options.routes == "-" ? "<stdin>" : options.routes;
    return ask_live(options.source.live,
                    {asked, read_whole(options.routes, kMaxRequestInput, "a file of routes")}, out);
  }
  PolicySource source = load_policy(options.source);
  if (!options.tlocs.empty()) load_resolvable_tlocs(options.tlocs);
  return answer_eval(options, out);
}

int answer_eval(const EvalOptions& options, Output* out, Decisions* decisions) {
  require_policy(options.policy, options.kind, source_name(options.source));
  LinePieces routes(options.routes, options.routes_name);
  if (options.routes == "-" && isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1) {
    fputs("Type routes, one a line (10.1.0.0/16 or {\"type\":\"route\", ...}); Ctrl-D ends.\n",
          stderr);
  }
  Evaluation evaluation(options.policy, options.kind, options.direction);
  Answers answers(options, out, decisions);
  bool scrolls = (options.json || options.explain) && isatty(out->fd()) == 1;
  Progress progress("Evaluating", !scrolls);
  evaluation.run(&routes,
                 {options.jobs, options.explain, out, &progress, [&] { return answers.begin(); },
                  [&](Part* part) { answers.take(static_cast<EvalPart*>(part)); }});
  progress.clear();
  bool tells = options.direction == POL_DIR_NONE && options.kind == POL_KIND_ROUTE;
  answers.finish(tells ? direction_note(options.policy, policy_sets(options.policy)) : "");
  return kDone;
}

}  // namespace polctl
