// SPDX-License-Identifier: Apache-2.0
#include "finding_places.h"

#include <fmt/format.h>

#include <cstdlib>

#include "host/address_text.h"
#include "policy/pol_test.h"
#include "tool/config_findings.h"
#include "tool/line_reader.h"

namespace polctl {

namespace {

struct ListWords {
  uint32_t type;
  const char* list;    // in configuration and policy files
  const char* member;  // in configuration
};

constexpr ListWords kLists[] = {{POL_GRAPH_SITE_LIST, "site-list", "site"},
                                {POL_GRAPH_VPN_LIST, "vpn-list", "vpn"},
                                {POL_GRAPH_PREFIX_LIST, "prefix-list", "prefix"}};

const ListWords& words_of(uint32_t type) {
  for (const ListWords& each : kLists) {
    if (each.type == type) return each;
  }
  return kLists[0];
}

std::string text_of(const ProofFinding& finding) {
  return element_text({finding.kind, "", {}}, finding.element);
}

// As the library reads the element, whatever its spelling.
std::string element_key(uint32_t type, const std::string& word) {
  if (type != POL_GRAPH_PREFIX_LIST) {
    return std::to_string(strtoul(word.c_str(), nullptr, 10));
  }
  t_ipprefix prefix = {};
  prefix.addr.family = KEL_AF_INET;
  pol_test_pfx_str_to_pfx(word.c_str(), &prefix);
  return prefix_text(prefix);
}

}  // namespace

std::string configuration_path(const ProofFinding& finding) {
  if (finding.subject == ProofFinding::Subject::kElement) {
    const ListWords& words = words_of(finding.kind);
    return fmt::format("/policy/lists/{}{{{}}}/{}{{{}}}", words.list, key_text(finding.name),
                       words.member, text_of(finding));
  }
  std::string path = fmt::format("/policy/{}-policy{{{}}}",
                                 finding.kind == POL_KIND_MEMBERSHIP ? "membership" : "control",
                                 key_text(finding.name));
  if (finding.subject == ProofFinding::Subject::kDefault) return path + "/default-action";
  if (finding.subject == ProofFinding::Subject::kPolicy) return path;
  return path + fmt::format("/sequence{{{}}}", finding.sequence);
}

std::string policy_file_words(const ProofFinding& finding) {
  if (finding.subject == ProofFinding::Subject::kElement) {
    return fmt::format("{} '{}' {}", words_of(finding.kind).list, finding.name, text_of(finding));
  }
  std::string text = fmt::format("route-policy '{}'", finding.name);
  if (finding.subject == ProofFinding::Subject::kDefault) return text + " default-action";
  if (finding.subject == ProofFinding::Subject::kPolicy) return text;
  return text + fmt::format(" sequence {}", finding.sequence);
}

TextPlaces::TextPlaces(const SourceFile& file) {
  LineReader lines(file.path(), file.name());
  std::string_view line;
  while (lines.next(&line)) {
    std::vector<std::string> words;
    std::vector<uint32_t> columns;
    for (size_t at = 0; words.size() < 4;) {
      at = line.find_first_not_of(" \t", at);
      if (at == std::string_view::npos) break;
      size_t end = std::min(line.find_first_of(" \t", at), line.size());
      words.emplace_back(line.substr(at, end - at));
      columns.push_back(static_cast<uint32_t>(at + 1));
      at = end;
    }
    auto note = [&](std::vector<std::string> key, size_t word) {
      places_.try_emplace(std::move(key),
                          TextPlace{static_cast<uint32_t>(lines.line()), columns[word], true});
    };
    if (words.size() < 2 || words[0].starts_with('#')) continue;
    note({words[0], words[1]}, 1);
    if (words.size() > 2 && words[2] == "default-action") note({words[0], words[1], words[2]}, 2);
    if (words.size() > 3 && words[2] == "sequence") {
      note({words[0], words[1], words[2], words[3]}, 3);
    }
    for (const ListWords& each : kLists) {
      if (words[0] == each.list && words.size() > 2) {
        note({words[0], words[1], element_key(each.type, words[2])}, 2);
      }
    }
  }
}

TextPlace TextPlaces::find(const ProofFinding& finding) const {
  std::vector<std::string> key = {"route-policy", finding.name};
  if (finding.subject == ProofFinding::Subject::kElement) {
    key = {words_of(finding.kind).list, finding.name, text_of(finding)};
  } else if (finding.subject == ProofFinding::Subject::kDefault) {
    key.emplace_back("default-action");
  } else if (finding.subject == ProofFinding::Subject::kSequence) {
    key.emplace_back("sequence");
    key.push_back(std::to_string(finding.sequence));
  }
  auto found = places_.find(key);
  if (found != places_.end()) return found->second;
  found = places_.find({key[0], key[1]});
  if (found == places_.end()) return {};
  TextPlace place = found->second;
  place.exact = false;
  return place;
}

}  // namespace polctl
