// SPDX-License-Identifier: Apache-2.0
#include "shell.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>

#include "host/address_text.h"
#include "host/input_error.h"
#include "host/near_word.h"
#include "outside.h"
#include "tool/command_line.h"
#include "tool/live_client.h"

namespace polctl {

namespace {

// The commands that take the shell's agent or host as their source, and those that need none.
constexpr const char* kOfAgent[] = {"eval", "dump", "graph", "labels", "watch"};
constexpr const char* kOfHost[] = {"eval", "dump", "graph", "labels", "document", "clear"};

template <size_t kSize>
bool among(const char* const (&names)[kSize], const std::string& name) {
  return std::any_of(std::begin(names), std::end(names),
                     [&](const char* each) { return name == each; });
}

}  // namespace

Shell::Shell(const ShellOptions& options, Output* out, MoreLines more_lines)
    : options_(options),
      out_(out),
      more_lines_(std::move(more_lines)),
      source_(with_agent_of_host(options.source)) {
  source_.agent = true;
  PolicyOptions asked = source_;
  session_ = std::make_unique<AgentSession>(running_agent_port(asked.agent_port));
  if (session_->port() != YARROW_PORT) source_.agent_port = std::to_string(session_->port());
}

Shell::~Shell() = default;

Shell::Act Shell::act_of(const Verb& verb) {
  static const std::map<std::string_view, Act> kActs = {{"show", &Shell::show},
                                                        {"configure", &Shell::configure},
                                                        {"set", &Shell::set},
                                                        {"delete", &Shell::erase},
                                                        {"copy", &Shell::copy},
                                                        {"edit", &Shell::edit},
                                                        {"up", &Shell::up},
                                                        {"top", &Shell::top},
                                                        {"load", &Shell::load},
                                                        {"save", &Shell::save},
                                                        {"validate", &Shell::validate},
                                                        {"commit", &Shell::commit},
                                                        {"rollback", &Shell::rollback},
                                                        {"discard", &Shell::discard},
                                                        {"exit", &Shell::exit},
                                                        {"quit", &Shell::exit},
                                                        {"help", &Shell::help}};
  return kActs.at(verb.name);
}

const Verb* Shell::find(const std::string& word) const {
  const Verb* verb = find_verb(word);
  return verb != nullptr && (!verb->changes || configuring_) ? verb : nullptr;
}

const CommandRow* Shell::outside(const std::string& word) const {
  for (const CommandRow& row : *options_.commands) {
    if (row.name == word && word != "shell" && find_verb(word) == nullptr) return &row;
  }
  return nullptr;
}

std::vector<std::string> Shell::known_words() const {
  std::vector<std::string> names;
  for (const Verb& verb : shell_verbs()) {
    if (!verb.changes || configuring_) names.emplace_back(verb.name);
  }
  for (const CommandRow& row : *options_.commands) {
    if (outside(row.name) != nullptr) names.push_back(row.name);
  }
  return names;
}

void Shell::require_end(const Words& words, size_t at) const {
  if (words.size() <= at) return;
  throw LineFaultError(
      {words[at].column, "unknown word " + in_quotes(words[at].text), "the end of the line"});
}

void Shell::run(std::string_view line) { run_words(split_words(line)); }

void Shell::run_words(const Words& words) {
  if (words.empty()) return;
  const std::string& name = words[0].text;
  if (const Verb* verb = find(name)) {
    (this->*act_of(*verb))(words);
    return;
  }
  if (outside(name) != nullptr) {
    std::vector<std::string> plain;
    for (const SetWord& word : words) plain.push_back(word.text);
    run_outside_command(std::move(plain));
    return;
  }
  if (find_verb(name) != nullptr) {
    throw LineFaultError(
        {words[0].column, in_quotes(name) + " changes configuration", "\"configure\" before it"});
  }
  std::vector<std::string> near = near_words(name, known_words());
  std::string what = "unknown word " + in_quotes(name);
  if (!near.empty()) what += ", did you mean " + near.front() + "?";
  throw LineFaultError({words[0].column, what, near.empty() ? joined(known_words(), ", ") : ""});
}

// The words with the shell's agent or host for a source, where they name none.
std::vector<std::string> Shell::with_source(std::vector<std::string> words) const {
  for (const std::string& word : words) {
    for (const char* option : {"--agent", "--live", "--config", "--policy-file", "--help"}) {
      if (word.starts_with(option)) return words;
    }
  }
  if (!options_.source.live.empty() && among(kOfHost, words[0])) {
    words.push_back("--live=" + options_.source.live);
  } else if (among(kOfAgent, words[0])) {
    words.push_back("--agent" + (source_.agent_port.empty() ? "" : "=" + source_.agent_port));
  }
  return words;
}

void Shell::run_outside_command(std::vector<std::string> words) {
  if (rehearses_) return;
  out_->flush();
  int status = run_outside(with_source(std::move(words)), options_.interactive);
  // What the answer is no fault of the command: a finding, a route that differs.
  if (status > kFindings) throw InputError(fmt::format("it ended with status {}", status));
}

std::string Shell::prompt() const {
  if (!configuring_) return "polctl> ";
  return (at_.empty() ? "" : "[" + words_of(at_) + "]\n") + "polctl# ";
}

void Shell::rehearse(bool on) {
  rehearses_ = on;
  if (on) return;
  leave_candidate();
  over_ = false;
}

void throw_agent_faults(const std::vector<ConfigFault>& faults) {
  if (faults.empty()) return;
  std::string text;
  for (const ConfigFault& fault : faults) {
    if (!text.empty()) text += '\n';
    if (!fault.path.empty()) text += fault.path + ": ";
    text += fault.what;
    if (!fault.expected.empty()) text += " (expected " + fault.expected + ")";
  }
  throw InputError(text);
}

}  // namespace polctl
