// SPDX-License-Identifier: Apache-2.0
#include "attribute_words.h"

#include "kel/tloc.h"

namespace polctl {

namespace {

constexpr std::string_view kUnknown = "unknown";

constexpr const char* kEncaps[] = {"", "gre", "ipsec"};
static_assert(KEL_ENCAP_GRE == 1 && KEL_ENCAP_IPSEC == 2);

constexpr const char* kCarriers[] = {"default",  "carrier1", "carrier2", "carrier3", "carrier4",
                                     "carrier5", "carrier6", "carrier7", "carrier8"};

struct OriginRow {
  const char* word;
  Origin origin;
};

// Those that policy can match; of the others configuration has the words alone.
constexpr OriginRow kOrigins[] = {
    {"connected", {2, 0}},       {"static", {1, 0}},         {"ospf-inter-area", {4, 2}},
    {"ospf-intra-area", {4, 1}}, {"ospf-external1", {4, 3}}, {"ospf-external2", {4, 4}},
    {"bgp-internal", {3, 1}},    {"bgp-external", {3, 2}},   {"service", {5, 0}},
    {"aggregate", {8, 0}},       {"nat-inside", {9, 1}},     {"nat-outside", {9, 2}},
};

template <size_t N>
const char* at(const char* const (&words)[N], uint32_t number) {
  return number < N ? words[number] : "";
}

const char* named(const char* word) { return word == kUnknown ? "" : word; }

}  // namespace

const char* word_of(Vocabulary words, uint32_t number) {
  switch (words) {
    case Vocabulary::kColor:
      return named(kel_util_tloc_color_name(number));
    case Vocabulary::kEncap:
      return at(kEncaps, number);
    case Vocabulary::kService:
      return named(kel_util_svc_name(number));
    case Vocabulary::kCarrier:
      return at(kCarriers, number);
  }
  return "";
}

bool number_of(Vocabulary words, std::string_view word, uint32_t* number) {
  if (word.empty()) return false;
  for (uint32_t each = 0; each <= UINT8_MAX; ++each) {
    if (word != word_of(words, each)) continue;
    *number = each;
    return true;
  }
  return false;
}

std::vector<std::string> words_in(Vocabulary words) {
  std::vector<std::string> all;
  for (uint32_t each = 0; each <= UINT8_MAX; ++each) {
    if (*word_of(words, each) != '\0') all.emplace_back(word_of(words, each));
  }
  return all;
}

const char* vocabulary_name(Vocabulary words) {
  constexpr const char* kNames[] = {"color", "encapsulation", "service", "carrier"};
  return kNames[static_cast<size_t>(words)];
}

std::string json_word(Vocabulary words, uint32_t number) {
  const char* word = word_of(words, number);
  if (*word == '\0') return std::to_string(number);
  return std::string(1, '"').append(word).append(1, '"');
}

const char* origin_word(Origin origin) {
  for (const OriginRow& row : kOrigins) {
    bool same = row.origin.protocol == origin.protocol && row.origin.subtype == origin.subtype;
    if (same) return row.word;
  }
  return "";
}

bool origin_of(std::string_view word, Origin* origin) {
  for (const OriginRow& row : kOrigins) {
    if (word != row.word) continue;
    *origin = row.origin;
    return true;
  }
  return false;
}

std::vector<std::string> origin_words() {
  std::vector<std::string> all;
  for (const OriginRow& row : kOrigins) all.emplace_back(row.word);
  return all;
}

}  // namespace polctl
