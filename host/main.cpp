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
  polctl check --policy-file branch.txt
  polctl check --policy-file branch.txt --json

Reports every error and every warning of the file, each with its line and column.
The exit status is 1 when there are any.)";

constexpr const char* kMainHelp = R"(Examples:
  polctl check --policy-file branch.txt
  echo 10.1.0.0/16 | polctl eval --policy-file branch.txt --policy branch --explain
  polctl dump --policy-file branch.txt prefix-lists

"polctl COMMAND --help" tells the options of a command.)";

void add_source_options(CLI::App* command, polctl::PolicyOptions* options) {
  command->add_option("--policy-file", options->policy_file, "the text policy file to load")
      ->required()
      ->type_name("FILE");
  command
      ->add_option("--trace", options->trace,
                   "let the library trace to syslog, at debug level 0 to 4")
      ->check(CLI::Range(0, 4))
      ->option_text("LEVEL");
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
  command
      ->add_option_function<std::string>(
          "--direction",
          [options](const std::string& word) {
            options->direction = word == "in" ? POL_DIR_IN : POL_DIR_OUT;
          },
          "the policy is applied to what comes in (default) or goes out")
      ->check(CLI::IsMember({"in", "out"}))
      ->option_text("in|out");
  command->add_option("--routes", options->routes, "the routes; - (default) is standard input")
      ->option_text("FILE|-");
  command
      ->add_option("--tlocs", options->tlocs,
                   "the TLOCs that resolve; without it each resolves to itself")
      ->type_name("FILE");
  command->add_flag("--json", options->json, "answer one JSON object a line");
  command->add_flag("--explain", options->explain,
                    "say for every sequence tried what failed, and what decided");
  command->footer(kEvalHelp);
}

void add_check(CLI::App& app, polctl::CheckOptions* options) {
  CLI::App* command = app.add_subcommand("check", "Say what is wrong with a policy file");
  command->add_option("--policy-file", options->policy_file, "the text policy file to check")
      ->required()
      ->type_name("FILE");
  command->add_flag("--json", options->json, "report one JSON object a line");
  command->footer(kCheckHelp);
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

// The one line that CLI11's refusals become.
std::string usage_error(const CLI::App* app, const CLI::Error& error) {
  std::vector<CLI::App*> commands = app->get_subcommands();
  std::vector<std::string> extras = app->remaining();
  if (commands.empty() && !extras.empty()) {
    return "polctl: error: unknown word " + polctl::in_quotes(extras.front()) +
           " (expected eval, check or dump)\n";
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
  polctl::DumpOptions dump;
  add_eval(app, &eval);
  add_check(app, &check);
  add_dump(app, &dump);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kBadInput;
  }
  polctl::Output out;
  if (app.got_subcommand("eval")) return polctl::run_eval(eval, &out);
  if (app.got_subcommand("check")) return polctl::run_check(check, &out);
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
