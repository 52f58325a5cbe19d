// SPDX-License-Identifier: Apache-2.0
//
// A process holds one policy context: the old policies are read, then the new ones are loaded in their
// place. Where they differ the old ones are loaded once more, to be asked about the routes that are shown.
#include "proof_diff.h"

#include <fmt/format.h>

#include <algorithm>

#include "condition.h"
#include "host/address_text.h"
#include "host/input_error.h"
#include "policy/pol_util.h"
#include "tool/json_line.h"
#include "tool/terminal.h"

namespace polctl {

namespace {

void compare_policies(const PolicyModel& before, const PolicyModel& after, uint32_t direction,
                      const Bounds& bounds, ProofDiff* diff) {
  std::vector<uint32_t> directions = {direction};
  if (direction == POL_DIR_NONE) directions = {POL_DIR_IN, POL_DIR_OUT};
  RouteSpace space(bounds);
  PolicyProof was(&space, before);
  PolicyProof is(&space, after);
  if (plainly_equal(was, is, directions)) return;
  try {
    space.cut();
    for (Difference& each : differences(&space, was, is, directions)) {
      diff->differences.push_back({before.name, before.kind, was.sequence(each.before),
                                   is.sequence(each.after), std::move(each.was), std::move(each.is),
                                   each.direction, space.show(each.routes)});
    }
  } catch (const NotKnown& bound) {
    diff->unknown.push_back(fmt::format("policy {}: {}", before.name, bound.what()));
  }
}

std::string side_text(const SequenceModel& sequence, const Outcome& outcome) {
  return fmt::format("{}: {}", decider_text(sequence), outcome_text(outcome));
}

std::string side_json(const SequenceModel& sequence, const Outcome& outcome) {
  std::vector<std::string> sets;
  for (const auto& [word, value] : outcome.sets) {
    sets.push_back(fmt::format("\"{}\":{}", word, json_string(value)));
  }
  return fmt::format("{{\"action\":\"{}\",\"sequence\":{},\"if_resolved\":{},\"set\":{{{}}}}}",
                     pol_util_action_str(outcome.action),
                     sequence.is_default() ? "null" : std::to_string(sequence.is.sequence),
                     outcome.if_resolved, joined(sets, ","));
}

std::string one_sided(const char* only, const PolicyModel& policy) {
  return fmt::format("{} policy {} is in the {} configuration only", pol_util_type_str(policy.kind),
                     policy.name, only);
}

}  // namespace

ProofDiff compare(const Model& before, const Model& after, const std::string& policy,
                  uint32_t direction, const Bounds& bounds) {
  ProofDiff diff;
  for (const PolicyModel& each : before.policies()) {
    if (!policy.empty() && each.name != policy) continue;
    const PolicyModel* other = after.policy(each.name, each.kind);
    if (other != nullptr) {
      compare_policies(each, *other, direction, bounds, &diff);
    } else {
      diff.notes.push_back(one_sided("old", each));
    }
  }
  for (const PolicyModel& each : after.policies()) {
    if (!policy.empty() && each.name != policy) continue;
    if (before.policy(each.name, each.kind) == nullptr)
      diff.notes.push_back(one_sided("new", each));
  }
  return diff;
}

void verify_before(const ProofDiff& diff) {
  for (const ShownDifference& each : diff.differences) {
    Verifier(each.policy, each.kind, each.direction).require(each.route, each.before);
  }
}

void verify_after(const ProofDiff& diff) {
  for (const ShownDifference& each : diff.differences) {
    Verifier(each.policy, each.kind, each.direction).require(each.route, each.after);
  }
}

void write_text(const ProofDiff& diff, uint32_t direction, Output* out) {
  Palette palette(out->fd());
  std::string policy;
  for (const ShownDifference& each : diff.differences) {
    if (policy != each.policy) {
      policy = each.policy;
      out->print("{}\n", palette.paint(Colour::Bold, "policy " + printable(policy)));
    }
    out->print("\n  {}\n  -> {}\n", side_text(each.before, each.was),
               side_text(each.after, each.is));
    const char* way = direction != POL_DIR_NONE       ? ""
                      : each.direction == POL_DIR_OUT ? ", where it is applied outbound"
                                                      : "";
    out->print("  {}{}\n  {}\n",
               each.route.matters.empty()
                   ? "any " + std::string(pol_util_match_type_str(each.route.type()))
                   : printable(joined(each.route.matters, ", ")),
               way, route_json(each.route));
  }
  if (!diff.differences.empty()) out->write("\n");
  for (const std::string& note : diff.notes) out->print("{}\n", printable(note));
  for (const std::string& why : diff.unknown) {
    out->print("not known: {} (--limit gives more)\n", printable(why));
  }
  const size_t kinds = diff.differences.size();
  if (kinds > 0) {
    out->print("{} kind{} of routes answered differently\n", grouped(kinds), kinds == 1 ? "" : "s");
  } else if (diff.unknown.empty()) {
    out->print("no route is answered differently{}: this holds for every route there can be\n",
               diff.notes.empty() ? "" : " by what both have");
  }
}

void write_json(const ProofDiff& diff, Output* out) {
  for (const ShownDifference& each : diff.differences) {
    std::vector<std::string> matters;
    for (const std::string& text : each.route.matters) matters.push_back(json_string(text));
    out->print(
        "{{\"policy\":{},\"direction\":\"{}\",\"old\":{},\"new\":{},\"matters\":[{}],\"route\":{}}}"
        "\n",
        json_string(each.policy), each.direction == POL_DIR_OUT ? "out" : "in",
        side_json(each.before, each.was), side_json(each.after, each.is), joined(matters, ","),
        route_json(each.route));
  }
  for (const std::string& note : diff.notes) out->print("{{\"note\":{}}}\n", json_string(note));
  for (const std::string& why : diff.unknown) {
    out->print("{{\"known\":false,\"why\":{}}}\n", json_string(why));
  }
}

int run_proof_diff(const DiffOptions& options, Output* out) {
  const Bounds bounds = read_bounds(options.limits);
  const PolicyOptions old = old_source(options);  // again, when it is asked for again
  Model before;
  Model after;
  {
    PolicySource source = load_policy(old);
    before.read();
  }
  ProofDiff diff;
  {
    PolicySource source = load_policy(source_of(options.new_file, options.force));
    after.read();
    if (!options.policy.empty()) {
      auto has = [&](const Model& model) {
        return model.policy(options.policy, POL_KIND_ROUTE) != nullptr ||
               model.policy(options.policy, POL_KIND_MEMBERSHIP) != nullptr;
      };
      if (!has(before) && !has(after)) {
        require_policy(options.policy, POL_KIND_ROUTE, options.new_file);
      }
    }
    diff = compare(before, after, options.policy, options.direction, bounds);
    verify_after(diff);
  }
  if (!diff.differences.empty()) {
    PolicySource source = load_policy(old);
    verify_before(diff);
  }
  if (options.json) {
    write_json(diff, out);
  } else {
    write_text(diff, options.direction, out);
  }
  out->flush();
  if (!diff.differences.empty() || !diff.notes.empty()) return kFindings;
  return diff.unknown.empty() ? kDone : kNotKnown;
}

}  // namespace polctl
