// SPDX-License-Identifier: Apache-2.0
#include "tool/watching/configured_policy.h"

#include <fmt/format.h>

#include <cstdlib>
#include <optional>
#include <string_view>

#include "host/setlines/config_lines.h"
#include "host/setlines/set_words.h"
#include "tool/config_findings.h"

namespace polctl {

namespace {

constexpr uint32_t kPolicyDepth = 1;  // of a policy's own line, below that of "policy"

// Takes the lines in a policy, one after another.
class Taker {
 public:
  explicit Taker(ConfiguredPolicy* policy) : policy_(*policy) {}

  void take(const ConfigLine& line) {
    std::string_view text = line.text;
    if (sequence_ != nullptr && line.depth > sequence_depth_) return in_sequence(line);
    sequence_ = nullptr;
    if (line.depth <= vpn_depth_) vpn_list_.clear();
    if (text.starts_with("sequence ")) {
      sequence_ = &policy_.sequences[{vpn_list_, std::atoll(line.text.c_str() + 9)}];
      sequence_depth_ = line.depth;
    } else if (text.starts_with("vpn-list ")) {
      vpn_list_ = split_words(text).at(1).text;
      vpn_depth_ = line.depth;
    } else if (text.starts_with("default-action ")) {
      by_default().action = text.substr(text.find(' ') + 1);
    } else if (!vpn_list_.empty()) {
      by_default().set.push_back(line.text);
    } else {
      outside(line);
    }
  }

 private:
  ConfiguredSequence& by_default() {
    return policy_.sequences[{vpn_list_, ConfiguredPolicy::kDefault}];
  }

  // Parts are children of "match ..." or of "action" and its "set"; what is in a part is told with it.
  void in_sequence(const ConfigLine& line) {
    const uint32_t depth = line.depth - sequence_depth_;
    if (depth == 1) {
      matches_ = line.text.starts_with("match");
      part_depth_ = 2;
    } else if (!matches_ && depth == 2 && line.text == "set") {
      part_depth_ = 3;
    } else if (!matches_ && depth == 2 && (line.text == "accept" || line.text == "reject")) {
      sequence_->action = line.text;
    } else {
      std::vector<std::string>& parts = matches_ ? sequence_->match : sequence_->set;
      bool begins = depth == 2 || depth == part_depth_ || parts.empty();
      if (depth == 2) part_depth_ = 2;
      if (begins) {
        parts.push_back(line.text);
      } else {
        parts.back() += " " + line.text;
      }
    }
  }

  void outside(const ConfigLine& line) {
    bool inner = !policy_.settings.empty() && line.depth > settings_depth_;
    if (inner) {
      policy_.settings.back() += " " + line.text;
    } else {
      policy_.settings.push_back(line.text);
      settings_depth_ = line.depth;
    }
  }

  ConfiguredPolicy& policy_;
  ConfiguredSequence* sequence_ = nullptr;
  std::string vpn_list_;
  uint32_t vpn_depth_ = 0;
  uint32_t sequence_depth_ = 0;
  uint32_t part_depth_ = 2;
  uint32_t settings_depth_ = 0;
  bool matches_ = false;
};

}  // namespace

const ConfiguredSequence* ConfiguredPolicy::find(const std::string& vpn_list,
                                                 int64_t number) const {
  auto found = sequences.find({vpn_list, number});
  return found != sequences.end() ? &found->second : nullptr;
}

const ConfiguredPolicy& known_of(const ConfiguredPolicies& policies, const GraphNode& policy) {
  static const ConfiguredPolicy kNothing;
  auto found = policies.find({graph_word(policy), policy.name});
  return found != policies.end() ? found->second : kNothing;
}

std::vector<std::string> policy_paths(const std::string& name) {
  std::vector<std::string> paths;
  for (const char* kind : {"control-policy", "membership-policy", "data-policy", "app-route-policy",
                           "cflowd-template"}) {
    paths.push_back(fmt::format("/policy/{}", kind));
    if (!name.empty()) paths.back() += fmt::format("{{{}}}", key_text(name));
  }
  return paths;
}

void add_configured(const std::string& xml, ConfiguredPolicies* policies) {
  std::optional<Taker> taker;
  for (const ConfigLine& line : config_lines(xml)) {
    if (line.depth == kPolicyDepth) {
      std::vector<SetWord> words = split_words(line.text);
      taker.emplace(&(*policies)[{words.at(0).text, words.at(1).text}]);
    } else if (line.depth > kPolicyDepth && taker) {
      taker->take(line);
    }
  }
}

ConfiguredPolicies read_configured(ConfigSession* session, const std::string& name) {
  ConfiguredPolicies policies;
  for (const std::string& path : policy_paths(name)) add_configured(session->save(path), &policies);
  return policies;
}

}  // namespace polctl
