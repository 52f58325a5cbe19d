// SPDX-License-Identifier: Apache-2.0
//
// polctl eval.
#include <unistd.h>

#include <cstdio>
#include <optional>

#include "commands.h"
#include "evaluation.h"
#include "host/input_error.h"
#include "host/live_frame.h"
#include "host/source_file.h"
#include "importing/route_import.h"
#include "live_client.h"
#include "route_option.h"
#include "route_reader.h"
#include "set_rules.h"
#include "summary.h"
#include "terminal.h"
#include "tloc_reader.h"
#include "verdict_writer.h"

namespace polctl {

namespace {

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
    if (!options_.json && !note.empty()) out_->print("\n{}", note);
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

// A membership policy matches on VPNs of services: anything else would be answered by the default
// action, whatever it is.
void require_membership_query(const t_pol_route_query& query, const RouteReader& routes) {
  constexpr const char* kForm = "{\"type\":\"service\",\"vpn\":10}";
  const char* what =
      query.match_type != POL_MATCH_SERVICE
          ? "a membership policy is not asked about routes or TLOCs"
      : query.prefix.addr.family != 0 ? "a membership policy is not asked about prefixes"
      : !routes.has_vpn() ? "a membership policy is asked about a VPN, and there is none"
                          : nullptr;
  if (what != nullptr) throw_at_line(routes.lines(), 0, {1, what, kForm});
}

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
      if (verdict != nullptr && options.kind == POL_KIND_MEMBERSHIP) {
        require_membership_query(*verdict->query, routes);
      }
    } catch (const InputError&) {
      out->flush();  // what was answered before the fault stands
      throw;
    }
    if (verdict == nullptr) break;
    answers.add(*verdict);
    if (decisions != nullptr) {
      decisions->count(verdict->decision.is_default != 0, verdict->decision.sequence,
                       verdict->action == POL_ACCEPT);
    }
    progress.step(routes.lines().position(), routes.lines().size());
  }
  progress.clear();
  bool tells = options.direction == POL_DIR_NONE && options.kind == POL_KIND_ROUTE;
  answers.finish(tells ? direction_note(options.policy, policy_sets(options.policy)) : "");
  return kDone;
}

}  // namespace polctl
