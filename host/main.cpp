// SPDX-License-Identifier: Apache-2.0
//
// polctl - asks libpolicy what a policy does, from a shell. This file is the command line alone;
// each command is in a file of its own.
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "address_text.h"
#include "commands.h"
#include "input_error.h"

namespace {

using polctl::kBadInput;
using polctl::kDone;

constexpr const char* kExitStatuses =
    "Exit status: 0 done, 1 the answer is no or there are findings, 2 bad usage or input.";

constexpr const char* kEvalHelp = R"(Examples:
  echo 10.1.0.0/16 | polctl eval --policy-file branch.txt --policy branch
  polctl eval --policy-file branch.txt --policy branch --routes routes.jsonl --explain
  polctl eval --policy-file branch.txt --policy branch --routes routes.jsonl --json

Routes are bare prefixes or JSON objects, one a line, mixed at will. Of an object
every member but the type is optional; what is not there the route does not have:
  {"type":"route", "prefix":"10.1.0.0/16", "vpn":1, "tag":5, "preference":100,
   "domain":1, "site":10, "groups":[1,2], "originator":"10.0.0.9", "carrier":3,
   "tloc":{"address":"10.0.0.1", "color":3, "encap":2}, "origin":[4,2]}
The type is "route", "tloc" or "service". TLOCs of --tlocs, one a line:
  {"address":"10.0.0.1", "color":3, "encap":2, "label":1003, "preference":50}

Up to 20 routes are answered one by one, more by a summary by sequence; --json
answers each. The exit status is 0 whatever the policy decides.)";

constexpr const char* kCheckHelp = R"(Examples:
  polctl check sdwan.xml country-lists.xml
  polctl check --policy-file branch.txt --json

Reports every error and every warning, each with its place: a line, and the
column in a policy file or the path in configuration. The exit status is 1 when
there are any.)";

constexpr const char* kMainHelp = R"(Examples:
  polctl check --policy-file branch.txt
  echo 10.1.0.0/16 | polctl eval --policy-file branch.txt --policy branch --explain
  polctl dump --policy-file branch.txt prefix-lists

"polctl COMMAND --help" tells the options of a command.)";

constexpr const char* kDiffHelp = R"(Examples:
  polctl diff old.xml new.xml --policy branch --routes routes.txt
  polctl diff branch.txt sdwan.xml --policy branch --routes routes.txt --json

OLD and NEW are policy files or configuration files, as their content tells. For
every route that is answered differently: both verdicts, what decided, and what
is set differently; more than 20 such routes are summed up. The exit status is 1
when any route differs.)";

constexpr const char* kWatchHelp = R"(Examples:
  polctl watch --config sdwan.xml --change edit.xml
  polctl watch --agent --policy branch

Registers a user for each control policy named, or for all. With --change the
files are committed, and the batch of changes and every callback are shown with
their time since the commit began. Without it every commit that others make is
shown, until the agent ends.)";

void add_policy_file(CLI::App* command, polctl::PolicyOptions* options) {
  command->add_option("--policy-file", options->policy_file, "the text policy file to load")
      ->type_name("FILE");
}

void add_agent_options(CLI::App* command, polctl::PolicyOptions* options) {
  command
      ->add_option(
          "--config", options->config,
          "a configuration file for the agent inside this tool; several are merged in order")
      ->type_name("FILE")
      ->allow_extra_args(false);
  command
      ->add_option_function<std::vector<std::string>>(
          "--agent",
          [options](const std::vector<std::string>& given) {
            options->agent = true;
            options->agent_port = given.empty() ? "" : given.front();
          },
          "take the configuration of a running agent (port 3010, or YARROW_IPC_PORT)")
      ->expected(0, 1)
      ->option_text("[PORT]");
  command
      ->add_option("--trace", options->trace,
                   "let the library trace to syslog, at debug level 0 to 4")
      ->check(CLI::Range(0, 4))
      ->option_text("LEVEL");
}

void add_source_options(CLI::App* command, polctl::PolicyOptions* options) {
  add_policy_file(command, options);
  add_agent_options(command, options);
}

void require_one_source(const CLI::App* command, const polctl::PolicyOptions& options) {
  int sources = (options.policy_file.empty() ? 0 : 1) + (options.config.empty() ? 0 : 1) +
                (options.agent ? 1 : 0);
  if (sources == 1) return;
  bool files = command->get_option_no_throw("--policy-file") != nullptr;
  throw polctl::InputError(std::string("polctl: error: ") +
                           (sources == 0 ? "no policy is given" : "policy is given twice") +
                           " (expected one of " + (files ? "--policy-file, " : "") +
                           "--config and --agent)");
}

void add_direction(CLI::App* command, uint32_t* direction) {
  command
      ->add_option_function<std::string>(
          "--direction",
          [direction](const std::string& word) {
            *direction = word == "in" ? POL_DIR_IN : POL_DIR_OUT;
          },
          "the policy is applied to what comes in (default) or goes out")
      ->check(CLI::IsMember({"in", "out"}))
      ->option_text("in|out");
}

void add_tlocs(CLI::App* command, std::string* tlocs) {
  command
      ->add_option("--tlocs", *tlocs, "the TLOCs that resolve; without it each resolves to itself")
      ->type_name("FILE");
}

