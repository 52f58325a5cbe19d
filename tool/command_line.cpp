// SPDX-License-Identifier: Apache-2.0
#include "command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iterator>
#include <sstream>

#include "common_options.h"
#include "help_texts.h"
#include "host/address_text.h"
#include "host/input_error.h"
#include "host/near_word.h"
#include "live_client.h"
#include "manual/manual.h"
#include "options_text.h"
#include "shell/verbs.h"
#include "terminal.h"
#include "yarrow/yarrow_types.h"

namespace polctl {

namespace {

[[noreturn]] void fail(const std::string& what, const std::string& expected) {
  throw InputError("polctl: error: " + what + " (expected " + expected + ")");
}

bool all_digits(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// Values that an option may carry are written after "=": a number or a path that follows one is put
// there, so that no other word is ever taken for one. "help X" becomes "X --help".
std::vector<std::string> settled(std::vector<std::string> words) {
  if (!words.empty() && words[0] == "version") words[0] = "--version";
  if (!words.empty() && words[0] == "help") {
    words.erase(words.begin());
    words.emplace_back("--help");
  }
  for (size_t i = 0; i + 1 < words.size(); ++i) {
    const std::string& next = words[i + 1];
    bool is_value = (words[i] == "--agent" && all_digits(next)) ||
                    (words[i] == "--live" && next.find('/') != std::string::npos);
    if (!is_value) continue;
    words[i] += "=" + next;
    words.erase(words.begin() + static_cast<ptrdiff_t>(i) + 1);
  }
  return words;
}

constexpr const char* kFlagGiven = "true";  // what a flag without a value has for one

void add_eval(CLI::App& app, EvalOptions* options) {
  CLI::App* command = app.add_subcommand("eval", "Run routes through a policy");
  add_source_options(command, &options->source);
  command->add_option("--policy", options->policy, "the policy's name")
      ->required()
      ->type_name("NAME");
  add_kind(command, &options->kind);
  add_direction(command, &options->direction, kDirectionHelp);
  CLI::Option* routes =
      command->add_option("--routes", options->routes, "the routes; - (default) is standard input")
          ->option_text("FILE|-");
  add_routes_format(command, &options->routes_format);
  command
      ->add_option("--route", options->route,
                   "a route without a file, such as prefix=10.1.0.0/16,site=302,tag=5")
      ->option_text("NAME=VALUE,...")
      ->allow_extra_args(false)
      ->excludes(routes);
  add_tlocs(command, &options->tlocs);
  add_json(command, &options->json, "answer one JSON object a line");
  command->add_flag("--explain", options->explain,
                    "say for every sequence tried what failed, and what decided and why");
  add_jobs(command, &options->jobs);
  command->footer(kEvalHelp);
}

void add_test(CLI::App& app, TestOptions* options) {
  CLI::App* command = app.add_subcommand("test", "Try what policies are expected to say");
  command->add_option("FILE", options->files, "files of tests; - is standard input")
      ->option_text("...");
  add_source_options(command, &options->source);
  add_direction(command, &options->direction,
                "in which policies of tests that say none are applied");
  add_tlocs(command, &options->tlocs);
  CLI::Option* format =
      command->add_option("--format", options->format, "text (default), json, junit or tap")
          ->check(CLI::IsMember({"text", "json", "junit", "tap"}))
          ->option_text("FORMAT");
  command
      ->add_flag_callback(
          "--json", [options] { options->format = "json"; }, "the same as --format json")
      ->excludes(format);
  command->add_flag("--explain", options->explain, "say of each failure every sequence tried");
  add_limits(command, &options->limits);
  command->add_flag("--coverage", options->coverage, "say what was never reached");
  command->add_option("--routes", options->routes, "routes that reach too, for the coverage")
      ->type_name("FILE");
  add_routes_format(command, &options->routes_format);
  command->footer(kTestHelp);
}

void settle_test(const TestOptions& options) {
  bool plain = options.format == "text" || options.format == "json";
  if (options.coverage && !plain) {
    fail("--coverage is no part of " + options.format, "--format text or json");
  }
  if (!options.routes.empty() && !options.coverage) {
    fail("--routes reaches nothing that is told", "--coverage with it");
  }
  if (options.files.empty() && options.routes.empty()) fail("no tests are given", "a file");
}

void add_check(CLI::App& app, CheckOptions* options) {
  CLI::App* command = app.add_subcommand("check", "Say what is wrong with configuration or policy");
  command
      ->add_option("FILE", options->files,
                   "configuration files, merged in order; or one policy file; - is standard input")
      ->option_text("...");
  command->add_option("--policy-file", options->source.policy_file, "the text policy file to check")
      ->type_name("FILE");
  add_config(command, &options->source);
  add_agent(command, &options->source);
  command
      ->add_flag("--live", options->source.live,
                 "check what a running \"polctl serve\" has for configuration")
      ->option_text("[=SOCKET]");
  add_direction(command, &options->direction,
                "in which policies are applied: tells what they set in vain");
  add_json(command, &options->json, "report one JSON object a line");
  command->add_flag_callback(
      "--no-proofs", [options] { options->proofs = false; },
      "only what a look at single sequences and members tells");
  add_limits(command, &options->limits);
  command->add_flag("--strict", options->strict, "exit with status 1 for warnings too");
  command->add_flag("--all", options->all, "show every finding, not 100 a file");
  command->footer(kCheckHelp);
}

void add_convert(CLI::App& app, ConvertOptions* options) {
  CLI::App* command =
      app.add_subcommand("convert", "Write policy or configuration in another form");
  command->add_option("FILE", options->file, "a policy file or configuration; - is standard input")
      ->required()
      ->option_text(" ");
  command
      ->add_option("--to", options->to,
                   "set-lines (default), a tree, XML, JSON, or the text of a policy file")
      ->check(CLI::IsMember({"set", "tree", "xml", "json", "text"}))
      ->option_text("set|tree|xml|json|text");
  command->footer(kConvertHelp);
}

void add_dump(CLI::App& app, DumpOptions* options) {
  CLI::App* command = app.add_subcommand("dump", "Print what the library holds");
  add_source_options(command, &options->source);
  command->add_option("TOPIC", options->topic, "what to print: " + joined(dump_topics(), ", "))
      ->check(CLI::IsMember(dump_topics()))
      ->option_text(" ");
  command->footer("Example:\n  polctl dump --policy-file branch.txt route-policies");
}

void add_graph(CLI::App& app, GraphOptions* options) {
  CLI::App* command = app.add_subcommand("graph", "Show what uses what");
  add_source_options(command, &options->source);
  command->add_option("--format", options->format, "text (default), dot for Graphviz, or json")
      ->check(CLI::IsMember({"text", "dot", "json"}))
      ->option_text("dot|json|text");
  command->add_flag_callback(
      "--json", [options] { options->format = "json"; }, "the same as --format json");
  command->footer(kGraphHelp);
}

void add_document(CLI::App& app, DocumentOptions* options) {
  CLI::App* command =
      app.add_subcommand("document", "Print the XML document for the forwarding manager");
  add_config(command, &options->source);
  add_live(command, &options->source);
  add_applied(command, &options->applied);
  add_tlocs(command, &options->tlocs);
  command->add_flag("--pretty", options->pretty, "a line an element");
  command->add_flag("--show-data", options->show_data,
                    "publish it in the agent for show, say what that shows, and clear it");
  add_trace(command, &options->source);
  command->footer(kDocumentHelp);
}

void add_labels(CLI::App& app, LabelsOptions* options) {
  CLI::App* command = app.add_subcommand("labels", "Show the labels written into data policies");
  add_agent_options(command, &options->source);
  add_live(command, &options->source);
  add_tlocs(command, &options->tlocs);
  add_json(command, &options->json, "one JSON object a line for each sequence");
  command->footer("Example:\n  polctl labels --config sdwan.xml --tlocs tlocs.jsonl");
}

void add_announce(CLI::App* command, bool* announce) {
  command->add_flag("--announce", *announce,
                    "tell of each commit which kinds of routes it has answered otherwise");
}

void add_serve(CLI::App& app, ServeOptions* options, std::string* port,
               std::vector<std::string>* apply) {
  CLI::App* command =
      app.add_subcommand("serve", "Run agent, routing daemon and forwarding manager until stopped");
  add_config(command, &options->source);
  command
      ->add_option("--dir", options->source.directory,
                   "where the agent keeps the configuration; without it nowhere")
      ->type_name("DIR");
  command
      ->add_option("--port", *port, "where the agent listens (default 3010; 0 takes a free port)")
      ->type_name("PORT");
  add_agent(command, &options->source);
  command->add_option("--socket", options->socket, "where --live asks")->type_name("PATH");
  command
      ->add_option("--http", options->http,
                   "where to serve a page and metrics, read-only: 127.0.0.1:PORT or a path")
      ->option_text("ADDRESS:PORT|PATH");
  command
      ->add_option("--http-host", options->http_hosts,
                   "a name it is reached by; needed to serve beyond this machine")
      ->type_name("NAME")
      ->allow_extra_args(false);
  command->add_option("--apply", *apply, "use this policy inbound (as without) or outbound")
      ->option_text("NAME:in|out")
      ->allow_extra_args(false);
  command
      ->add_option("--routes", options->routes,
                   "routes of the routing daemon: decided at the start and whenever a policy of "
                   "--apply, without any every control policy, calls back")
      ->type_name("FILE");
  add_routes_format(command, &options->routes_format);
  add_applied(command, &options->applied);
  add_tlocs(command, &options->tlocs);
  add_announce(command, &options->announce);
  command
      ->add_option("--log", options->log,
                   "where events go, without it as lines to standard output: stderr, syslog, or "
                   "json, an object a line on standard error")
      ->check(CLI::IsMember({"stderr", "syslog", "json"}))
      ->option_text("WHERE");
  command
      ->add_option("--options", options->options_file,
                   "take options from a file too, a line each, such as \"port = 3010\"")
      ->type_name("FILE");
  command->add_flag("--print-config", options->print_config,
                    "print the options in force as such a file, and end");
  add_trace(command, &options->source);
  command->footer(kServeHelp);
}

void add_search(CLI::App& app, SearchOptions* options) {
  CLI::App* command =
      app.add_subcommand("search", "Find a route that a policy decides so, or prove there is none");
  add_source_options(command, &options->source);
  command->add_option("--policy", options->policy, "the policy's name")
      ->required()
      ->type_name("NAME");
  add_kind(command, &options->kind);
  add_direction(command, &options->direction, kDirectionHelp);
  command
      ->add_option_function<std::string>(
          "--action",
          [options](const std::string& word) {
            options->action = word == "accept" ? POL_ACCEPT : POL_REJECT;
          },
          "what becomes of the route")
      ->check(CLI::IsMember({"accept", "reject"}))
      ->option_text("accept|reject");
  command->add_option("--sequence", options->sequence, "what decides it: a sequence, or default")
      ->option_text("NUMBER|default");
  command
      ->add_option("--where", options->where,
                   "what the route is like: tag=5, prefix=10.0.0.0/8-24, \"not site-list=hubs\"")
      ->option_text("FIELD=VALUE")
      ->allow_extra_args(false);
  command->add_flag("--all", options->all, "every kind of route, not one a deciding sequence");
  add_limits(command, &options->limits);
  add_json(command, &options->json, "one JSON object a line for each route");
  command->footer(kSearchHelp);
}

void add_diff(CLI::App& app, DiffOptions* options) {
  CLI::App* command =
      app.add_subcommand("diff", "Show which routes two policies answer differently");
  command->add_option("OLD", options->old_file, "the policy as it was")->option_text(" ");
  command->add_option("NEW", options->new_file, "the policy as it is")->option_text(" ");
  command
      ->add_option("--routes", options->routes,
                   "routes to be asked about; without, all there can be")
      ->type_name("FILE");
  add_routes_format(command, &options->routes_format);
  command
      ->add_option("--policy", options->policy,
                   "the policy's name; without, all of them, or with --routes the only one")
      ->type_name("NAME");
  command
      ->add_option("--policy-file", options->source.policy_file, "a policy file, in place of OLD")
      ->type_name("FILE");
  add_config(command, &options->source);
  add_agent(command, &options->source);
  command
      ->add_flag("--live", options->source.live,
                 "what a running \"polctl serve\" has, in place of OLD")
      ->option_text("[=SOCKET]");
  add_limits(command, &options->limits);
  add_direction(command, &options->direction, kDirectionHelp);
  add_tlocs(command, &options->tlocs);
  add_json(command, &options->json, "one JSON object a line for each route that differs");
  command->add_flag("--force", options->force, "take policy files that have errors");
  add_jobs(command, &options->jobs);
  command->footer(kDiffHelp);
}

void add_watch(CLI::App& app, WatchOptions* options) {
  CLI::App* command = app.add_subcommand("watch", "Show what a change of configuration sets off");
  add_agent_options(command, &options->source);
  command
      ->add_option("--policy", options->policies, "a control policy to use; all when none is named")
      ->type_name("NAME")
      ->allow_extra_args(false);
  command
      ->add_option("--change", options->change, "a configuration file to commit once all is loaded")
      ->type_name("FILE")
      ->allow_extra_args(false);
  add_json(command, &options->json, "one JSON object a line for each commit");
  command->add_flag("--reconnect", options->reconnect, "wait for an agent that goes away");
  command->footer(kWatchHelp);
}

void add_show(CLI::App& app, ShowOptions* options) {
  CLI::App* command = app.add_subcommand("show", "Show how an agent or a running host is");
  std::vector<std::string> words;
  for (const Shown& shown : shown_words()) words.emplace_back(shown.word);
  command->add_option("WHAT", options->what, joined(words, ", ") + " (default)")
      ->check(CLI::IsMember(words))
      ->option_text(" ");
  command->add_option("NAME", options->name, "the policy's name")->option_text(" ");
  add_live(command, &options->source);
  add_agent(command, &options->source);
  add_json(command, &options->json, "one JSON object a line");
  command->footer(kShowHelp);
}

void add_shell(CLI::App& app, ShellOptions* options) {
  CLI::App* command =
      app.add_subcommand("shell", "Look at a running agent's configuration, change it");
  command->add_option("FILE", options->file, "commands, a line each; - is standard input")
      ->option_text(" ");
  add_agent(command, &options->source);
  add_live(command, &options->source);
  command->add_flag("--keep-going", options->keep_going,
                    "tell what is wrong with the lines after a wrong one too");
  add_announce(command, &options->announce);
  command->footer(std::string(kShellHelp) + "\n\nCommands:\n" + verbs_text());
}

// The shell's commands that may be given alone: known here for help and what is made of it. They are
// read by the shell itself, whose words are no options.
void add_verbs(CLI::App& app, ShellOptions* options) {
  for (const Verb& verb : shell_verbs()) {
    if (!verb.alone) continue;
    CLI::App* command = app.add_subcommand(verb.name, verb.does);
    command->add_option("WORDS", options->words, verb.usage)->option_text("...");
    add_agent(command, &options->source);
    add_live(command, &options->source);
    add_announce(command, &options->announce);
    command->footer(verb.notes);
  }
}

void add_report(CLI::App& app, ReportOptions* options) {
  CLI::App* command = app.add_subcommand("report", "Write a page about a policy as one file");
  command->add_option("FILE", options->file, "the page to write; - is standard output")
      ->required()
      ->option_text(" ");
  add_policy_file(command, &options->source);
  add_agent_options(command, &options->source);
  command->footer("Example:\n  polctl report network.html --config sdwan.xml");
}

void add_clear(CLI::App& app, ClearOptions* options) {
  CLI::App* command = app.add_subcommand("clear", "Have a running host count from 0 again");
  command->add_option("WHAT", options->what, "counters")
      ->required()
      ->check(CLI::IsMember({"counters"}))
      ->option_text(" ");
  add_live(command, &options->source);
}

std::vector<std::string> command_names(CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* command : app.get_subcommands({})) names.push_back(command->get_name());
  return names;
}

std::string hint(const std::string& word, const std::vector<std::string>& known) {
  std::vector<std::string> near = near_words(word, known);
  return near.empty() ? "" : ", did you mean " + near.front() + "?";
}

// CLI11's refusals as the one line that every error is.
[[noreturn]] void refuse(CLI::App& app, const CLI::Error& error) {
  std::vector<CLI::App*> commands = app.get_subcommands();
  CLI::App* command = commands.empty() ? &app : commands.front();
  std::string name = commands.empty() ? "polctl" : "polctl " + command->get_name();
  std::vector<std::string> extras = app.remaining(true);
  if (!extras.empty()) {
    // As it was written: before it is told apart, "--josn=1" is one word.
    std::string word = extras.front().substr(0, extras.front().find('='));
    if (word.starts_with('-')) {
      std::vector<std::string> known;
      for (const CLI::Option* option : command->get_options()) {
        for (const std::string& each : option->get_lnames()) known.push_back("--" + each);
      }
      fail("unknown option " + in_quotes(word) + hint(word, known),
           "an option that \"" + name + " --help\" tells");
    }
    if (!commands.empty()) {
      fail("unknown word " + in_quotes(word), "what \"" + name + " --help\" tells");
    }
    std::vector<std::string> names = command_names(app);
    fail("unknown word " + in_quotes(word) + hint(word, names),
         joined(names, ", ") + ", help or version");
  }
  fail(error.what(), "what \"" + name + " --help\" tells");
}

// How many sources are given.
int settle_sources(const CLI::App* command, PolicyOptions* options) {
  auto given = [command](const char* name) {
    const CLI::Option* option = command->get_option_no_throw(name);
    return option != nullptr && option->count() > 0;
  };
  options->agent = given("--agent");
  if (options->agent_port == kFlagGiven) options->agent_port.clear();
  bool named = !options->live.empty() && options->live != kFlagGiven;
  if (given("--live") && !named) options->live = default_socket();
  return (options->policy_file.empty() ? 0 : 1) + (options->config.empty() ? 0 : 1) +
         (options->agent ? 1 : 0) + (options->live.empty() ? 0 : 1);
}

void settle_source(const CLI::App* command, PolicyOptions* options) {
  int sources = settle_sources(command, options);
  bool needs_none = command->get_name() == "serve" || command->get_name() == "shell";
  // As the shell's commands.
  if (sources == 0 && command->get_name() == "show") {
    options->agent = true;
    return;
  }
  if (sources == 1 || (sources == 0 && needs_none)) return;
  std::vector<std::string> known;
  for (const char* name : {"--policy-file", "--config", "--agent", "--live"}) {
    if (command->get_option_no_throw(name) != nullptr) known.emplace_back(name);
  }
  std::string last = known.back();
  known.pop_back();
  fail(sources == 0 ? "no policy is given" : "policy is given twice",
       "one of " + joined(known, ", ") + " and " + last);
}

void require_here(const PolicyOptions& options, bool given, const char* what) {
  if (options.live.empty() || !given) return;
  fail(std::string("a running host has its own ") + what, "--live without");
}

// Standard input is there once.
void require_one_input(const CommandLine& line) {
  std::vector<std::string> files;
  if (line.command == "eval") {
    files = line.eval.source.config;
    files.push_back(line.eval.source.policy_file);
    if (line.eval.route.empty()) files.push_back(line.eval.routes);
  } else if (line.command == "test") {
    files = line.test.files;
    files.insert(files.end(), line.test.source.config.begin(), line.test.source.config.end());
    files.push_back(line.test.source.policy_file);
    files.push_back(line.test.routes);
  } else if (line.command == "diff") {
    files = line.diff.source.config;
    files.insert(files.end(), {line.diff.old_file, line.diff.new_file, line.diff.routes,
                               line.diff.source.policy_file});
  } else if (line.command == "check") {
    files = line.check.files;
    files.insert(files.end(), line.check.source.config.begin(), line.check.source.config.end());
  }
  if (std::count(files.begin(), files.end(), "-") > 1) {
    fail("standard input is to be read twice", "- for one of the files");
  }
}

void settle_diff(const CLI::App* command, DiffOptions* options) {
  const int sources = settle_sources(command, &options->source);
  if (sources == 0 && options->new_file.empty()) {
    fail("there is nothing to compare", "OLD and NEW, or a source of the old policy and NEW");
  }
  options->source.force = options->force;
  if (sources == 0) return;
  if (sources > 1 || !options->new_file.empty()) {
    fail("policy is given twice",
         "OLD and NEW, or one of --policy-file, --config, --agent and "
         "--live for the old policy, and NEW");
  }
  if (options->old_file.empty()) fail("there is nothing to compare with", "NEW");
  std::swap(options->old_file, options->new_file);
}

void settle_check(const CLI::App* command, CheckOptions* options) {
  const int sources = settle_sources(command, &options->source);
  if (sources + (options->files.empty() ? 0 : 1) == 1) return;
  fail(sources == 0 ? "nothing to check" : "policy is given twice",
       "files, or one of --policy-file, --config, --agent and --live");
}

void settle_serve(const std::string& port, const std::vector<std::string>& apply,
                  ServeOptions* options) {
  PolicyOptions& source = options->source;
  source.listen = port.empty() ? YARROW_PORT : port_of(port, "--port", 0);
  if (source.agent && (!port.empty() || !source.directory.empty())) {
    fail("the agent runs elsewhere", "--agent without --port and --dir");
  }
  for (const std::string& each : apply) {
    size_t colon = each.rfind(':');
    std::string way = colon != std::string::npos ? each.substr(colon + 1) : "";
    if (colon == 0 || (way != "in" && way != "out")) {
      fail("--apply: " + in_quotes(each) + " says no direction", "NAME:in or NAME:out");
    }
    options->directions[each.substr(0, colon)] = way == "in" ? POL_DIR_IN : POL_DIR_OUT;
  }
}

void settle_show(const ShowOptions& options) {
  Shown::By by = find_shown(options.what)->by;
  if (by == Shown::By::kShell || (by == Shown::By::kHostFirst && options.source.live.empty())) {
    fail("show " + options.what + " of an agent has no such options",
         "\"polctl show " + options.what + "\", or --live");
  }
  if ((options.what == "policy") == options.name.empty()) {
    fail(options.name.empty() ? "no policy is named" : "unknown word " + in_quotes(options.name),
         "show policy NAME, or a word alone");
  }
}

// What the parser fills in, and what only it and the checks after it know.
struct Parser {
  CLI::App app = CLI::App("Asks the policy library what a policy does.", "polctl");
  CommandLine line;
  std::string port;
  std::vector<std::string> apply;

