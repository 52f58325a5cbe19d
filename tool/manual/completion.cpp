// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include "host/output.h"
#include "tool/manual/manual.h"

namespace polctl {

namespace {

bool is_option(const OptionRow& row) { return row.name.starts_with("--"); }

bool may_stand_alone(const OptionRow& row) { return row.value.empty() || row.value[0] == '['; }

// Whether what goes there is a file's name.
bool takes_file(const OptionRow& row) {
  if (!row.choices.empty()) return false;
  for (const char* word : {"FILE", "DIR", "PATH", "SOCKET", "OLD", "NEW"}) {
    if ((is_option(row) ? row.value : row.name).find(word) != std::string::npos) return true;
  }
  return false;
}

std::string names_of(const std::vector<CommandRow>& commands) {
  std::string names;
  for (const CommandRow& command : commands) names += command.name + " ";
  return names + "help version";
}

std::string bash_script(const std::vector<CommandRow>& commands) {
  std::string values;
  std::string options;
  for (const CommandRow& command : commands) {
    std::string names;
    std::string words;
    bool files = false;
    for (const OptionRow& row : command.options) {
      if (!is_option(row)) {
        words += joined(row.choices, " ");
        files = files || takes_file(row);
        continue;
      }
      names += (names.empty() ? "" : " ") + row.name;
      if (row.value.empty()) continue;
      // A value that may be left out is looked for behind "=" alone.
      std::string action = takes_file(row) ? "_polctl_files"
                           : row.choices.empty()
                               ? ":"
                               : "_polctl_words '" + joined(row.choices, " ") + "'";
      values += fmt::format("    {}/{}{}) {}; return ;;\n", command.name, row.name,
                            may_stand_alone(row) ? "=" : "|" + command.name + "/" + row.name + "=",
                            action);
    }
    options += fmt::format("    {}) options='{}' words='{}' files={} ;;\n", command.name, names,
                           words, files ? 1 : 0);
  }
  return fmt::format(R"(# Completion of polctl for bash, made by "polctl completion bash".
_polctl_words() {{ mapfile -t COMPREPLY < <(compgen -W "$1" -- "$word"); }}
_polctl_files() {{
  compopt -o filenames 2>/dev/null || true
  mapfile -t COMPREPLY < <(compgen -f -- "$word")
}}
_polctl() {{
  local word=${{COMP_WORDS[COMP_CWORD]}} before=${{COMP_WORDS[COMP_CWORD - 1]}}
  local command='' options='' words='' files=0
  COMPREPLY=()
  ((COMP_CWORD > 1)) && command=${{COMP_WORDS[1]}}
  # bash takes --option=value apart.
  if [[ $word == = ]]; then
    before=$before= word=
  elif [[ $before == = ]]; then
    before=${{COMP_WORDS[COMP_CWORD - 2]}}=
  fi
  case $command/$before in
{0}  esac
  case $command in
    '') words='{1}' options='--help --version' ;;
    help) words='{1}' ;;
{2}  esac
  if [[ $word == -* ]]; then
    _polctl_words "$options"
  elif ((files)); then
    _polctl_files
  else
    _polctl_words "$words"
  fi
}}
complete -F _polctl polctl
)",
                     values, names_of(commands), options);
}

// A text between single quotes, with what _arguments takes for its own marked.
std::string zsh_text(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\'') out += "'\\'";
    if (c == '[' || c == ']' || c == ':') out += '\\';
    out += c;
  }
  return out;
}

std::string zsh_action(const OptionRow& row) {
  if (!row.choices.empty()) return "(" + joined(row.choices, " ") + ")";
  return takes_file(row) ? "_files" : "";
}

std::string zsh_option(const OptionRow& row) {
  std::string what = is_option(row) ? row.value : row.name;
  std::string value = fmt::format(":{}:{}", zsh_text(what), zsh_action(row));
  if (!is_option(row)) return fmt::format("'{}{}'", row.repeats ? "*" : "", value);
  const char* begin = row.repeats ? "*" : "";
  if (row.value.empty()) return fmt::format("'{}{}[{}]'", begin, row.name, zsh_text(row.help));
  return fmt::format("'{}{}={}[{}]{}{}'", begin, row.name, may_stand_alone(row) ? "-" : "",
                     zsh_text(row.help), may_stand_alone(row) ? ":" : "", value);
}

std::string zsh_script(const std::vector<CommandRow>& commands) {
  std::string described;
  std::string cases;
  for (const CommandRow& command : commands) {
    described += fmt::format("    '{}:{}'\n", command.name, zsh_text(command.does));
    cases += fmt::format("    {})\n      _arguments", command.name);
    for (const OptionRow& row : command.options) cases += " \\\n        " + zsh_option(row);
    cases += " ;;\n";
  }
  return fmt::format(R"(#compdef polctl
# Completion of polctl for zsh, made by "polctl completion zsh".
_polctl() {{
  local -a commands
  commands=(
{0}    'help:Tell the options of a command'
    'version:Tell the version'
  )
  if ((CURRENT == 2)); then
    _describe command commands
    return
  fi
  shift words
  ((CURRENT--))
  case $words[1] in
    help) _describe command commands ;;
{1}  esac
}}
_polctl "$@"
)",
                     described, cases);
}

}  // namespace

std::string completion_script(const std::vector<CommandRow>& commands, const std::string& shell) {
  if (shell == "bash") return bash_script(commands);
  if (shell == "zsh") return zsh_script(commands);
  return "";
}

}  // namespace polctl
