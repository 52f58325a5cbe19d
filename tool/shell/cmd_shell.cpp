// SPDX-License-Identifier: Apache-2.0
//
// polctl shell, and its commands one at a time.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "host/address_text.h"
#include "host/input_error.h"
#include "host/source_file.h"
#include "line_editor.h"
#include "shell.h"
#include "tool/command_line.h"
#include "tool/live_client.h"

namespace polctl {

namespace {

constexpr size_t kMaxScript = size_t{64} << 20;

// Prints what was wrong with a line; `where` is "FILE:LINE" or "".
void tell_error(const std::string& where, const std::string& line, const std::exception& error) {
  std::string place = where.empty() ? "" : where + ": ";
  std::string text;
  if (const auto* fault = dynamic_cast<const LineFaultError*>(&error)) {
    const LineFault& what = fault->fault;
    std::string expected = what.expected.empty() ? "" : " (expected " + what.expected + ")";
    if (where.empty()) {
      // Below what was typed.
      text = fmt::format("    {}\n    {:>{}}\n", printable(line), "^",
                         std::max<size_t>(what.column, 1));
    } else {
      place = fmt::format("{}:{}: ", where, what.column);
    }
    text += place + "error: " + printable(what.what + expected) + "\n";
  } else {
    // One that was told with its own file and line stands as it is.
    std::string all = error.what();
    for (size_t at = 0; at <= all.size();) {
      size_t end = std::min(all.find('\n', at), all.size());
      std::string each = all.substr(at, end - at);
      bool placed = each.find(": error: ") != std::string::npos;
      text += place + (placed ? "" : "error: ") + printable(each) + "\n";
      at = end + 1;
    }
  }
  fputs(text.c_str(), stderr);
}

int converse(const ShellOptions& options, Output* out) {
  Shell* made = nullptr;
  LineEditor editor([&made](const Words& before, const std::string& last) {
    return made->candidates(before, last);
  });
  Shell shell(options, out, [&editor] { return editor.next(""); });
  made = &shell;
  while (!shell.over()) {
    std::optional<std::string> line = editor.next(shell.prompt());
    if (!line) break;
    try {
      shell.run(*line);
      out->flush();
    } catch (const std::exception& error) {
      out->flush();
      tell_error("", *line, error);
    }
  }
  return kDone;
}

// The lines of a script, fed one after another to a shell or to a "load ... terminal" within.
class Script {
 public:
  Script(std::string name, const std::string& text) : name_(std::move(name)) {
    for (size_t at = 0; at < text.size();) {
      size_t end = std::min(text.find('\n', at), text.size());
      lines_.push_back(text.substr(at, end - at));
      at = end + 1;
    }
  }
  std::optional<std::string> next() {
    if (at_ == lines_.size()) return {};
    return lines_[at_++];
  }
  std::string where() const { return fmt::format("{}:{}", name_, at_); }
  void rewind() { at_ = 0; }

 private:
  std::string name_;
  std::vector<std::string> lines_;
  size_t at_ = 0;
};

// Runs the lines; how many failed. The first ends it unless `goes_on`.
size_t run_lines(Shell* shell, Script* script, bool goes_on, Output* out) {
  size_t failed = 0;
  while (!shell->over() && !out->gone()) {
    std::optional<std::string> line = script->next();
    if (!line) break;
    std::string where = script->where();
    try {
      shell->run(*line);
    } catch (const std::exception& error) {
      out->flush();
      tell_error(where, *line, error);
      ++failed;
      if (!goes_on) break;
    }
  }
  return failed;
}

int run_script(const ShellOptions& options, Output* out) {
  const std::string given = options.file.empty() ? "-" : options.file;
  std::string name = given == "-" ? "<stdin>" : given;
  Script script(name, read_whole(given == "-" ? "/dev/stdin" : given, kMaxScript, "commands"));
  Shell shell(options, out, [&script] { return script.next(); });
  // Rehearsed first: nothing of a script that fails is committed.
  shell.rehearse(true);
  size_t failed = run_lines(&shell, &script, options.keep_going, out);
  shell.rehearse(false);
  if (failed == 0) {
    script.rewind();
    failed = run_lines(&shell, &script, false, out);
  }
  out->flush();
  return failed > 0 ? kBadInput : kDone;
}

}  // namespace

int run_shell(const ShellOptions& options, Output* out) {
  if (!options.words.empty()) {
    Shell shell(options, out, [] { return std::optional<std::string>(); });
    Words words;
    std::string line;
    for (const std::string& word : options.words) {
      if (!line.empty()) line += ' ';
      words.push_back({word, static_cast<uint32_t>(line.size() + 1)});
      line += quoted_word(word);
    }
    const std::string& first = words[0].text;
    bool looks = first == "show" || first == "save";
    try {
      if (!looks) shell.run("configure");
      shell.run_words(words);
      if (!looks && first != "commit") shell.run("commit");
      out->flush();
      return kDone;
    } catch (const std::exception& error) {
      out->flush();
      tell_error("", line, error);
      return kBadInput;
    }
  }
  bool talks = options.file.empty() && isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0;
  ShellOptions own = options;
  own.interactive = talks || !(options.file.empty() || options.file == "-");
  return talks ? converse(own, out) : run_script(own, out);
}

bool take_shell_words(std::vector<std::string> words, ShellOptions* options) {
  auto is_live = [](const std::string& word) {
    return word == "--live" || word.starts_with("--live=");
  };
  auto is_source = [&](const std::string& word) {
    return is_live(word) || word == "--agent" || word.starts_with("--agent=");
  };
  const Verb* verb = words.empty() ? nullptr : find_verb(words[0]);
  bool helps = std::find(words.begin(), words.end(), "--help") != words.end();
  if (verb == nullptr || helps || words[0] == "help") return false;
  std::vector<std::string> sources;
  std::copy_if(words.begin(), words.end(), std::back_inserter(sources), is_source);
  std::erase_if(words, is_source);
  if (words[0] == "show") {
    bool live = !sources.empty() && is_live(sources.front());
    const Shown* shown = find_shown(words.size() > 1 ? words[1] : "status");
    bool own = shown != nullptr &&
               (shown->by == Shown::By::kShell || (shown->by == Shown::By::kHostFirst && !live));
    if (!own) return false;
    if (words.size() == 1) words.emplace_back("status");
  } else if (!verb->alone) {
    throw InputError("polctl: error: " + in_quotes(words[0]) +
                     " is a command within the shell (expected \"polctl shell\")");
  }
  if (sources.size() > 1) throw InputError("polctl: error: more than one source (expected one)");
  for (const std::string& word : sources) {
    std::string value = word.find('=') != std::string::npos ? word.substr(word.find('=') + 1) : "";
    if (is_live(word)) {
      options->source.live = value.empty() ? default_socket() : value;
    } else {
      options->source.agent_port = value;
    }
  }
  options->announce = std::erase(words, "--announce") > 0;
  options->words = std::move(words);
  return true;
}

}  // namespace polctl
