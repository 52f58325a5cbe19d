// SPDX-License-Identifier: Apache-2.0
#include "test_runner.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/address_text.h"
#include "host/input_error.h"
#include "host/policy_source.h"
#include "host/tloc_resolver.h"
#include "policy/pol_user.h"
#include "tool/evaluation.h"

namespace polctl {

// A query and all that it points to. It is asked anew each time: VPN ranges would go on gathering.
struct TestRunner::Question {
  t_pol_route_attr attr;
  t_pol_route_query asked;  // as it was read
  t_pol_route_query query;
  t_pol_tloc_result tlocs;

  Question() { pol_pre_execute(&query, kReleaseVpnArray); }
  ~Question() { pol_post_execute(&query); }
  Question(const Question&) = delete;
  Question& operator=(const Question&) = delete;

  t_pol_route_query* cleared() {
    pol_pre_execute(&asked, kReleaseVpnArray);
    return &asked;
  }
  t_pol_route_query* prepared() {
    pol_post_execute(&query);
    query = asked;
    tlocs.count = 0;
    tlocs.ultimate = 0;
    query.tlocs = &tlocs;
    return &query;
  }
};

TestRunner::TestRunner(uint32_t direction, const Bounds& bounds, Coverage* coverage)
    : direction_(direction != POL_DIR_NONE ? direction : uint32_t{POL_DIR_IN}),
      bounds_(bounds),
      coverage_(coverage),
      question_(std::make_unique<Question>()) {}

TestRunner::~TestRunner() {
  for (auto& [key, user] : users_) pol_unregister(&user);
}

t_pol_user* TestRunner::user_of(const std::string& policy, uint32_t kind, uint32_t direction) {
  t_pol_user*& user = users_[{policy, kind, direction}];
  if (user != nullptr) return user;
  // One user of a name has one policy.
  const std::string name = fmt::format("polctl test {}", users_.size());
  user = register_user(name, policy, kind, direction, nullptr, nullptr, resolve_tloc);
  return user;
}

// Asks again, for what a failure is told with.
void TestRunner::explain(t_pol_user* user, Verdict* verdict, TestResult* result) {
  verdict->query = question_->prepared();
  verdict->action = pol_explain(user, &question_->query, keep_step, verdict, &verdict->decision);
  Output text(Output::kNoFile);
  write_explanation(*verdict, &text, Palette(Output::kNoFile));
  result->explanation = text.text();
  Output json(Output::kNoFile);
  write_json(*verdict, &json);
  result->answer = json.text().substr(0, json.text().size() - 1);  // without its line end
}

void TestRunner::prove(const TestCase& test, const TestFile& file, t_pol_user* user,
                       TestResult* result) {
  const std::optional<uint32_t>& named = test.never->sequence.value;
  std::vector<uint32_t> there = policy_sequences(test.policy, test.kind);
  if (named && std::find(there.begin(), there.end(), *named) == there.end()) {
    throw InputError(
        fmt::format("{}: error: policy {} has no sequence {} (expected one that it has)",
                    file.place("never.sequence"), in_quotes(test.policy), *named));
  }
  if (!prover_) prover_.emplace(bounds_);
  std::string text = "never " + never_text(*test.never);
  result->title = !test.name.empty() ? test.name : test.policy + ", " + text;
  std::optional<CounterExample> found =
      prover_->disprove(test, file.place("never.where[]") + ": error: where");
  if (!found) return;
  bool known = !found->route.empty();
  result->mismatches.push_back(
      {"never",
       {never_json(*test.never), text},
       {known ? found->route : "null", known ? found->route : "no proof"}});
  result->reason = found->what;
  result->answer = "null";
  if (!known) return;
  JsonLine line;
  split_json_line(found->route, &line);
  t_pol_route_query* query = question_->cleared();
  question_->attr = {};
  query->attr = &question_->attr;
  read_route_fields(line, query, &question_->attr);
  Verdict verdict;
  verdict.direction = test.direction;
  explain(user, &verdict, result);
}

void TestRunner::judge(const TestCase& test, uint64_t index, t_pol_user* user, TestResult* result) {
  Verdict verdict;
  verdict.direction = test.direction;
  verdict.index = index;
  verdict.query = question_->prepared();
  verdict.action = pol_explain(user, &question_->query, nullptr, nullptr, &verdict.decision);
  result->mismatches = mismatches_of(test.expected, verdict);
  result->title = !test.name.empty() ? test.name : test.policy + ", " + route_text_in_full(verdict);
  if (result->passed()) return;
  explain(user, &verdict, result);
  std::vector<uint32_t> sequences = policy_sequences(test.policy, test.kind);
  uint32_t wanted = test.expected.sequence.value.value_or(0);
  bool there = std::find(sequences.begin(), sequences.end(), wanted) != sequences.end();
  result->reason = reason_of(test.expected, there, verdict);
}

void TestRunner::run(TestFile* file, TestRun* run) {
  TestCase test;
  while (file->next(&test, question_->cleared(), &question_->attr)) {
    require_policy(test.policy, test.kind, file->place("policy"));
    if (test.direction == POL_DIR_NONE) test.direction = direction_;
    TestResult result;
    result.file = file->name();
    result.line = test.line;
    result.policy = test.policy;
    t_pol_user* user = user_of(test.policy, test.kind, test.direction);
    if (test.never) {
      prove(test, *file, user, &result);
    } else {
      judge(test, run->results.size(), user, &result);
    }
    if (!result.passed()) ++run->failed;
    run->results.push_back(std::move(result));
    if (coverage_ != nullptr && !test.never) {
      coverage_->ask(test.policy, test.kind, user, question_->prepared());
    }
  }
}

void TestRunner::ask(RouteReader* routes) {
  std::vector<std::pair<std::string, t_pol_user*>> policies;
  for (const std::string& name : policy_names(POL_KIND_ROUTE)) {
    policies.emplace_back(name, user_of(name, POL_KIND_ROUTE, direction_));
  }
  while (routes->next(question_->cleared(), &question_->attr)) {
    for (const auto& [name, user] : policies) {
      coverage_->ask(name, POL_KIND_ROUTE, user, question_->prepared());
    }
  }
}

}  // namespace polctl