  Parser() {
    app.require_subcommand(1);
    app.set_version_flag("--version", "polctl " POLCTL_VERSION);
    add_eval(app, &line.eval);
    add_check(app, &line.check);
    add_convert(app, &line.convert);
    add_diff(app, &line.diff);
    add_test(app, &line.test);
    add_dump(app, &line.dump);
    add_graph(app, &line.graph);
    add_document(app, &line.document);
    add_labels(app, &line.labels);
    add_search(app, &line.search);
    add_watch(app, &line.watch);
    add_show(app, &line.show);
    add_clear(app, &line.clear);
    add_shell(app, &line.shell);
    add_verbs(app, &line.shell);
    add_report(app, &line.report);
    add_serve(app, &line.serve, &port, &apply);
    // Last: a command begins with what its parent ends with.
    app.footer(std::string(kMainHelp) + "\n" + kExitStatuses);
  }
};

OptionRow row_of(const CLI::Option& option) {
  OptionRow row;
  bool has_name = !option.get_lnames().empty();
  row.name = has_name ? "--" + option.get_lnames().front() : option.get_name();
  row.help = option.get_description();
  row.repeats = option.get_expected_max() > 1;
  row.required = option.get_required();
  bool flag = option.get_expected_max() == 0;
  std::string type = option.get_type_name();  // "TEXT:{in,out}" where words are checked
  const std::string& told = option.get_option_text();
  row.value = told == " " || told == "..." ? "" : !told.empty() ? told : flag ? "" : type;
  size_t open = type.find('{');
  size_t close = type.find('}');
  if (open == std::string::npos || close == std::string::npos) return row;
  std::istringstream words(type.substr(open + 1, close - open - 1));
  for (std::string word; std::getline(words, word, ',');) row.choices.push_back(word);
  return row;
}

CommandRow row_of(const CLI::App& command) {
  CommandRow row = {command.get_name(), command.get_description(), {}, command.get_footer()};
  for (const CLI::Option* option : command.get_options()) row.options.push_back(row_of(*option));
  return row;
}

CommandLine read_words(const std::vector<std::string>& words, bool takes_file) {
  Parser parser;
  CLI::App& app = parser.app;
  CommandLine& line = parser.line;
  std::vector<std::string> names = command_names(app);
  bool helps = words.size() > 1 && words[0] == "help";
  if (helps && std::find(names.begin(), names.end(), words[1]) == names.end()) {
    fail("unknown word " + in_quotes(words[1]) + hint(words[1], names),
         "one of " + joined(names, ", "));
  }
  std::vector<std::string> given = settled(words);
  std::reverse(given.begin(), given.end());  // as the parser wants them
  try {
    app.parse(given);
  } catch (const CLI::CallForHelp&) {
    std::vector<CLI::App*> commands = app.get_subcommands();
    line.output = wrapped(commands.empty() ? app.help() : commands.front()->help());
    return line;
  } catch (const CLI::CallForVersion&) {
    line.output = "polctl " POLCTL_VERSION "\n";
    return line;
  } catch (const CLI::ParseError& error) {
    refuse(app, error);
  }
  CLI::App* command = app.get_subcommands().front();
  line.command = command->get_name();
  for (const CLI::Option* option : command->get_options()) {
    if (option->count() > 0) line.given[row_of(*option).name] = option->results();
  }
  if (takes_file && !line.serve.options_file.empty()) {
    auto alone = [](const std::string& word) { read_words({"serve", word}, false); };
    std::vector<std::string> more =
        words_of_options_file(line.serve.options_file, row_of(*command), line.given, alone);
    more.insert(more.begin(), words.begin(), words.end());
    return read_words(more, false);
  }
  struct {
    const char* command;
    PolicyOptions* source;
    bool tlocs;
  } const sources[] = {{"eval", &line.eval.source, !line.eval.tlocs.empty()},
                       {"test", &line.test.source, !line.test.tlocs.empty()},
                       {"dump", &line.dump.source, false},
                       {"graph", &line.graph.source, false},
                       {"document", &line.document.source, !line.document.tlocs.empty()},
                       {"labels", &line.labels.source, !line.labels.tlocs.empty()},
                       {"search", &line.search.source, false},
                       {"watch", &line.watch.source, false},
                       {"show", &line.show.source, false},
                       {"clear", &line.clear.source, false},
                       {"shell", &line.shell.source, false},
                       {"report", &line.report.source, false},
                       {"serve", &line.serve.source, false}};
  for (const auto& each : sources) {
    if (line.command != each.command) continue;
    settle_source(command, each.source);
    require_here(*each.source, each.tlocs, "TLOCs");
  }
  require_here(line.eval.source, line.eval.jobs != 0, "number of jobs");
  require_here(line.document.source, line.document.applied.any(), "policies applied");
  require_one_input(line);
  if (line.command == "diff") settle_diff(command, &line.diff);
  if (line.command == "check") settle_check(command, &line.check);
  if (line.command == "test") settle_test(line.test);
  if (line.command == "serve") settle_serve(parser.port, parser.apply, &line.serve);
  if (line.command == "show") settle_show(line.show);
  if (line.serve.print_config) {
    GivenOptions all = line.given;
    if (!line.serve.source.agent) all["--port"] = {std::to_string(line.serve.source.listen)};
    if (line.serve.socket.empty()) all["--socket"] = {default_socket()};
    line.command.clear();
    line.output = options_file_text(row_of(*command), all);
  }
  return line;
}

}  // namespace

CommandLine read_command_line(const std::vector<std::string>& words) {
  CommandLine line = {};
  bool made = words.size() == 2 && (words[0] == "completion" || words[0] == "manual");
  if (!made) return read_words(words, true);
  // On purpose not among the commands: for those who build and pack.
  bool script = words[0] == "completion";
  line.output = script ? completion_script(command_table(), words[1])
                       : manual_page(command_table(), words[1]);
  if (line.output.empty()) {
    fail("nothing is made for " + in_quotes(words[1]),
         script ? "bash or zsh" : "polctl or a command");
  }
  return line;
}

std::vector<CommandRow> command_table() {
  std::vector<CommandRow> rows;
  Parser parser;
  for (const CLI::App* command : parser.app.get_subcommands({})) rows.push_back(row_of(*command));
  return rows;
}

}  // namespace polctl
