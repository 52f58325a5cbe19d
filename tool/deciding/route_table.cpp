// SPDX-License-Identifier: Apache-2.0
#include "route_table.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "policy/pol_exec.h"
#include "tool/evaluation.h"
#include "tool/importing/route_import.h"
#include "tool/line_pieces.h"
#include "tool/route_reader.h"

namespace polctl {

namespace {

using Clock = std::chrono::steady_clock;

class Digest {
 public:
  void add(uint64_t value) {
    value_ = (value_ ^ value) * 0x9e3779b97f4a7c15;
    value_ ^= value_ >> 32;
  }
  uint64_t value() const { return value_; }

 private:
  uint64_t value_ = 0xcbf29ce484222325;
};

// Of what somebody who asked would see, in the order in which it is there.
uint64_t answer_digest(const Verdict& verdict) {
  const t_pol_route_query& query = *verdict.query;
  Digest digest;
  digest.add(verdict.action);
  digest.add(query.applied);
  if ((query.applied & POL_APPLIED_TAG) != 0) digest.add(query.attr_copy.tag);
  if ((query.applied & POL_APPLIED_PREF) != 0) digest.add(query.attr_copy.preference);
  digest.add(query.tlocs->ultimate);
  for (uint32_t i = 0; i < query.tlocs->count; ++i) {
    const t_pol_tloc_result_entry& entry = query.tlocs->entry[i];
    // Of an IPv4 address the bytes after it are 0.
    for (size_t at = 0; at < sizeof entry.tloc.addr; at += sizeof(uint64_t)) {
      uint64_t bytes = 0;
      memcpy(&bytes, reinterpret_cast<const char*>(&entry.tloc.addr) + at, sizeof bytes);
      digest.add(bytes);
    }
    digest.add(uint64_t{entry.tloc.family} << 32 | entry.tloc.color << 16 | entry.tloc.encap);
    digest.add(uint64_t{entry.label} << 32 | entry.preference);
  }
  for (uint32_t i = 0; i < query.vpn_count; ++i) {
    digest.add(query.vpn_array[i].low);
    digest.add(query.vpn_array[i].high);
  }
  return digest.value();
}

// Of some routes in a row.
struct DecidedPart : Part {
  void add(const Verdict& verdict) override {
    const bool accepts = verdict.action == POL_ACCEPT;
    accepted += accepts ? 1 : 0;
    decisions.count(verdict.decision.is_default != 0, verdict.decision.sequence, accepts);
    answers.push_back(answer_digest(verdict));
  }
  Decisions decisions;
  std::vector<uint64_t> answers;
  uint64_t accepted = 0;
};

// How many routes the lines hold. Throws InputError at the first that is none.
uint64_t count_routes(const std::string& path, const std::string& name) {
  RouteReader reader(path, name);
  uint64_t count = 0;
  for (;; ++count) {
    t_pol_route_query query = {};
    t_pol_route_attr attr = {};
    if (!reader.next(&query, &attr)) return count;
  }
}

}  // namespace

RouteTable::RouteTable(std::string path, std::string format,
                       std::map<std::string, uint32_t> directions)
    : path_(std::move(path)), format_(std::move(format)), directions_(std::move(directions)) {
  if (!path_.empty()) read_again();
}

void RouteTable::read_again() {
  ImportedRoutes imported(format_, path_);
  const std::string& name = imported.name().empty() ? path_ : imported.name();
  // A copy: what somebody writes into the file changes no answer until it is read again.
  std::string text = read_whole(imported.path(), kMaxSourceBytes, "a file of routes");
  auto lines = std::make_shared<const MemoryFile>(text);
  routes_ = count_routes(lines->path(), name);
  lines_ = std::move(lines);
  all_due_ = true;
  const size_t hash = std::hash<std::string>()(text);
  // Answers on the same routes can be compared.
  if (hash != text_hash_) answers_.clear();
  text_hash_ = hash;
}

std::vector<RouteTable::Round> RouteTable::decide(const ConfiguredNames& configured,
                                                  const std::vector<std::string>& called,
                                                  Counters* counters) {
  std::vector<Round> rounds;
  if (!any()) return rounds;
  static const std::set<std::string> kNone;
  auto names = configured.find("/policy/control-policy");
  const std::set<std::string>& there = names != configured.end() ? names->second : kNone;
  std::erase_if(answers_, [&](const auto& row) { return there.count(row.first) == 0; });
  for (const std::string& policy : there) {
    auto said = directions_.find(policy);
    if (!directions_.empty() && said == directions_.end()) continue;
    bool due = all_due_ || answers_.count(policy) == 0 ||
               std::find(called.begin(), called.end(), policy) != called.end();
    if (!due) continue;
    uint32_t direction = said != directions_.end() ? said->second : uint32_t{POL_DIR_IN};
    rounds.push_back(decide_by(policy, direction, counters));
  }
  all_due_ = false;
  return rounds;
}

RouteTable::Round RouteTable::decide_by(const std::string& policy, uint32_t direction,
                                        Counters* counters) {
  const Clock::time_point begun = Clock::now();
  std::vector<uint64_t>& before = answers_[policy];
  std::vector<uint64_t> answers;
  answers.reserve(routes_);
  Round round;
  round.policy = policy;
  round.first = before.size() != routes_;
  Decisions decisions;
  auto take = [&](Part* given) {
    auto* part = static_cast<DecidedPart*>(given);
    answers.insert(answers.end(), part->answers.begin(), part->answers.end());
    decisions.add(part->decisions);
    round.accepted += part->accepted;
  };
  Output nothing(Output::kNoFile);
  Progress progress("", false);
  LinePieces pieces(lines_->path(), path_);
  Evaluation evaluation(policy, POL_KIND_ROUTE, direction);
  evaluation.run(&pieces, {0, false, &nothing, &progress,
                           [] { return std::make_unique<DecidedPart>(); }, take});
  for (size_t i = 0; !round.first && i < answers.size(); ++i) {
    if (answers[i] != before[i]) ++round.changed;
  }
  before = std::move(answers);
  counters->add({POL_KIND_ROUTE, policy}, decisions);
  round.ms = std::chrono::duration<double, std::milli>(Clock::now() - begun).count();
  return round;
}

}  // namespace polctl
