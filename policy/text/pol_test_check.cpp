// SPDX-License-Identifier: Apache-2.0
// Says what is wrong with a text policy file, without touching policy.
//
// The parser forgives everything and reports nothing; the check walks the same grammar
// (pol_test_grammar) and reports whatever the parser would misread, drop or read as 0. It takes a
// line as it was meant, not in the pieces that the parser would make of it, so that one fault is
// reported once. What only the whole file shows is FileState's.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "text/pol_test_check_internal.h"

namespace pol {
namespace {

constexpr size_t kLineBytes = 79;  // what the parser reads at once, newline included
constexpr size_t kTokenBytes = POL_TEST_TOKEN_SIZE - 1;

// A line's words, as many as the parser takes.
struct Words {
  TextWords text;
  // Past the last word comes the end of the line: as many times as a row can reach beyond it.
  TextPlace place[POL_TEST_TOKENS + 4];
};

std::string one_of(std::initializer_list<TextState> states) {
  std::string text;
  for (TextState state : states) {
    for (const TextRow& row : text_rows(state)) {
      if (row.keyword != nullptr)
        text += (text.empty() ? "one of: " : ", ") + std::string(row.keyword);
    }
  }
  return text;
}

std::string one_of_lines() {
  std::string text = "a comment (#), or one of: ";
  for (const TextLine& line : text_lines()) {
    if (line.kind == POL_TEST_OTHER) continue;
    if (&line != &text_lines()[0]) text += ", ";
    text += line.keyword;
  }
  return text;
}

std::string expected_of(const TextValue& value) {
  if (value.expected != nullptr) return value.expected;
  std::string text;
  for (const TextWord& word : value.words) {
    text += (text.empty() ? "one of: " : ", ") + std::string(word.text);
  }
  return text;
}

// Takes an unsigned decimal number without needless zeros off the text.
bool take_number(const char** text, uint32_t highest) {
  const char* at = *text;
  uint32_t number = 0;
  while (isdigit(static_cast<unsigned char>(*at)) != 0 && number <= highest) {
    number = number * 10 + static_cast<uint32_t>(*at++ - '0');
  }
  const bool padded = **text == '0' && at - *text > 1;
  if (at == *text || padded || number > highest) return false;
  *text = at;
  return true;
}

bool take_address(const char** text) {
  for (int octet = 0; octet < 4; ++octet) {
    if (octet > 0 && *(*text)++ != '.') return false;
    if (!take_number(text, 255)) return false;
  }
  return true;
}

bool is_address(const char* text, char separator, uint32_t highest) {
  if (!take_address(&text)) return false;
  if (separator == '\0') return *text == '\0';
  return *text++ == separator && take_number(&text, highest) && *text == '\0';
}

// What is wrong with a number; empty for a right one.
std::string number_fault(const char* word, uint64_t highest) {
  const char* digits = word + (*word == '-' || *word == '+' ? 1 : 0);
  if (*digits == '\0' || digits[strspn(digits, "0123456789")] != '\0') {
    return text_quoted(word) + " is not a number";
  }
  errno = 0;
  const uint64_t number = strtoull(digits, nullptr, 10);
  if (*word == '-' || errno == ERANGE || number > highest) {
    return "the number " + text_quoted(word) + " is out of range";
  }
  return {};
}

std::string value_fault(const TextValue& value, const char* word) {
  switch (value.kind) {
    case TextValue::kName:
    case TextValue::kAny:
      return {};
    case TextValue::kNumber:
      return number_fault(word, value.highest);
    case TextValue::kAddress:
      if (is_address(word, '\0', 0)) return {};
      return text_quoted(word) + " is not an IPv4 address";
    case TextValue::kPrefix:
      if (is_address(word, '/', 32)) return {};
      return text_quoted(word) + " is not an IPv4 prefix";
    case TextValue::kTloc:
      if (is_address(word, ':', 255)) return {};
      return text_quoted(word) + " is not an IPv4 address with a color";
    case TextValue::kWord:
      for (const TextWord& known : value.words) {
        if (text_is(word, known.text, known.compared)) return {};
      }
      return "unknown word " + text_quoted(word);
  }
  return {};
}

class FileCheck {
 public:
  // `text` is the line without its newline, in a buffer that may be written to.
  void line(char* text, size_t length, bool newline);
  TextFindings& finish();

