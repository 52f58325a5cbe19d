// SPDX-License-Identifier: Apache-2.0
//
// polctl diff. A process holds one policy context, so the old policy's answers are kept while the
// new one is loaded in its place.

#include <unistd.h>

#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <tuple>
#include <utility>
#include <vector>

#include "commands.h"
#include "evaluation.h"
#include "host/input_error.h"
#include "host/source_file.h"
#include "importing/route_import.h"
#include "json_line.h"
#include "live_client.h"
#include "policy/pol_util.h"
#include "proof/proof_diff.h"
#include "set_rules.h"
#include "summary.h"
#include "terminal.h"
#include "tloc_reader.h"

namespace polctl {

namespace {

// An answer, without the query that it was given to. Kept for every route, so it is small where
// little is set.
struct Kept {
  uint32_t action = 0;
  uint32_t sequence = 0;
  bool is_default = false;
  uint8_t applied = 0;
  uint32_t tag = 0;
  uint32_t preference = 0;
  std::string tlocs;
  std::string vpns;
};

Kept kept_of(const Verdict& verdict) {
  const t_pol_route_query& query = *verdict.query;
  Kept kept;
  kept.action = verdict.action;
  kept.is_default = verdict.decision.is_default != 0;
  kept.sequence = kept.is_default ? 0 : verdict.decision.sequence;
  kept.applied = query.applied;
  if ((query.applied & POL_APPLIED_TAG) != 0) kept.tag = query.attr_copy.tag;
  if ((query.applied & POL_APPLIED_PREF) != 0) kept.preference = query.attr_copy.preference;
  kept.tlocs = tlocs_text(query);
  kept.vpns = vpns_text(query);
  return kept;
}

std::string decider_text(const Kept& kept) {
  return kept.is_default ? "default action" : fmt::format("sequence {}", kept.sequence);
}

std::string shown(const Kept& kept, uint8_t bit, uint32_t value) {
  return (kept.applied & bit) != 0 ? std::to_string(value) : "";
}

struct Attribute {
  const char* name;
  std::string before; /* empty: not set */
  std::string after;
};

std::vector<Attribute> attributes_that_differ(const Kept& a, const Kept& b) {
  std::vector<Attribute> all = {
      {"tag", shown(a, POL_APPLIED_TAG, a.tag), shown(b, POL_APPLIED_TAG, b.tag)},
      {"preference", shown(a, POL_APPLIED_PREF, a.preference),
       shown(b, POL_APPLIED_PREF, b.preference)},
      {"tlocs", a.tlocs, b.tlocs},
      {"vpns", a.vpns, b.vpns},
  };
  std::erase_if(all, [](const Attribute& each) { return each.before == each.after; });
  return all;
}

bool same(const Kept& a, const Kept& b) {
  constexpr uint8_t kShown = POL_APPLIED_TAG | POL_APPLIED_PREF;
  return a.action == b.action && a.is_default == b.is_default && a.sequence == b.sequence &&
         ((a.applied ^ b.applied) & kShown) == 0 && a.tag == b.tag &&
         a.preference == b.preference && a.tlocs == b.tlocs && a.vpns == b.vpns;
}

// The policy named, or the only one.
std::string chosen_policy(const DiffOptions& options, const std::string& file) {
  if (!options.policy.empty()) {
    require_policy(options.policy, POL_KIND_ROUTE, file);
    return options.policy;
  }
  std::vector<std::string> names = policy_names(POL_KIND_ROUTE);
  if (names.size() == 1) return names.front();
  throw InputError(fmt::format(
      "{}: error: it has {} route policies (expected one, or --policy NAME)", file, names.size()));
}

struct KeptPart : Part {
  void add(const Verdict& verdict) override { answers.push_back(kept_of(verdict)); }
  std::vector<Kept> answers;
};

std::vector<Kept> old_answers(LinePieces* routes, const DiffOptions& options, uint32_t* sets,
                              Output* out) {
  const PolicyOptions old = old_source(options);
  PolicySource source = load_policy(old);
  const std::string policy = chosen_policy(options, source_name(old));
  Evaluation evaluation(policy, POL_KIND_ROUTE, options.direction);
  *sets = policy_sets(policy);
  std::vector<Kept> answers;
  Progress progress("Asking the old policy", true);
  auto take = [&](Part* part) {
    std::vector<Kept>& more = static_cast<KeptPart*>(part)->answers;
    answers.insert(answers.end(), std::make_move_iterator(more.begin()),
                   std::make_move_iterator(more.end()));
  };
  evaluation.run(routes, {options.jobs, false, out, &progress,
                          [] { return std::make_unique<KeptPart>(); }, take});
  return answers;
}

void write_json_side(const char* name, const Kept& kept, Output* out) {
  out->print("\"{}\":{{\"action\":\"{}\",\"sequence\":{}}}", name, pol_util_action_str(kept.action),
             kept.is_default ? "null" : std::to_string(kept.sequence));
}

using AlikeKey = std::tuple<bool, uint32_t, uint32_t, bool, uint32_t, uint32_t, std::string>;

// Routes with the same difference, and the first of them.
struct Alike {
  uint64_t routes = 0;
  Kept before;
  Kept after;
  std::string route;
};

Table::Cell verdict_cell(const Kept& kept) {
  return {fmt::format("{}, {}", pol_util_action_str(kept.action), decider_text(kept)),
          action_colour(kept.action)};
}

// Of some routes in a row.
class DiffPart : public Part {
 public:
  DiffPart(const DiffOptions& options, const std::vector<Kept>& before)
      : options_(options), before_(before) {}

