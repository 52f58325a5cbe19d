// SPDX-License-Identifier: Apache-2.0
#include "json_line.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <nlohmann/json.hpp>

#include "host/address_text.h"
#include "host/input_error.h"
#include "host/output.h"

namespace polctl {

void fail(size_t column, std::string what, std::string expected) {
  throw LineFaultError({column, std::move(what), std::move(expected)});
}

namespace {

using nlohmann::json;

// Hands the parser its input and lets the handler see how far it has read.
struct Cursor {
  using iterator_category = std::input_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = const char*;
  using reference = const char&;

  const char* next = nullptr;
  const char** reached = nullptr;

  reference operator*() const { return *next; }
  Cursor& operator++() {
    *reached = ++next;
    return *this;
  }
  Cursor operator++(int) {
    Cursor before = *this;
    ++*this;
    return before;
  }
  bool operator==(const Cursor& other) const { return next == other.next; }
  bool operator!=(const Cursor& other) const { return next != other.next; }
};

// Gathers the parser's events as fields. The column of a value is found from the end of what came
// before it: only blanks and one separator stand between.
class FieldGatherer : public nlohmann::json_sax<json> {
 public:
  FieldGatherer(std::string_view text, JsonLine* line, size_t depth, const char** reached)
      : text_(text), line_(line), depth_(depth), reached_(reached) {
    line_->count = 0;
  }

  bool null() override { return add_plain(JsonType::Null); }
  bool boolean(bool) override { return add_plain(JsonType::Boolean); }
  bool number_integer(number_integer_t) override { return add_number(JsonType::OtherNumber, 0); }
  bool number_unsigned(number_unsigned_t n) override { return add_number(JsonType::Unsigned, n); }
  bool number_float(number_float_t, const string_t&) override {
    return add_number(JsonType::OtherNumber, 0);
  }
  bool string(string_t& value) override {
    add(JsonType::Text).text.swap(value);
    return true;
  }
  bool binary(binary_t&) override { return false; }

  bool start_object(std::size_t) override { return open(JsonType::Object); }
  bool start_array(std::size_t) override { return open(JsonType::Array); }
  bool end_object() override { return close(); }
  bool end_array() override { return close(); }

  bool key(string_t& name) override {
    name_column_ = skip_to_value() + 1;
    mark();
    // Dots and brackets are what the names of inner values are made with.
    if (name.find_first_of(".[") != std::string::npos) {
      fail(name_column_, fmt::format("unknown member {}", in_quotes(name)), "a name of letters");
    }
    const Container& object = open_.back();
    name_ = object.name.empty() ? std::string() : object.name + ".";
    name_ += name;
    for (size_t i = object.first; i < line_->count; ++i) {
      if (line_->fields[i].name == name_) {
        fail(name_column_, fmt::format("member {} is given twice", in_quotes(name_)), "each once");
      }
    }
    return true;
  }

  bool parse_error(std::size_t position, const std::string& /*token*/,
                   const json::exception& error) override {
    // "[json.exception...] parse error at line 1, column 5: syntax error while parsing value -
    // invalid literal; last read: 'x'; expected end of input"
    std::string_view message = error.what();
    std::string expected = cut_after(&message, "; expected ");
    cut_after(&message, "; last read: ");
    for (const char* head : {"] ", ": ", " - "}) {
      size_t at = message.find(head);
      if (at != std::string_view::npos) message.remove_prefix(at + strlen(head));
    }
    std::string what = "bad JSON: ";
    for (char c : message) what += c >= ' ' && c <= '~' ? c : '?';
    // The fault lies between the last good token and where the parser stopped.
    size_t column = std::min({skip_to_value() + 1, position, text_.size() + 1});
    fail(std::max<size_t>(column, 1), std::move(what), std::move(expected));
  }

 private:
  static std::string cut_after(std::string_view* text, std::string_view mark) {
    size_t at = text->rfind(mark);
    if (at == std::string_view::npos) return {};
    std::string tail(text->substr(at + mark.size()));
    *text = text->substr(0, at);
    return tail;
  }

  void mark() { after_last_ = static_cast<size_t>(*reached_ - text_.data()); }

