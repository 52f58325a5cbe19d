// SPDX-License-Identifier: Apache-2.0
//
// Policies that some route tells apart are not compared. Where two that were turn out to differ, a route
// that shows it is asked of the others too. So there are about as many comparisons as policies.
#include <fmt/format.h>

#include <map>
#include <memory>
#include <utility>

#include "difference.h"
#include "host/address_text.h"
#include "host/output.h"
#include "proof_findings.h"

namespace polctl {

namespace {

using Group = std::vector<const PolicyModel*>;
using AnswerTexts = std::vector<std::string>; /* by route */

class EqualPolicies {
 public:
  EqualPolicies(const std::vector<uint32_t>& directions, const Bounds& bounds,
                std::vector<ProofFinding>* findings, std::vector<std::string>* unknown)
      : directions_(directions), bounds_(bounds), findings_(*findings), unknown_(*unknown) {}

  void find(const Model& model, const std::vector<std::string>& routes) {
    std::map<std::pair<uint32_t, AnswerTexts>, Group> alike;
    for (const PolicyModel& policy : model.policies()) {
      alike[{policy.kind, answers(policy, routes)}].push_back(&policy);
    }
    std::vector<Group> open;
    open.reserve(alike.size());
    for (auto& [answer, group] : alike) open.push_back(std::move(group));
    while (!open.empty()) {
      Group group = std::move(open.back());
      open.pop_back();
      compare_with_first(group, &open);
    }
  }

 private:
  AnswerTexts answers(const PolicyModel& policy, const std::vector<std::string>& routes) const {
    AnswerTexts all(routes.size());
    const std::string lines = joined(routes, "\n");
    for (uint32_t direction : directions_) {
      std::string text = Verifier(policy.name, policy.kind, direction).answers(lines);
      size_t at = 0;
      for (std::string& each : all) {
        size_t end = text.find('\n', at);
        each += text.substr(at, end - at) + '\n';
        at = end + 1;
      }
    }
    return all;
  }

  // What is unlike the first goes to `open`: in groups by the route that first tells it apart, and the
  // answer to that; equal policies stay together.
  void compare_with_first(const Group& group, std::vector<Group>* open) {
    const PolicyModel& first = *group.front();
    std::vector<std::string> routes;
    AnswerTexts expected;
    std::map<std::pair<size_t, std::string>, Group> unlike;
    auto told_apart = [&](const PolicyModel& policy) {
      AnswerTexts given = answers(policy, routes);
      for (size_t i = 0; i < given.size(); ++i) {
        if (given[i] == expected[i]) continue;
        unlike[{i, given[i]}].push_back(&policy);
        return true;
      }
      return false;
    };
    Group rest;  // differs by what no answer shows, such as an IPv6 TLOC that is set
    for (size_t i = 1; i < group.size(); ++i) {
      const PolicyModel& policy = *group[i];
      if (!routes.empty() && told_apart(policy)) continue;
      try {
        std::string route = route_that_differs(first, policy);
        if (route.empty()) {
          add(policy, first);
          continue;
        }
        expected.push_back(answers(first, {route}).front());
        routes.push_back(std::move(route));
        if (!told_apart(policy)) rest.push_back(&policy);
      } catch (const NotKnown& bound) {
        unknown_.push_back(fmt::format("whether policies {} and {} are equal: {}", first.name,
                                       policy.name, bound.what()));
      }
    }
    std::erase_if(rest, [&](const PolicyModel* policy) { return told_apart(*policy); });
    if (rest.size() > 1) open->push_back(std::move(rest));
    for (auto& [answer, each] : unlike) {
      if (each.size() > 1) open->push_back(std::move(each));
    }
  }

  // "" when there is none.
  std::string route_that_differs(const PolicyModel& a, const PolicyModel& b) const {
    RouteSpace space(bounds_);
    PolicyProof before(&space, a);
    PolicyProof after(&space, b);
    if (plainly_equal(before, after, directions_)) return "";
    space.cut();
    std::vector<Difference> found = differences(&space, before, after, directions_);
    return found.empty() ? "" : route_json(space.show(found.front().routes));
  }

  void add(const PolicyModel& policy, const PolicyModel& same) {
    findings_.push_back(
        {ProofFinding::Subject::kPolicy,
         policy.kind,
         policy.name,
         0,
         {},
         fmt::format("it answers every route as policy {} does", in_quotes(same.name)),
         ""});
  }

  const std::vector<uint32_t>& directions_;
  const Bounds& bounds_;
  std::vector<ProofFinding>& findings_;
  std::vector<std::string>& unknown_;
};

}  // namespace

void equal_policies(const Model& model, const std::vector<std::string>& routes,
                    const std::vector<uint32_t>& directions, const Bounds& bounds,
                    std::vector<ProofFinding>* findings, std::vector<std::string>* unknown) {
  EqualPolicies(directions, bounds, findings, unknown).find(model, routes);
}

}  // namespace polctl