  void add(const Verdict& verdict) override {
    if (verdict.index >= before_.size()) {
      throw InputError(options_.routes + ": error: it grew meanwhile (expected a file that stays)");
    }
    const Kept& before = before_[verdict.index];
    ++routes_;
    Kept after = kept_of(verdict);
    if (same(before, after)) return;
    ++differ_;
    if (options_.json) return write_json(verdict, before, after);
    if (differ_ <= kFewRoutes) rows_.push_back(row(verdict, before, after));
    std::vector<std::string> names;
    for (const Attribute& each : attributes_that_differ(before, after))
      names.emplace_back(each.name);
    Alike& group = groups_[{before.is_default, before.sequence, before.action, after.is_default,
                            after.sequence, after.action, joined(names, ", ")}];
    if (group.routes++ == 0) group = {1, before, after, route_text_in_full(verdict)};
  }

 private:
  friend class Differences;

  static std::vector<Table::Cell> row(const Verdict& verdict, const Kept& a, const Kept& b) {
    std::vector<std::string> parts;
    for (const Attribute& each : attributes_that_differ(a, b)) {
      parts.push_back(fmt::format("{} {} -> {}", each.name,
                                  each.before.empty() ? "none" : each.before,
                                  each.after.empty() ? "none" : each.after));
    }
    return {{route_text_in_full(verdict)}, verdict_cell(a), verdict_cell(b), {joined(parts, "; ")}};
  }

  void write_json(const Verdict& verdict, const Kept& a, const Kept& b) {
    text_.print("{{\"index\":{},\"route\":{},", verdict.index, json_string(route_text(verdict)));
    write_json_side("old", a, &text_);
    text_.write(",");
    write_json_side("new", b, &text_);
    text_.write(",\"attributes\":{");
    const char* separator = "";
    auto side = [](const std::string& text) -> std::string {
      if (text.empty()) return "null";
      bool number = text.find_first_not_of("0123456789") == std::string::npos;
      return number ? text : json_string(text);
    };
    for (const Attribute& each : attributes_that_differ(a, b)) {
      text_.print("{}\"{}\":[{},{}]", separator, each.name, side(each.before), side(each.after));
      separator = ",";
    }
    text_.write("}}\n");
  }

  const DiffOptions& options_;
  const std::vector<Kept>& before_;
  Output text_{Output::kNoFile};
  std::vector<std::vector<Table::Cell>> rows_;
  std::map<AlikeKey, Alike> groups_;
  uint64_t routes_ = 0;
  uint64_t differ_ = 0;
};

// Of all.
class Differences {
 public:
  Differences(const DiffOptions& options, Output* out)
      : options_(options),
        out_(out),
        palette_(out->fd()),
        table_("llll", {{"route"}, {"old"}, {"new"}, {"set differently"}}) {}