void add_eval(CLI::App& app, polctl::EvalOptions* options) {
  CLI::App* command = app.add_subcommand("eval", "Run routes through a policy");
  add_source_options(command, &options->source);
  command->add_option("--policy", options->policy, "the policy's name")
      ->required()
      ->type_name("NAME");
  command
      ->add_option_function<std::string>(
          "--kind",
          [options](const std::string& word) {
            options->kind = word == "route" ? POL_KIND_ROUTE : POL_KIND_MEMBERSHIP;
          },
          "the policy's kind: route (default) or membership")
      ->check(CLI::IsMember({"route", "membership"}))
      ->option_text("KIND");
  add_direction(command, &options->direction);
  command->add_option("--routes", options->routes, "the routes; - (default) is standard input")
      ->option_text("FILE|-");
  add_tlocs(command, &options->tlocs);
  command->add_flag("--json", options->json, "answer one JSON object a line");
  command->add_flag("--explain", options->explain,
                    "say for every sequence tried what failed, and what decided");
  command->footer(kEvalHelp);
}

void add_check(CLI::App& app, std::vector<std::string>* files, polctl::CheckOptions* options) {
  CLI::App* command = app.add_subcommand("check", "Say what is wrong with configuration or policy");
  command->add_option("FILE", *files, "configuration files, merged in order; or one policy file")
      ->option_text("...");
  command->add_option("--policy-file", options->policy_file, "the text policy file to check")
      ->type_name("FILE");
  command->add_flag("--json", options->json, "report one JSON object a line");
  command->footer(kCheckHelp);
}

int run_check(const std::vector<std::string>& files, polctl::CheckOptions* options,
              polctl::Output* out) {
  if (files.empty() == options->policy_file.empty()) {
    throw polctl::InputError(files.empty()
                                 ? "polctl: error: nothing to check (expected a file)"
                                 : "polctl: error: policy is given twice (expected configuration "
                                   "files or --policy-file)");
  }
  if (files.size() == 1 && !polctl::is_configuration(files.front())) {
    options->policy_file = files.front();
  } else {
    options->config = files;
  }
  return polctl::run_check(*options, out);
}

void add_dump(CLI::App& app, polctl::DumpOptions* options) {
  CLI::App* command = app.add_subcommand("dump", "Print what the library holds");
  add_source_options(command, &options->source);
  std::string topics;
  for (const std::string& topic : polctl::dump_topics()) {
    topics += topics.empty() ? topic : ", " + topic;
  }
  command->add_option("TOPIC", options->topic, "what to print: " + topics)
      ->check(CLI::IsMember(polctl::dump_topics()))
      ->option_text(" ");
  command->footer("Example:\n  polctl dump --policy-file branch.txt route-policies");
}

void add_diff(CLI::App& app, polctl::DiffOptions* options) {
  CLI::App* command =
      app.add_subcommand("diff", "Show which routes two policies answer differently");
  command->add_option("OLD", options->old_file, "the policy as it was")
      ->required()
      ->option_text(" ");
  command->add_option("NEW", options->new_file, "the policy as it is")
      ->required()
      ->option_text(" ");
  command->add_option("--routes", options->routes, "the routes")->required()->type_name("FILE");
  command->add_option("--policy", options->policy, "the policy's name; not needed for an only one")
      ->type_name("NAME");
  add_direction(command, &options->direction);
  add_tlocs(command, &options->tlocs);
  command->add_flag("--json", options->json, "one JSON object a line for each route that differs");
  command->footer(kDiffHelp);
}

void add_watch(CLI::App& app, polctl::WatchOptions* options) {
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
  command->footer(kWatchHelp);
}

// The one line that CLI11's refusals become.
std::string usage_error(const CLI::App* app, const CLI::Error& error) {
  std::vector<CLI::App*> commands = app->get_subcommands();
  std::vector<std::string> extras = app->remaining();
  if (commands.empty() && !extras.empty()) {
    return "polctl: error: unknown word " + polctl::in_quotes(extras.front()) +
           " (expected eval, check, diff, dump or watch)\n";
  }
  std::string command = commands.empty() ? "polctl" : "polctl " + commands.front()->get_name();
  return "polctl: error: " + std::string(error.what()) + " (expected what \"" + command +
         " --help\" tells)\n";
}

int run(int argc, char** argv) {
  CLI::App app("Asks the policy library what a policy does.", "polctl");
  app.require_subcommand(1);
  app.set_version_flag("--version", "polctl " POLCTL_VERSION);
  app.failure_message(usage_error);
  app.footer(std::string(kMainHelp) + "\n" + kExitStatuses);
  polctl::EvalOptions eval;
  polctl::CheckOptions check;
  std::vector<std::string> files;
  polctl::DiffOptions diff;
  polctl::DumpOptions dump;
  polctl::WatchOptions watch;
  add_eval(app, &eval);
  add_check(app, &files, &check);
  add_diff(app, &diff);
  add_dump(app, &dump);
  add_watch(app, &watch);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kBadInput;
  }
  polctl::Output out;
  if (app.got_subcommand("check")) return run_check(files, &check, &out);
  if (app.got_subcommand("diff")) return polctl::run_diff(diff, &out);
  CLI::App* command = app.get_subcommands().front();
  if (command->get_name() == "eval") {
    require_one_source(command, eval.source);
    return polctl::run_eval(eval, &out);
  }
  if (command->get_name() == "watch") {
    require_one_source(command, watch.source);
    return polctl::run_watch(watch, &out);
  }
  require_one_source(command, dump.source);
  return polctl::run_dump(dump, &out);
}

}  // namespace

int main(int argc, char** argv) {
  // A reader that goes away ends a command quietly; see output.h.
  signal(SIGPIPE, SIG_IGN);
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    fprintf(stderr, "%s\n", error.what());
    return kBadInput;
  }
}
