// SPDX-License-Identifier: Apache-2.0
#include "platform/service/options_file.h"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string_view>
#include <system_error>

#include "platform/service/log.h"

namespace service {

namespace {

constexpr size_t kMaxFile = size_t{1} << 20;
constexpr std::string_view kBlanks = " \t\r";

std::string_view trimmed(std::string_view text) {
  size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

bool read_whole(const std::string& file, std::string* text, std::string* reason) {
  std::unique_ptr<FILE, int (*)(FILE*)> in(fopen(file.c_str(), "re"), fclose);
  bool done = in != nullptr;
  text->resize(kMaxFile + 1);
  if (done) text->resize(fread(text->data(), 1, text->size(), in.get()));
  if (!done || ferror(in.get()) != 0) {
    *reason = visible_text(file) + ": error: " + std::generic_category().message(errno) +
              " (expected a file of options)";
    return false;
  }
  if (text->size() <= kMaxFile) return true;
  *reason = visible_text(file) + ": error: it has more than " + std::to_string(kMaxFile) +
            " bytes (expected a file of options)";
  return false;
}

// What is wrong with a line, nullptr if nothing is.
const char* fault_of(std::string_view line, size_t equals) {
  for (char c : line) {
    if ((static_cast<unsigned char>(c) < ' ' && c != '\t') || c == 0x7f) {
      return "a control character";
    }
  }
  std::string_view name = trimmed(line.substr(0, equals));
  if (name.starts_with('-')) return "an option stands here without its dashes";
  bool is_name = !name.empty() && name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-") ==
                                      std::string_view::npos;
  if (!is_name) return "this is no option";
  if (equals < line.size() && trimmed(line.substr(equals + 1)).empty()) return "no value after =";
  return nullptr;
}

}  // namespace

std::string options_file_fault(const std::string& file, unsigned line, const std::string& what,
                               const std::string& expected) {
  return visible_text(file) + ":" + std::to_string(line) + ": error: " + what + " (expected " +
         expected + ")";
}

std::string options_file_line(const std::string& name, const std::optional<std::string>& value) {
  return value ? name + " = " + *value + "\n" : "# " + name + " =\n";
}

bool options_file_read(const std::string& file, std::vector<FileOption>* options,
                       std::string* reason) {
  std::string text;
  if (!read_whole(file, &text, reason)) return false;
  unsigned number = 0;
  for (size_t at = 0; at < text.size();) {
    size_t end = std::min(text.find('\n', at), text.size());
    std::string_view line = trimmed(std::string_view(text).substr(at, end - at));
    at = end + 1;
    ++number;
    if (line.empty() || line.starts_with('#')) continue;
    size_t equals = std::min(line.find('='), line.size());
    if (const char* fault = fault_of(line, equals)) {
      *reason = options_file_fault(file, number, fault, "NAME = VALUE, or # and a comment");
      return false;
    }
    FileOption option = {std::string(trimmed(line.substr(0, equals))), std::nullopt, number};
    if (equals < line.size()) option.value = trimmed(line.substr(equals + 1));
    options->push_back(std::move(option));
  }
  return true;
}

}  // namespace service
