// SPDX-License-Identifier: Apache-2.0
#include "options_text.h"

#include <algorithm>
#include <set>

#include "host/address_text.h"
#include "host/input_error.h"
#include "host/near_word.h"
#include "platform/service/options_file.h"

namespace polctl {

namespace {

// What is about the command line itself.
bool is_for_file(const OptionRow& row) {
  return row.name.starts_with("--") && row.name != "--help" && row.name != "--options" &&
         row.name != "--print-config";
}

}  // namespace

std::vector<std::string> words_of_options_file(
    const std::string& file, const CommandRow& command, const GivenOptions& given,
    const std::function<void(const std::string&)>& alone) {
  std::vector<service::FileOption> found;
  std::string reason;
  if (!service::options_file_read(file, &found, &reason)) throw InputError(reason);
  std::vector<std::string> known;
  std::set<std::string> repeating;
  for (const OptionRow& row : command.options) {
    if (!is_for_file(row)) continue;
    known.push_back(row.name.substr(2));
    if (row.repeats) repeating.insert(known.back());
  }
  std::vector<std::string> words;
  std::set<std::string> seen;
  for (const service::FileOption& each : found) {
    auto refused = [&](const std::string& what, const std::string& expected) {
      return InputError(service::options_file_fault(file, each.line, what, expected));
    };
    if (std::find(known.begin(), known.end(), each.name) == known.end()) {
      std::vector<std::string> near = near_words(each.name, known);
      throw refused("unknown option " + in_quotes(each.name) +
                        (near.empty() ? "" : ", did you mean " + near.front() + "?"),
                    "an option that \"polctl " + command.name + " --help\" tells");
    }
    if (!seen.insert(each.name).second && repeating.count(each.name) == 0) {
      throw refused(in_quotes(each.name) + " stands twice", "it once");
    }
    std::string word = "--" + each.name;
    bool overruled = given.count(word) > 0;
    if (each.value) word += "=" + *each.value;
    try {
      alone(word);
    } catch (const InputError& error) {
      // "polctl: error: WHAT (expected EXPECTED)", as every refusal.
      std::string what = error.what();
      what.erase(0, std::string("polctl: error: ").size());
      size_t open = what.rfind(" (expected ");
      std::string expected = what.substr(open + std::string(" (expected ").size());
      expected.pop_back();
      throw refused(what.substr(0, open), expected);
    }
    if (!overruled) words.push_back(word);
  }
  return words;
}

std::string options_file_text(const CommandRow& command, const GivenOptions& given) {
  std::string text;
  for (const OptionRow& row : command.options) {
    if (!is_for_file(row)) continue;
    std::string name = row.name.substr(2);
    auto found = given.find(row.name);
    if (found == given.end()) {
      text += service::options_file_line(name, std::nullopt);
      continue;
    }
    bool may_stand_alone = row.value.empty() || row.value.starts_with('[');
    for (const std::string& value : found->second) {
      bool alone = may_stand_alone && (value.empty() || value == "true");
      text += alone ? name + "\n" : service::options_file_line(name, value);
    }
  }
  return text;
}

}  // namespace polctl
