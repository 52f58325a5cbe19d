// SPDX-License-Identifier: Apache-2.0
#include "tool/manual/manual.h"

#include <fmt/format.h>

#include <cctype>
#include <sstream>

namespace polctl {

namespace {

constexpr const char* kExamples = "Examples:";

// Text that means itself, whatever scdoc takes its characters for.
std::string plain(const std::string& text) {
  std::string out;
  for (char c : text) {
    bool marks = c == '\\' || c == '*' || c == '_' || c == '#' || c == '[' || c == ']' ||
                 c == '|' || c == '<' || c == '>' || c == '-' || c == '.' || c == '+';
    if (marks) out += '\\';
    out += c;
  }
  return out;
}

std::string lower_first(std::string text) {
  text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
  return text;
}

// A help text as sections: lines that begin with blanks stand as they are, what follows "Examples:"
// under a heading of its own.
std::string sections(const std::string& notes) {
  std::string description;
  std::string examples;
  std::string* to = &description;
  bool literal = false;
  auto fence = [&](bool wanted) {
    if (literal != wanted) *to += "```\n";
    literal = wanted;
  };
  std::istringstream lines(notes);
  for (std::string line; std::getline(lines, line);) {
    bool stands = line.starts_with("  ");
    if (!stands) fence(false);
    if (line == kExamples || line == "Example:") {
      to = &examples;
      continue;
    }
    if (to == &examples && !stands && !line.empty()) to = &description;
    fence(stands);
    *to += (stands ? line.substr(2) : plain(line)) + "\n";
  }
  fence(false);
  return (description.empty() ? "" : "# DESCRIPTION\n\n" + description + "\n") +
         (examples.empty() ? "" : "# EXAMPLES\n\n" + examples + "\n");
}

std::string option_text(const OptionRow& row) {
  std::string value = row.value.starts_with("[=") ? plain(row.value) : "";
  if (value.empty() && !row.value.empty()) value = " _" + plain(row.value) + "_";
  std::string text = fmt::format("*{}*{}{}\n\t{}", plain(row.name), value,
                                 row.repeats ? ", repeatable" : "", plain(row.help));
  if (!row.choices.empty() && row.value.find('|') == std::string::npos) {
    text += "; one of ";
    for (const std::string& word : row.choices) {
      text += (&word == &row.choices.front() ? "" : ", ") + plain(word);
    }
  }
  return text + (row.required ? ". It has to be there.\n\n" : ".\n\n");
}

std::string see_also(const std::vector<CommandRow>& commands, const std::string& name) {
  std::string text = "# SEE ALSO\n\n";
  if (name != "polctl") text += "*polctl*(1), ";
  for (const CommandRow& command : commands) {
    if (name == "polctl") text += fmt::format("*polctl\\-{}*(1), ", plain(command.name));
  }
  return text + "*libpolicy\\-policy\\-file*(5), *libpolicy\\-configuration*(5), *yarrowd*(8)\n";
}

std::string command_page(const CommandRow& command) {
  std::string synopsis = fmt::format("*polctl {}* [OPTIONS]", plain(command.name));
  std::string options;
  for (const OptionRow& row : command.options) {
    if (!row.name.starts_with("--")) synopsis += " _" + plain(row.name) + "_";
    if (row.name != "--help") options += option_text(row);
  }
  return fmt::format("polctl-{}(1)\n\n# NAME\n\npolctl-{} - {}\n\n# SYNOPSIS\n\n{}\n\n{}",
                     command.name, command.name, plain(lower_first(command.does)), synopsis,
                     sections(command.notes)) +
         "# OPTIONS\n\n" + options;
}

}  // namespace

std::string manual_page(const std::vector<CommandRow>& commands, const std::string& name) {
  for (const CommandRow& command : commands) {
    if (command.name == name) return command_page(command) + see_also(commands, name);
  }
  if (name != "polctl") return "";
  std::string page =
      "polctl(1)\n\n# NAME\n\npolctl - asks the policy library what a policy does\n\n"
      "# SYNOPSIS\n\n*polctl* _COMMAND_ [OPTIONS]\n\n*polctl help* [_COMMAND_]\n\n"
      "*polctl version*\n\n# COMMANDS\n\n";
  for (const CommandRow& command : commands) {
    page += fmt::format("*{}*\n\t{}; see *polctl\\-{}*(1)\n\n", plain(command.name),
                        plain(command.does), plain(command.name));
  }
  return page +
         "# EXIT STATUS\n\n0 done; 1 the answer is no, or there are errors to report; "
         "2 bad usage or input.\n\n" +
         see_also(commands, name);
}

}  // namespace polctl