 private:
  void error(uint32_t column, std::string what, std::string expected = {});
  void check_ends(size_t length, bool newline, bool comment);
  size_t check_bytes(char* text, size_t length);
  void split(char* text, size_t length, Words* words);
  void walk(const Words& words, const TextLine& line);
  bool check_values(const TextStep& step, const Words& words);
  void stray(const TextStep& step, const Words& words);

  TextFindings findings_;
  FileState state_{findings_};
  uint32_t line_ = 0;
};

void FileCheck::error(uint32_t column, std::string what, std::string expected) {
  findings_.push_back({{line_, column}, POL_TEST_ERROR, std::move(what), std::move(expected)});
}

void FileCheck::line(char* text, size_t length, bool newline) {
  ++line_;
  const char* first = text + strspn(text, " \t\r");
  const bool comment = *first == '#';
  check_ends(length, newline, comment);
  if (comment) return;
  length = check_bytes(text, length);
  Words words;
  split(text, length, &words);
  if (words.text.count == 0) return;
  const TextLine* line = text_line(words.text.at(0));
  const TextPlace place = words.place[0];
  if (line == nullptr) {
    error(place.column,
          "unknown first word " + text_quoted(words.text.at(0)) + ": the line is ignored",
          one_of_lines());
  } else if (line->kind == POL_TEST_OTHER) {
    findings_.push_back({place, POL_TEST_WARNING,
                         text_quoted(line->keyword) + " lines are ignored in a policy file", ""});
  } else if (line->kind != POL_TEST_SITE_POLICY) {
    walk(words, *line);
  }
}

// Comments come to harm only where their rest is read as a line: they may be as long as they like,
// but are warned of.
void FileCheck::check_ends(size_t length, bool newline, bool comment) {
  if (length + (newline ? 1 : 0) > kLineBytes) {
    findings_.push_back({{line_, kLineBytes + 1},
                         comment ? POL_TEST_WARNING : POL_TEST_ERROR,
                         "the line has more than 79 characters: from here on it is read as "
                         "another line, and the character before is lost",
                         "at most 78 characters and a newline"});
  }
  if (!newline) {
    error(static_cast<uint32_t>(std::max<size_t>(length, 1)),
          "no newline ends the last line: its last character is lost", "a newline");
  }
}

// Reports bytes that do not separate words though they look as if, makes them do so, and returns
// the length that is left.
size_t FileCheck::check_bytes(char* text, size_t length) {
  const size_t read = strlen(text);
  if (read < length) {
    error(static_cast<uint32_t>(read + 1), "a NUL byte: the rest of the line is not read");
    length = read;
  }
  if (length > 0 && text[length - 1] == '\r') {
    error(static_cast<uint32_t>(length), "a carriage return counts as part of the last word",
          "a newline alone");
    text[--length] = '\0';
  }
  const char* tab = strchr(text, '\t');
  if (tab != nullptr) {
    error(static_cast<uint32_t>(tab - text + 1), "a tab does not separate words", "a blank");
    std::replace(text, text + length, '\t', ' ');
  }
  return length;
}

void FileCheck::split(char* text, size_t length, Words* words) {
  *words = {};
  for (size_t at = strspn(text, " "); at < length; at += strspn(text + at, " ")) {
    const auto column = static_cast<uint32_t>(at + 1);
    if (words->text.count == POL_TEST_TOKENS) {
      error(column, "the line has more than 20 words: the rest is not read");
      break;
    }
    char* word = text + at;
    at += strcspn(word, " ");
    const auto bytes = static_cast<size_t>(text + at - word);
    if (at < length) text[at++] = '\0';
    if (bytes > kTokenBytes) {
      error(column, "a word of " + std::to_string(bytes) + " bytes is cut to 49",
            "at most 49 bytes");
    }
    words->place[words->text.count] = {line_, column};
    words->text.word[words->text.count++] = word;
  }
  for (uint32_t i = words->text.count; i < std::size(words->place); ++i) {
    words->place[i] = {line_, static_cast<uint32_t>(length + 1)};
  }
}

void FileCheck::walk(const Words& words, const TextLine& line) {
  state_.begin_line();
  TextWalk walk(words.text, line);
  TextStep step;
  while (walk.next(&step)) {
    if (step.row == nullptr) return stray(step, words);
    const bool valid = check_values(step, words);
    state_.take(step, words.text, words.place, valid);
    if (walk.at() > words.text.count) return;  // a value was missing, and so is all that follows
  }
  if (walk.at() < words.text.count) {
    error(words.place[walk.at()].column,
          text_quoted(words.text.at(walk.at())) + " and what follows is not read",
          "the end of the line, or delete after the value");
  }
}

// Reports one fault a step: a value that is missing makes those after it missing, too.
bool FileCheck::check_values(const TextStep& step, const Words& words) {
  for (uint32_t i = 0; i < std::size(step.row->value) && step.row->value[i] != nullptr; ++i) {
    const TextValue& value = *step.row->value[i];
    const uint32_t at = step.value + i;
    if (at >= words.text.count) {
      error(words.place[at].column, "nothing stands after " + text_quoted(words.text.at(at - 1)),
            expected_of(value));
      return false;
    }
    std::string fault = value_fault(value, words.text.at(at));
    if (fault.empty()) continue;
    error(words.place[at].column, std::move(fault), expected_of(value));
    return false;
  }
  return true;
}

void FileCheck::stray(const TextStep& step, const Words& words) {
  const uint32_t at = step.keyword;
  const uint32_t column = words.place[at].column;
  if (at >= words.text.count) {
    return error(column, "no clause stands after " + text_quoted(words.text.at(at - 1)),
                 one_of({step.state}));
  }
  const char* word = words.text.at(at);
  for (const auto& [state, keyword] : {std::pair(TextState::kMatchClause, "match TYPE"),
                                       std::pair(TextState::kSetClause, "set")}) {
    if (step.state != TextState::kGroup || text_find(state, word) == nullptr) continue;
    return error(column,
                 text_quoted(word) + " stands without " + keyword +
                     " before it: the rest of the line is not read",
                 std::string(keyword) + " before each clause");
  }
  error(column, "unknown keyword " + text_quoted(word) + ": the rest of the line is not read",
        one_of({step.state, text_fallback(step.state)}));
}

TextFindings& FileCheck::finish() {
  state_.finish();
  std::stable_sort(
      findings_.begin(), findings_.end(), [](const TextFinding& a, const TextFinding& b) {
        return std::pair(a.place.line, a.place.column) < std::pair(b.place.line, b.place.column);
      });
  return findings_;
}

// What getline allocates.
struct LineBuffer {
  LineBuffer() = default;
  ~LineBuffer() { free(text); }
  LineBuffer(const LineBuffer&) = delete;
  LineBuffer& operator=(const LineBuffer&) = delete;

