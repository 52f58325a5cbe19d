/* SPDX-License-Identifier: Apache-2.0
 *
 * json_line.h - one JSON object on one line, member by member and with their columns.
 */
#ifndef TOOL_JSON_LINE_H
#define TOOL_JSON_LINE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace polctl {

enum class JsonType { Null, Boolean, Unsigned, OtherNumber, Text, Object, Array };

/* A value and where it stands. Members of a member are named "tloc.color", elements of an array
 * "groups[]"; a container comes before what it holds. */
struct JsonField {
  std::string name;
  JsonType type = JsonType::Null;
  uint64_t number = 0; /* Unsigned */
  std::string text;    /* Text */
  size_t name_column = 1;
  size_t column = 1; /* of the value */
};

/* Fields of one line; kept from line to line so that their memory is used again. */
struct JsonLine {
  std::vector<JsonField> fields;
  size_t count = 0; /* of `fields` that belong to this line */
};

/* Throws LineFaultError. */
[[noreturn]] void fail(size_t column, std::string what, std::string expected);

/* How deep containers may stand in the object of a route: "tloc", "groups". */
inline constexpr size_t kRouteDepth = 1;

/* Throws LineFaultError when the text is not exactly one object, when containers are nested deeper
 * than `depth`, or when a member is given twice in one object. */
void split_json_line(std::string_view text, JsonLine* line, size_t depth = kRouteDepth);

/* The text as a JSON string with its quotes; bytes that are not UTF-8 are replaced. */
std::string json_string(std::string_view text);
std::string json_array(const std::vector<std::string>& texts); /* of strings */

/* Readers of a field's value; throw LineFaultError when it has another type or is out of range. */
uint64_t json_number(const JsonField& field, uint64_t highest);
const std::string& json_text(const JsonField& field, const char* expected);
void json_expect(const JsonField& field, JsonType type, const char* expected);

}  // namespace polctl

#endif