  void take(DiffPart* part) {
    out_->pass(part->text_.text());
    if (differ_ <= kFewRoutes) {
      for (auto& row : part->rows_) table_.add(std::move(row));
    }
    for (auto& [key, later] : part->groups_) {
      Alike& group = groups_[key];
      uint64_t routes = group.routes + later.routes;
      if (group.routes == 0) group = std::move(later);
      group.routes = routes;
    }
    routes_ += part->routes_;
    differ_ += part->differ_;
  }

  bool any() const { return differ_ > 0; }

  void finish(const std::string& note) {
    if (!options_.json) {
      if (differ_ > kFewRoutes) {
        print_groups();
      } else if (differ_ > 0) {
        table_.print(out_, palette_);
      }
      out_->print("{}{} of {} route{} differ\n", differ_ > 0 ? "\n" : "", grouped(differ_),
                  grouped(routes_), routes_ == 1 ? "" : "s");
      if (!note.empty()) out_->print("\n{}", folded(note, palette_.width(), 0));
    }
    out_->flush();
  }

 private:
  void print_groups() {
    Table table("lllrl", {{"old"}, {"new"}, {"set differently"}, {"routes"}, {"first route"}});
    for (const auto& [key, group] : groups_) {
      table.add({verdict_cell(group.before),
                 verdict_cell(group.after),
                 {std::get<std::string>(key)},
                 {grouped(group.routes)},
                 {group.route}});
    }
    table.print(out_, palette_);
  }

  const DiffOptions& options_;
  Output* out_;
  Palette palette_;
  Table table_; /* of use for few that differ */
  std::map<AlikeKey, Alike> groups_;
  uint64_t routes_ = 0;
  uint64_t differ_ = 0;
};

}  // namespace

PolicyOptions source_of(const std::string& file, bool force) {
  PolicyOptions options;
  options.force = force;
  SourceFile source(file, "a policy file or configuration");
  if (source.is_configuration()) {
    options.config = {file};
  } else {
    options.policy_file = file;
  }
  return options;
}

PolicyOptions old_source(const DiffOptions& options) {
  if (!options.old_file.empty()) return source_of(options.old_file, options.force);
  return with_agent_of_host(options.source);
}

int run_diff(const DiffOptions& options, Output* out) {
  if (options.routes.empty()) return run_proof_diff(options, out);
  // They are asked twice.
  std::optional<MemoryFile> kept;
  ImportedRoutes imported(options.routes_format, options.routes);
  std::string routes_path = imported.path();
  std::string routes_name = imported.name().empty() ? options.routes : imported.name();
  if (routes_path == "-") {
    kept.emplace(read_whole("-", kMaxSourceBytes, "routes"));
    routes_path = kept->path();
    routes_name = "<stdin>";
  }
  if (!options.tlocs.empty()) load_resolvable_tlocs(options.tlocs);
  std::vector<Kept> before;
  uint32_t old_sets = 0;
  {
    LinePieces routes(routes_path, routes_name);
    before = old_answers(&routes, options, &old_sets, out);
  }
  PolicySource source = load_policy(source_of(options.new_file, options.force));
  Evaluation evaluation(chosen_policy(options, options.new_file), POL_KIND_ROUTE,
                        options.direction);
  LinePieces routes(routes_path, routes_name);
  Progress progress("Asking the new policy", !options.json || isatty(out->fd()) != 1);
  Differences differences(options, out);
  evaluation.run(&routes, {options.jobs, false, out, &progress,
                           [&] { return std::make_unique<DiffPart>(options, before); },
                           [&](Part* part) { differences.take(static_cast<DiffPart*>(part)); }});
  progress.clear();
  std::string policy = chosen_policy(options, options.new_file);
  uint32_t sets = policy_sets(policy) | old_sets;
  differences.finish(options.direction == POL_DIR_NONE ? direction_note(policy, sets) : "");
  return differences.any() ? kFindings : kDone;
}

}  // namespace polctl
