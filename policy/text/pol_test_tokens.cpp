// SPDX-License-Identifier: Apache-2.0
// Words of the text policy file, and what they stand for.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "base/pol_log.h"
#include "text/pol_test_grammar.h"

namespace pol {
namespace {

// Reads whole numbers, each but the first after its separator, until one of the two is missing;
// numbers not read stay 0. Leading blanks and signs count as part of a number.
void read_numbers(const char* text, const char* separators, uint32_t* numbers) {
  for (size_t i = 0;; ++i) {
    char* end = nullptr;
    int64_t number = strtol(text, &end, 10);
    if (end == text) return;
    numbers[i] = static_cast<uint32_t>(number);
    if (separators[i] == '\0' || *end != separators[i]) return;
    text = end + 1;
  }
}

// Octets above 255 run over into those before them, modulo 2^32.
uint32_t address_of(const uint32_t* octet) {
  return (octet[0] << 24) + (octet[1] << 16) + (octet[2] << 8) + octet[3];
}

}  // namespace

TextWords text_words(t_pol_test_tokens tokens, uint32_t count) {
  TextWords words = {};
  if (tokens == nullptr) return words;
  words.count = std::min<uint32_t>(count, POL_TEST_TOKENS);
  for (uint32_t i = 0; i < words.count; ++i) {
    if (strnlen(tokens[i], POL_TEST_TOKEN_SIZE) == POL_TEST_TOKEN_SIZE) {
      tokens[i][POL_TEST_TOKEN_SIZE - 1] = '\0';
    }
    words.word[i] = tokens[i];
  }
  return words;
}

int64_t text_number(const char* word) { return strtol(word, nullptr, 10); }

}  // namespace pol

uint32_t pol_test_get_tokens(const char* line, t_pol_test_tokens tokens, uint32_t* kind) {
  if (line == nullptr || tokens == nullptr || kind == nullptr) return 0;
  uint32_t count = 0;
  line += strspn(line, " ");
  while (*line != '\0') {
    size_t length = strcspn(line, " ");
    const char* rest = line + length + strspn(line + length, " ");
    if (*rest == '\0') --length;
    if (count < POL_TEST_TOKENS) {
      char* slot = tokens[count++];
      size_t kept = std::min<size_t>(length, POL_TEST_TOKEN_SIZE - 1);
      memcpy(slot, line, kept);
      slot[kept] = '\0';
    }
    line = rest;
  }
  const pol::TextLine* known = count > 0 ? pol::text_line(tokens[0]) : nullptr;
  *kind = known != nullptr ? known->kind : static_cast<uint32_t>(POL_TEST_OTHER);
  for (uint32_t i = 0; i < count; ++i) {
    // On purpose whatever the debug level is, unlike all else that reading a file logs.
    POL_LOG_LINE("%s[%d]: i: %d,   %s - %d\n", __func__, __LINE__, static_cast<int>(i), tokens[i],
                 static_cast<int>(strlen(tokens[i])));
  }
  return count;
}

void pol_test_pfx_str_to_pfx(const char* text, t_ipprefix* prefix) {
  if (text == nullptr || prefix == nullptr) return;
  uint32_t number[5] = {};
  pol::read_numbers(text, ".../", number);
  prefix->addr.family = KEL_AF_INET;
  prefix->addr.addr.v4 = pol::address_of(number);
  prefix->len = static_cast<uint8_t>(number[4]);
}

void pol_test_tloc_str_to_tloc(const char* text, t_tloc_id* tloc) {
  if (text == nullptr || tloc == nullptr) return;
  uint32_t number[5] = {};
  pol::read_numbers(text, "...:", number);
  tloc->family = KEL_AF_INET;
  tloc->addr.v4 = pol::address_of(number);
  tloc->color = static_cast<uint8_t>(number[4]);
}