  size_t skip_to_value() const {
    size_t at = after_last_;
    while (at < text_.size() && strchr(" \t\r:,", text_[at]) != nullptr) ++at;
    return at;
  }

  JsonField& add(JsonType type) {
    if (open_.empty()) fail(skip_to_value() + 1, "not a JSON object", "an object in braces");
    if (line_->count == line_->fields.size()) line_->fields.emplace_back();
    JsonField& field = line_->fields[line_->count++];
    field.column = skip_to_value() + 1;
    if (open_.back().is_array) {
      field.name = open_.back().name + "[]";
      field.name_column = field.column;
    } else {
      field.name.swap(name_);
      field.name_column = name_column_;
    }
    field.type = type;
    mark();
    return field;
  }

  bool add_plain(JsonType type) {
    add(type);
    return true;
  }

  bool add_number(JsonType type, uint64_t value) {
    JsonField& field = add(type);
    field.number = value;
    // The parser has read one character beyond a number; it belongs to what follows.
    after_last_ = field.column - 1;
    while (after_last_ < text_.size() && strchr(" \t\r,]}", text_[after_last_]) == nullptr) {
      ++after_last_;
    }
    return true;
  }

  bool open(JsonType type) {
    if (open_.empty() && type == JsonType::Object) {
      mark();
      open_.push_back({"", line_->count, false});
    } else {
      JsonField& field = add(type);
      if (open_.size() > depth_) {
        fail(field.column, "values are nested too deeply", "a plain value");
      }
      open_.push_back({field.name, line_->count, type == JsonType::Array});
    }
    return true;
  }

  bool close() {
    open_.pop_back();
    mark();
    return true;
  }

  std::string_view text_;
  JsonLine* line_;
  size_t depth_;
  const char** reached_;
  size_t after_last_ = 0;  // offset behind the last token
  size_t name_column_ = 1;
  std::string name_;  // of the member whose value comes next
  struct Container {
    std::string name;  // "": the line's object
    size_t first;      // of its fields
    bool is_array;
  };
  std::vector<Container> open_;
};

std::string type_phrase(const JsonField& field) {
  switch (field.type) {
    case JsonType::Null:
      return "null";
    case JsonType::Boolean:
      return "true or false";
    case JsonType::Unsigned:
      return fmt::format("the number {}", field.number);
    case JsonType::OtherNumber:
      return "negative, fractional or too large";
    case JsonType::Text:
      return "the text " + in_quotes(field.text);
    case JsonType::Object:
      return "an object";
    case JsonType::Array:
      return "an array";
  }
  return "";
}

}  // namespace

void split_json_line(std::string_view text, JsonLine* line, size_t depth) {
  // The parser takes a NUL for the end of its input and would not see what follows.
  size_t nul = text.find('\0');
  if (nul != std::string_view::npos) fail(nul + 1, "a NUL byte", "text");
  const char* reached = text.data();
  FieldGatherer gatherer(text, line, depth, &reached);
  json::sax_parse(Cursor{text.data(), &reached}, Cursor{text.data() + text.size(), &reached},
                  &gatherer);
}

std::string json_string(std::string_view text) {
  return json(text).dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string json_array(const std::vector<std::string>& texts) {
  std::vector<std::string> quoted;
  quoted.reserve(texts.size());
  for (const std::string& text : texts) quoted.push_back(json_string(text));
  return "[" + joined(quoted, ",") + "]";
}

void json_expect(const JsonField& field, JsonType type, const char* expected) {
  if (field.type == type) return;
  fail(field.column, fmt::format("{} is {}", in_quotes(field.name), type_phrase(field)), expected);
}

uint64_t json_number(const JsonField& field, uint64_t highest) {
  std::string expected = fmt::format("a number from 0 to {}", highest);
  json_expect(field, JsonType::Unsigned, expected.c_str());
  if (field.number > highest) {
    fail(field.column, fmt::format("{} is {}, out of range", in_quotes(field.name), field.number),
         std::move(expected));
  }
  return field.number;
}

const std::string& json_text(const JsonField& field, const char* expected) {
  json_expect(field, JsonType::Text, expected);
  return field.text;
}

}  // namespace polctl
