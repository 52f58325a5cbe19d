// SPDX-License-Identifier: Apache-2.0
#include "announcer.h"

#include <iterator>
#include <set>

#include "host/input_error.h"
#include "tool/proof/proof_diff.h"

namespace polctl {

namespace {

void add_all(std::vector<std::string>* to, std::vector<std::string>* from) {
  to->insert(to->end(), std::make_move_iterator(from->begin()),
             std::make_move_iterator(from->end()));
}

std::vector<std::string> lines_of(std::string_view text) {
  std::vector<std::string> lines;
  while (!text.empty()) {
    size_t end = text.find('\n');
    if (end > 0) lines.emplace_back(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return lines;
}

}  // namespace

Announcer::Announcer(const std::map<std::string, uint32_t>& directions)
    : directions_(directions), last_(std::make_unique<Model>()) {
  last_->read();
}

std::vector<std::string> Announcer::changes() {
  auto now = std::make_unique<Model>();
  now->read();
  std::set<std::string> names;
  for (const Model* model : {last_.get(), now.get()}) {
    for (const PolicyModel& policy : model->policies()) names.insert(policy.name);
  }
  Bounds bounds;
  bounds.time = std::chrono::seconds(kSeconds);
  ProofDiff all;
  for (const std::string& name : names) {
    auto given = directions_.find(name);
    uint32_t direction = given != directions_.end() ? given->second : uint32_t{POL_DIR_IN};
    ProofDiff diff = compare(*last_, *now, name, direction, bounds);
    std::move(diff.differences.begin(), diff.differences.end(),
              std::back_inserter(all.differences));
    add_all(&all.notes, &diff.notes);
    add_all(&all.unknown, &diff.unknown);
  }
  std::vector<std::string> lines;
  try {
    verify_after(all);
    Output text(Output::kNoFile);
    write_text(all, POL_DIR_IN, &text);
    lines = lines_of(text.text());
  } catch (const InternalError& error) {
    lines = {error.what()};
  }
  last_ = std::move(now);
  return lines;
}

}  // namespace polctl
