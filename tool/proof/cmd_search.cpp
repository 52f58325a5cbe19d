// SPDX-License-Identifier: Apache-2.0
//
// polctl search.
#include <fmt/format.h>

#include <optional>

#include "condition.h"
#include "host/address_text.h"
#include "host/input_error.h"
#include "policy/pol_util.h"
#include "policy_proof.h"
#include "tool/commands.h"
#include "tool/json_line.h"
#include "tool/live_client.h"
#include "tool/set_rules.h"

namespace polctl {

namespace {

constexpr size_t kMostRoutes = 1000;  // with --all

struct Found {
  size_t sequence;
  Outcome outcome;
  ShownRoute route;
  bool certain; /* else whether it fits hangs on whether a TLOC resolves */
};

class Search {
 public:
  Search(const SearchOptions& options, const Model& model, const PolicyModel& policy,
         const Bounds& bounds)
      : options_(options),
        direction_(options.direction == POL_DIR_NONE ? uint32_t{POL_DIR_IN} : options.direction),
        space_(bounds),
        policy_(&space_, policy),
        conditions_(options.where, model, "polctl: error: --where", &space_) {}

  // Throws NotKnown.
  void run() {
    space_.cut();
    routes_ = conditions_.set(policy_.universe());
    for (size_t i = 0; i < policy_.size() && !full(); ++i) {
      if (wanted(policy_.sequence(i))) look_at(i);
    }
  }

  std::vector<Found>& found() { return found_; }
  bool full() const { return found_.size() >= kMostRoutes; }
  const PolicyProof& policy() const { return policy_; }
  std::string effort() const {
    return fmt::format("{} classes, {} nodes", space_.classes(), BddTable::nodes());
  }

 private:
  bool wanted(const SequenceModel& sequence) const {
    if (options_.sequence.empty()) return true;
    if (sequence.is_default()) return options_.sequence == "default";
    return options_.sequence == std::to_string(sequence.is.sequence);
  }

  void look_at(size_t i) {
    RouteSet decided = policy_.decided(i) & routes_;
    bool any = false;
    for (uint32_t type : kRouteTypes) {
      Outcome outcome = outcome_of(policy_.sequence(i), type, direction_);
      const bool certain = options_.action == 0 || !outcome.if_resolved;
      if (certain && options_.action != 0 && options_.action != outcome.action) continue;
      RouteSet here = decided & space_.type(type);
      while (!here.empty() && !full()) {
        if (any && !options_.all) return;
        any = true;
        ShownRoute route = space_.show(here);
        here = here - RouteSpace::alike(route);
        found_.push_back({i, outcome, std::move(route), certain});
      }
    }
  }

  const SearchOptions& options_;
  uint32_t direction_;
  RouteSpace space_;
  PolicyProof policy_;
  Conditions conditions_;
  RouteSet routes_;
  std::vector<Found> found_;
};

void print_text(const Found& found, const SequenceModel& sequence, Output* out) {
  out->print("# {}: {}{}{}\n", decider_text(sequence), outcome_text(found.outcome),
             found.route.matters.empty() ? "" : "; ", joined(found.route.matters, ", "));
  if (!found.certain) {
    out->write(
        "# not known: whether a TLOC resolves is the host's affair; where none does, it rejects\n");
  }
  out->print("{}\n", route_json(found.route));
}

void print_json(const Found& found, const SequenceModel& sequence, Output* out) {
  std::vector<std::string> matters;
  for (const std::string& each : found.route.matters) matters.push_back(json_string(each));
  std::vector<std::string> sets;
  for (const auto& [word, value] : found.outcome.sets) {
    sets.push_back(fmt::format("\"{}\":{}", word, json_string(value)));
  }
  out->print(
      "{{\"sequence\":{},\"action\":\"{}\",\"known\":{},\"set\":{{{}}},\"matters\":[{}],"
      "\"route\":{}}}\n",
      sequence.is_default() ? "null" : std::to_string(sequence.is.sequence),
      pol_util_action_str(found.outcome.action), found.certain ? "true" : "false",
      joined(sets, ","), joined(matters, ","), route_json(found.route));
}

// The words of the question, for an answer that there is none.
std::string asked_text(const SearchOptions& options) {
  std::string text = "no route";
  if (!options.where.empty()) text += " of " + joined(options.where, " and ");
  text += options.action == 0            ? " is decided"
          : options.action == POL_ACCEPT ? " is accepted"
                                         : " is rejected";
  if (options.sequence == "default") return text + " by the default action";
  return options.sequence.empty() ? text : text + " by sequence " + options.sequence;
}

void require_sequence(const SearchOptions& options, const PolicyModel& policy) {
  if (options.sequence.empty() || options.sequence == "default") return;
  std::vector<std::string> numbers;
  for (const SequenceModel& sequence : policy.sequences) {
    if (sequence.is_default()) continue;
    numbers.push_back(std::to_string(sequence.is.sequence));
    if (numbers.back() == options.sequence) return;
  }
  constexpr size_t kShown = 10;
  std::string expected = numbers.size() > kShown
                             ? fmt::format("one of its {} sequences", numbers.size())
                             : joined(numbers, ", ") + (numbers.empty() ? "" : " or ") + "default";
  throw InputError(
      fmt::format("polctl: error: --sequence: policy {} has no sequence {} (expected {})",
                  in_quotes(policy.name), in_quotes(options.sequence), expected));
}

}  // namespace

int run_search(const SearchOptions& options, Output* out) {
  if (!options.source.live.empty()) return ask_live(options.source.live, {options, ""}, out);
  PolicySource source = load_policy(options.source);
  return answer_search(options, out);
}

int answer_search(const SearchOptions& options, Output* out) {
  require_policy(options.policy, options.kind, source_name(options.source));
  const Bounds bounds = read_bounds(options.limits);
  Model model;
  model.read();
  const PolicyModel& policy = *model.policy(options.policy, options.kind);
  require_sequence(options, policy);
  Search search(options, model, policy, bounds);
  std::string unknown;
  try {
    search.run();
  } catch (const NotKnown& bound) {
    unknown = bound.what();
  }
  Verifier verifier(options.policy, options.kind,
                    options.direction == POL_DIR_NONE ? uint32_t{POL_DIR_IN} : options.direction);
  bool certain = false;
  for (const Found& found : search.found()) {
    const SequenceModel& sequence = search.policy().sequence(found.sequence);
    verifier.require(found.route, sequence);
    certain = certain || found.certain;
  }
  for (const Found& found : search.found()) {
    const SequenceModel& sequence = search.policy().sequence(found.sequence);
    options.json ? print_json(found, sequence, out) : print_text(found, sequence, out);
  }
  const bool open = !unknown.empty() || (!search.found().empty() && !certain);
  if (!options.json) {
    if (search.full()) out->print("# more than {} routes: the rest is left out\n", kMostRoutes);
    if (!unknown.empty()) out->print("# not known: {} (--limit gives more)\n", unknown);
    if (search.found().empty() && !open) {
      out->print("# {}: this holds for every route there can be\n", asked_text(options));
    }
    if (options.direction == POL_DIR_NONE && options.kind == POL_KIND_ROUTE) {
      std::string note = direction_note(options.policy, policy_sets(options.policy));
      if (!note.empty()) out->print("# {}", note);
    }
  } else if (!unknown.empty()) {
    out->print("{{\"known\":false,\"why\":{}}}\n", json_string(unknown));
  }
  out->flush();
  return certain ? kDone : open ? kNotKnown : kFindings;
}

}  // namespace polctl
