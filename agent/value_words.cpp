// SPDX-License-Identifier: Apache-2.0
#include "agent/value_words.h"

#include <libyang/libyang.h>
#include <libyang/plugins_types.h>

#include <cstring>
#include <vector>

namespace agent {

namespace {

constexpr size_t kValueShown = 40;  // bytes of a refused value
constexpr size_t kWordsNamed = 40;

std::string quoted(std::string_view text) {
  std::string shown(text.substr(0, kValueShown));
  return "\"" + shown + (text.size() > kValueShown ? "...\"" : "\"");
}

std::string one_of(const std::vector<std::string>& words) {
  std::string text = words.size() > 1 ? "one of: " : "";
  for (size_t i = 0; i < words.size(); ++i) {
    if (i == kWordsNamed) return text + ", ...";
    text += (i > 0 ? ", " : "") + words[i];
  }
  return text;
}

bool is_unsigned(const lysc_type* type) {
  return type->basetype == LY_TYPE_UINT8 || type->basetype == LY_TYPE_UINT16 ||
         type->basetype == LY_TYPE_UINT32 || type->basetype == LY_TYPE_UINT64;
}

uint64_t highest_of(const lysc_type* type) {
  switch (type->basetype) {
    case LY_TYPE_UINT8:
      return UINT8_MAX;
    case LY_TYPE_UINT16:
      return UINT16_MAX;
    case LY_TYPE_UINT32:
      return UINT32_MAX;
    default:
      return UINT64_MAX;
  }
}

std::string number_words(const lysc_type* type) {
  const lysc_range* range = reinterpret_cast<const lysc_type_num*>(type)->range;
  std::string text = "a number from ";
  if (range == nullptr) return text + "0 to " + std::to_string(highest_of(type));
  LY_ARRAY_COUNT_TYPE i = 0;
  LY_ARRAY_FOR(range->parts, i) {
    if (i > 0) text += " or from ";
    text +=
        std::to_string(range->parts[i].min_u64) + " to " + std::to_string(range->parts[i].max_u64);
  }
  return text;
}

std::vector<std::string> enum_words(const lysc_type* type) {
  std::vector<std::string> words;
  const auto* known = reinterpret_cast<const lysc_type_enum*>(type)->enums;
  LY_ARRAY_COUNT_TYPE i = 0;
  LY_ARRAY_FOR(known, i) { words.emplace_back(known[i].name); }
  return words;
}

// The schema's own words for a text, where it has some; else what its length says.
std::string text_words(const lysc_type* type) {
  const auto* text = reinterpret_cast<const lysc_type_str*>(type);
  LY_ARRAY_COUNT_TYPE i = 0;
  LY_ARRAY_FOR(text->patterns, i) {
    if (text->patterns[i]->emsg != nullptr) return text->patterns[i]->emsg;
  }
  if (text->length != nullptr && LY_ARRAY_COUNT(text->length->parts) > 0) {
    return "a text of " + std::to_string(text->length->parts[0].min_u64) + " to " +
           std::to_string(text->length->parts[0].max_u64) + " characters";
  }
  return "another text";
}

// Address types have a plugin each; the names of some begin with those of others.
const char* address_words(const lysc_type* type) {
  constexpr struct {
    const char* plugin;
    const char* words;
  } kRows[] = {{"ipv4-prefix", "an IPv4 prefix such as 10.0.0.0/8"},
               {"ipv6-prefix", "an IPv6 prefix such as 2001:db8::/32"},
               {"ipv4-address", "an IPv4 address such as 10.0.0.1"},
               {"ipv6-address", "an IPv6 address such as 2001:db8::1"}};
  for (const auto& row : kRows) {
    if (type->plugin != nullptr && type->plugin->id != nullptr &&
        strstr(type->plugin->id, row.plugin) != nullptr) {
      return row.words;
    }
  }
  return nullptr;
}

std::string expected_words(const lysc_type* type) {
  if (is_unsigned(type)) return number_words(type);
  switch (type->basetype) {
    case LY_TYPE_ENUM:
      return one_of(enum_words(type));
    case LY_TYPE_BOOL:
      return "true or false";
    case LY_TYPE_EMPTY:
      return "nothing in it";
    case LY_TYPE_UNION: {
      const auto* members = reinterpret_cast<const lysc_type_union*>(type)->types;
      std::string text;
      LY_ARRAY_COUNT_TYPE i = 0;
      LY_ARRAY_FOR(members, i) { text += (i > 0 ? " or " : "") + expected_words(members[i]); }
      return text;
    }
    default:
      break;
  }
  const char* address = address_words(type);
  return address != nullptr ? address : text_words(type);
}

std::string fault_words(const lysc_type* type, std::string_view text) {
  bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
  if (is_unsigned(type)) return quoted(text) + (digits ? " is out of range" : " is not a number");
  if (type->basetype == LY_TYPE_ENUM) return "unknown word " + quoted(text);
  return text.empty() ? "it is empty" : quoted(text) + " does not fit";
}

const lysc_type* type_of(const SchemaNode& leaf) {
  return leaf.yang->nodetype == LYS_LEAF
             ? reinterpret_cast<const lysc_node_leaf*>(leaf.yang)->type
             : reinterpret_cast<const lysc_node_leaflist*>(leaf.yang)->type;
}

}  // namespace

std::string expected_value(const SchemaNode& leaf) { return expected_words(type_of(leaf)); }

std::vector<std::string> value_choices(const SchemaNode& leaf) {
  const lysc_type* type = type_of(leaf);
  if (type->basetype == LY_TYPE_BOOL) return {"true", "false"};
  return type->basetype == LY_TYPE_ENUM ? enum_words(type) : std::vector<std::string>();
}

std::string refused_value(const SchemaNode& leaf, std::string_view text) {
  const lysc_type* type = type_of(leaf);
  return fault_words(type, text) + " (expected " + expected_words(type) + ")";
}

std::string unknown_child(const SchemaNode& parent) {
  std::vector<std::string> known;
  for (const SchemaNode* child : parent.children) known.push_back(child->name);
  return known.empty() ? "no such node" : "no such node (expected " + one_of(known) + ")";
}

}  // namespace agent
