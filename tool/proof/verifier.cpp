// SPDX-License-Identifier: Apache-2.0
//
// Every route that is shown goes to the library first, in the words in which it is shown.
#include <fmt/format.h>

#include "host/policy_source.h"
#include "host/source_file.h"
#include "policy/pol_exec.h"
#include "policy/pol_user.h"
#include "policy_proof.h"
#include "tool/route_reader.h"

namespace polctl {

namespace {

// What resolves is told apart by what was asked for.
void resolve_always(uint16_t, uint32_t ipv4, uint8_t color, uint8_t encap, uint64_t vpn,
                    uint16_t service, t_pol_tloc_result* result) noexcept {
  if (result->count == POL_MAX_TLOC) return;
  t_pol_tloc_result_entry& entry = result->entry[result->count++];
  entry = {};
  entry.tloc.addr.v4 = ipv4;
  entry.tloc.color = color;
  entry.tloc.encap = encap;
  entry.label = service;
  entry.preference = static_cast<uint32_t>(vpn);
}

t_pol_user* user_of(const std::string& policy, uint32_t kind, uint32_t direction,
                    t_pol_resolve_cb resolve) {
  static uint64_t users = 0;  // their names tell them apart
  return register_user(fmt::format("polctl-proof-{}", ++users), policy, kind, direction, nullptr,
                       nullptr, resolve);
}

std::string decision_text(bool is_default, uint32_t sequence, uint32_t action) {
  return fmt::format("{} {}", is_default ? "the default action" : fmt::format("{}", sequence),
                     action == POL_ACCEPT ? "accepts" : "rejects");
}

}  // namespace

struct Verifier::Users {
  t_pol_user* resolving;
  t_pol_user* plain;
};

Verifier::Verifier(const std::string& policy, uint32_t kind, uint32_t direction)
    : policy_(policy),
      direction_(direction),
      users_(std::make_unique<Users>(Users{user_of(policy, kind, direction, resolve_always),
                                           user_of(policy, kind, direction, nullptr)})) {}

Verifier::~Verifier() {
  pol_unregister(&users_->resolving);
  pol_unregister(&users_->plain);
}

void Verifier::require(const ShownRoute& route, const SequenceModel& decider) const {
  const std::string line = route_json(route);
  const Outcome outcome = outcome_of(decider, route.type(), direction_);
  MemoryFile file(line);
  for (t_pol_user* user : {users_->resolving, users_->plain}) {
    RouteReader reader(file.path(), "route");
    auto query = std::make_unique<t_pol_route_query>();
    auto attr = std::make_unique<t_pol_route_attr>();
    pol_pre_execute(query.get(), 3);
    if (!reader.next(query.get(), attr.get())) throw InternalError("a route without text");
    t_pol_explain_step decision = {};
    uint32_t explained = pol_explain(user, query.get(), nullptr, nullptr, &decision);
    pol_post_execute(query.get());
    query->vpn_array = nullptr;
    query->vpn_count = 0;
    query->applied = 0;
    const uint32_t action = pol_execute(user, query.get());
    pol_post_execute(query.get());
    const bool resolves = user == users_->resolving;
    const uint32_t expected =
        outcome.if_resolved && !resolves ? uint32_t{POL_REJECT} : outcome.action;
    bool sets = true;
    for (const auto& [word, value] : outcome.sets) {
      std::string_view name = word;
      if (name == "tag") sets = sets && std::to_string(query->attr_copy.tag) == value;
      if (name == "preference") sets = sets && std::to_string(query->attr_copy.preference) == value;
    }
    const bool same_decider = (decision.is_default != 0) == decider.is_default() &&
                              (decider.is_default() || decision.sequence == decider.is.sequence);
    if (same_decider && action == expected && explained == action && sets) continue;
    throw InternalError(fmt::format(
        "polctl: internal error: policy {}: the proof has it that {}, the library that {}, of {}",
        policy_, decision_text(decider.is_default(), decider.is.sequence, expected),
        decision_text(decision.is_default != 0, decision.sequence, action), line));
  }
}

std::string Verifier::answers(const std::string& lines) const {
  MemoryFile file(lines);
  RouteReader reader(file.path(), "routes");
  auto query = std::make_unique<t_pol_route_query>();
  auto attr = std::make_unique<t_pol_route_attr>();
  auto tlocs = std::make_unique<t_pol_tloc_result>();
  std::string text;
  while (true) {
    pol_pre_execute(query.get(), 3);
    if (!reader.next(query.get(), attr.get())) return text;
    tlocs->count = 0;
    query->tlocs = tlocs.get();
    const uint32_t action = pol_execute(users_->resolving, query.get());
    text += std::to_string(action);
    if (action == POL_ACCEPT) {
      text += fmt::format(" {} {} {}", query->applied, query->attr_copy.tag,
                          query->attr_copy.preference);
      for (uint32_t i = 0; i < query->vpn_count; ++i) {
        text += fmt::format(" {}-{}", query->vpn_array[i].low, query->vpn_array[i].high);
      }
      for (uint32_t i = 0; i < tlocs->count; ++i) {
        const t_pol_tloc_result_entry& each = tlocs->entry[i];
        text += fmt::format(" {},{},{},{},{}", each.tloc.addr.v4, each.tloc.color, each.tloc.encap,
                            each.label, each.preference);
      }
    }
    text += '\n';
    pol_post_execute(query.get());
  }
}

}  // namespace polctl
