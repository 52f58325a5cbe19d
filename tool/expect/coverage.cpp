// SPDX-License-Identifier: Apache-2.0
#include "coverage.h"

#include <fmt/format.h>

#include <set>

#include "host/address_text.h"
#include "policy/pol_context.h"
#include "policy/pol_graph.h"
#include "policy/pol_trace.h"
#include "policy/pol_util.h"
#include "tool/attribute_words.h"

namespace polctl {

namespace {

// In the order of testing.
constexpr uint32_t kTested[] = {
    POL_MATCH_F_TAG,        POL_MATCH_F_PREF,      POL_MATCH_F_DOMAIN,   POL_MATCH_F_GROUP,
    POL_MATCH_F_VPN_ID,     POL_MATCH_F_VPN_LIST,  POL_MATCH_F_TLOC,     POL_MATCH_F_TLOC_LIST,
    POL_MATCH_F_SITE,       POL_MATCH_F_SITE_LIST, POL_MATCH_F_PFX_LIST, POL_MATCH_F_ORIGIN,
    POL_MATCH_F_ORIGINATOR, POL_MATCH_F_CARRIER,   POL_MATCH_F_COLOR,    POL_MATCH_F_COLOR_LIST};

std::string range_words(const t_pol_content_element& element) {
  return element.low == element.high ? fmt::format("{}", element.low)
                                     : fmt::format("{}-{}", element.low, element.high);
}

std::string prefix_words(const t_pol_pfx_record& record) {
  std::string text = prefix_text(record.prefix);
  const char* word = pol_util_pfx_op_str(record.op);
  switch (record.op) {
    case 0:
    case POL_PFX_EQ:
      return text;
    case POL_PFX_NE:
      return fmt::format("{} {}", text, word);
    case POL_PFX_RANGE:
    case POL_PFX_XRANGE:
      return fmt::format("{} {} {} {}", text, word, unsigned{record.min}, unsigned{record.max});
    default:
      return fmt::format("{} {} {}", text, word,
                         unsigned{record.op == POL_PFX_LE ? record.max : record.min});
  }
}

// Elements of one list that are alike in words are one.
std::string element_words(uint32_t type, const t_pol_content_element& element) {
  switch (type) {
    case POL_GRAPH_SITE_LIST:
    case POL_GRAPH_VPN_LIST:
      return range_words(element);
    case POL_GRAPH_TLOC_LIST:
      return tloc_text(element.tloc);
    case POL_GRAPH_COLOR_LIST: {
      const char* word = word_of(Vocabulary::kColor, element.color);
      return *word != '\0' ? word : std::to_string(element.color);
    }
    default:
      return prefix_words(element.prefix);
  }
}

}  // namespace

// Called by the library: running out of memory ends the process here rather than pass through it.
struct Coverage::Reader {
  Coverage* coverage;
  std::set<const void*> matched; /* the lists that count */
  ListPlace* place = nullptr;    /* of the list whose elements come; null: it does not count */

  static void policy(void* arg, uint32_t kind, const char* name) noexcept {
    static_cast<Reader*>(arg)->coverage->policies_.push_back({name, kind, {}});
  }

  static void sequence(void* arg, const t_pol_content_sequence* given) noexcept {
    auto* reader = static_cast<Reader*>(arg);
    SequenceCoverage sequence;
    sequence.sequence = given->sequence;
    sequence.is_default = given->is_default != 0;
    for (uint32_t clause : kTested) {
      if (!sequence.is_default && (given->match_flags & clause) != 0) {
        sequence.clauses.push_back({clause, 0, 0});
      }
    }
    const std::pair<uint32_t, const void*> lists[] = {{POL_MATCH_F_SITE_LIST, given->site_list},
                                                      {POL_MATCH_F_VPN_LIST, given->vpn_list},
                                                      {POL_MATCH_F_TLOC_LIST, given->tloc_list},
                                                      {POL_MATCH_F_COLOR_LIST, given->color_list},
                                                      {POL_MATCH_F_PFX_LIST, given->pfx_list}};
    for (const auto& [clause, list] : lists) {
      if ((given->match_flags & clause) != 0) reader->matched.insert(list);
    }
    reader->coverage->policies_.back().sequences.push_back(std::move(sequence));
  }

  static void list(void* arg, uint32_t type, const void* id, const char* name) noexcept {
    auto* reader = static_cast<Reader*>(arg);
    reader->place = nullptr;
    if (reader->matched.count(id) == 0) return;
    Coverage& coverage = *reader->coverage;
    reader->place = &coverage.places_[id];
    reader->place->at = coverage.lists_.size();
    coverage.lists_.push_back({type, name, {}, 0});
  }

  static void element(void* arg, const t_pol_content_element* element) noexcept {
    auto* reader = static_cast<Reader*>(arg);
    if (reader->place == nullptr) return;
    ListCoverage& list = reader->coverage->lists_[reader->place->at];
    std::string words = element_words(list.type, *element);
    reader->place->elements.emplace(words, list.elements.size());
    list.elements.emplace_back(std::move(words), false);
  }
};

struct Coverage::Asking {
  Coverage* coverage;
  PolicyCoverage* policy;
  size_t at = 0; /* steps come in the order of the sequences */

  static void step(const t_pol_trace_step* step, void* arg) noexcept {
    static_cast<Asking*>(arg)->count(*step);
  }

  void count(const t_pol_trace_step& step) {
    std::vector<SequenceCoverage>& sequences = policy->sequences;
    if (step.is_default != 0) {
      ++sequences.back().decided;
      return;
    }
    while (at < sequences.size() && sequences[at].sequence != step.sequence) ++at;
    if (at == sequences.size()) return;
    if (step.decided != 0) {
      ++sequences[at].decided;
      return;
    }
    for (ClauseCoverage& each : sequences[at].clauses) {
      if (each.clause != step.clause) continue;
      ++(step.held != 0 ? each.held : each.failed);
    }
    auto place = coverage->places_.find(step.list);
    if (place == coverage->places_.end()) return;
    ListCoverage& list = coverage->lists_[place->second.at];
    auto element = place->second.elements.find(element_words(list.type, step.element));
    if (element == place->second.elements.end()) return;
    bool& reached = list.elements[element->second].second;
    if (!reached) ++list.reached;
    reached = true;
  }
};

Coverage::Coverage() {
  Reader reader = {this, {}};
  t_pol_content_visitor policies = {nullptr, nullptr, Reader::policy, Reader::sequence, &reader};
  t_pol_content_visitor lists = {Reader::list, Reader::element, nullptr, nullptr, &reader};
  pol_content_walk(g_pol_ctx_p, &policies);
  pol_content_walk(g_pol_ctx_p, &lists);
}

void Coverage::ask(const std::string& policy, uint32_t kind, t_pol_user* user,
                   t_pol_route_query* query) {
  for (PolicyCoverage& each : policies_) {
    if (each.kind != kind || each.name != policy) continue;
    Asking asking = {this, &each};
    pol_trace(user, query, Asking::step, &asking);
  }
}

std::string SequenceCoverage::name() const {
  return is_default ? "default" : std::to_string(sequence);
}

}  // namespace polctl