  char* text = nullptr;
  size_t size = 0;
};

// False when the file cannot be read.
bool read_lines(const char* path, FileCheck& check) {
  const std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(path, "r"), fclose);
  if (file == nullptr) return false;
  LineBuffer line;
  ssize_t length = 0;
  while ((length = getline(&line.text, &line.size, file.get())) > 0) {
    const bool newline = line.text[length - 1] == '\n';
    if (newline) line.text[--length] = '\0';
    check.line(line.text, static_cast<size_t>(length), newline);
  }
  return feof(file.get()) != 0;  // neither a read error nor a line too long for memory
}

}  // namespace
}  // namespace pol

// Built with exceptions, unlike the rest: strings and maps say so when memory runs out.
int pol_test_check_file(const char* path, t_pol_test_finding_cb report, void* arg) try {
  pol::FileCheck check;
  if (path == nullptr || !pol::read_lines(path, check)) return -1;
  const pol::TextFindings& findings = check.finish();
  for (const pol::TextFinding& finding : findings) {
    const t_pol_test_finding told = {finding.place.line, finding.place.column, finding.severity,
                                     finding.what.c_str(),
                                     finding.expected.empty() ? nullptr : finding.expected.c_str()};
    if (report != nullptr) report(&told, arg);
  }
  return static_cast<int>(findings.size());
} catch (const std::bad_alloc&) {
  return -1;
}
