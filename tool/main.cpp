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

#include "commands.h"
#include "host/address_text.h"
#include "host/input_error.h"
#include "live_client.h"
#include "yarrow/yarrow_types.h"

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

constexpr const char* kGraphHelp = R"(Examples:
  polctl graph --config sdwan.xml
  polctl graph --config sdwan.xml --format dot | dot -Tsvg > policy.svg
  polctl graph --live --format json

Lists, objects, policies with their VPN lists and sequences, and registered
users. What is used without being configured is marked as undefined, what is
configured and used by nobody as unused.)";

constexpr const char* kDocumentHelp = R"(Examples:
  polctl document --config sdwan.xml --pretty
  polctl document --config sdwan.xml --from-service branch --app-route voice
  polctl document --live

Without the name of a policy, the only one of each kind is applied, a data policy
in both directions. With --live the running host's own are.)";

constexpr const char* kServeHelp = R"(Examples:
  polctl serve --config sdwan.xml --tlocs tlocs.jsonl &
  polctl labels --live
  polctl watch --agent --change edit.xml

Follows every commit that is made at the agent. SIGINT and SIGTERM end it.)";

void add_policy_file(CLI::App* command, polctl::PolicyOptions* options) {
  command->add_option("--policy-file", options->policy_file, "the text policy file to load")
      ->type_name("FILE");
}

void add_config(CLI::App* command, polctl::PolicyOptions* options) {
  command
      ->add_option(
          "--config", options->config,
          "a configuration file for the agent inside this tool; several are merged in order")
      ->type_name("FILE")
      ->allow_extra_args(false);
}

void add_agent(CLI::App* command, polctl::PolicyOptions* options) {
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
}

void add_trace(CLI::App* command, polctl::PolicyOptions* options) {
  command
      ->add_option("--trace", options->trace,
                   "let the library trace to syslog, at debug level 0 to 4")
      ->check(CLI::Range(0, 4))
      ->option_text("LEVEL");
}

void add_live(CLI::App* command, polctl::PolicyOptions* options) {
  command
      ->add_option_function<std::vector<std::string>>(
          "--live",
          [options](const std::vector<std::string>& given) {
            bool named = !given.empty() && !given.front().empty();
            options->live = named ? given.front() : polctl::default_socket();
          },
          "ask a running \"polctl serve\" at its socket")
      ->expected(0, 1)
      ->option_text("[SOCKET]");
}

void add_agent_options(CLI::App* command, polctl::PolicyOptions* options) {
  add_config(command, options);
  add_agent(command, options);
  add_trace(command, options);
}

void add_source_options(CLI::App* command, polctl::PolicyOptions* options) {
  add_policy_file(command, options);
  add_agent_options(command, options);
  add_live(command, options);
}

void add_applied(CLI::App* command, polctl::AppliedPolicies* applied) {
  struct {
    const char* option;
    std::string* name;
    const char* help;
  } const rows[] = {
      {"--from-service", &applied->from_service,
       "the data policy for what comes from the service side"},
      {"--from-tunnel", &applied->from_tunnel, "the data policy for what comes from the tunnels"},
      {"--app-route", &applied->app_route, "the app-route policy"},
      {"--cflowd", &applied->cflowd, "the cflowd template"}};
  for (const auto& row : rows) {
    command->add_option(row.option, *row.name, row.help)->type_name("NAME");
  }
}

void require_one_source(const CLI::App* command, const polctl::PolicyOptions& options) {
  int sources = (options.policy_file.empty() ? 0 : 1) + (options.config.empty() ? 0 : 1) +
                (options.agent ? 1 : 0) + (options.live.empty() ? 0 : 1);
  if (sources == 1) return;
  std::vector<std::string> known;
  for (const char* name : {"--policy-file", "--config", "--agent", "--live"}) {
    if (command->get_option_no_throw(name) != nullptr) known.emplace_back(name);
  }
  std::string last = known.back();
  known.pop_back();
  throw polctl::InputError(std::string("polctl: error: ") +
                           (sources == 0 ? "no policy is given" : "policy is given twice") +
                           " (expected one of " + polctl::joined(known, ", ") + " and " + last +
                           ")");
}

void require_here(const polctl::PolicyOptions& options, bool given, const char* what) {
  if (options.live.empty() || !given) return;
  throw polctl::InputError(std::string("polctl: error: a running host has its own ") + what +
                           " (expected --live without)");
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

void add_graph(CLI::App& app, polctl::GraphOptions* options) {
  CLI::App* command = app.add_subcommand("graph", "Show what uses what");
  add_source_options(command, &options->source);
  command->add_option("--format", options->format, "text (default), dot for Graphviz, or json")
      ->check(CLI::IsMember({"text", "dot", "json"}))
      ->option_text("dot|json|text");
  command->footer(kGraphHelp);
}

void add_document(CLI::App& app, polctl::DocumentOptions* options) {
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

void add_labels(CLI::App& app, polctl::LabelsOptions* options) {
  CLI::App* command = app.add_subcommand("labels", "Show the labels written into data policies");
  add_agent_options(command, &options->source);
  add_live(command, &options->source);
  add_tlocs(command, &options->tlocs);
  command->add_flag("--json", options->json, "one JSON object a line for each sequence");
  command->footer("Example:\n  polctl labels --config sdwan.xml --tlocs tlocs.jsonl");
}

void add_serve(CLI::App& app, polctl::ServeOptions* options) {
  CLI::App* command =
      app.add_subcommand("serve", "Run agent, routing daemon and forwarding manager until stopped");
  add_config(command, &options->source);
  options->source.listen = YARROW_PORT;
  command
      ->add_option("--port", options->source.listen,
                   "where the agent listens (default 3010; 0 takes a free port)")
      ->type_name("PORT");
  command->add_option("--socket", options->socket, "where --live asks")->type_name("PATH");
  add_applied(command, &options->applied);
  add_tlocs(command, &options->tlocs);
  add_trace(command, &options->source);
  command->footer(kServeHelp);
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
           " (expected eval, check, diff, dump, graph, document, labels, watch or serve)\n";
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
  polctl::GraphOptions graph;
  polctl::DocumentOptions document;
  polctl::LabelsOptions labels;
  polctl::ServeOptions serve;
  add_eval(app, &eval);
  add_check(app, &files, &check);
  add_diff(app, &diff);
  add_dump(app, &dump);
  add_graph(app, &graph);
  add_document(app, &document);
  add_labels(app, &labels);
  add_watch(app, &watch);
  add_serve(app, &serve);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kBadInput;
  }
  polctl::Output out;
  if (app.got_subcommand("check")) return run_check(files, &check, &out);
  if (app.got_subcommand("diff")) return polctl::run_diff(diff, &out);
  if (app.got_subcommand("serve")) return polctl::run_serve(serve, &out);
  CLI::App* command = app.get_subcommands().front();
  if (command->get_name() == "eval") {
    require_one_source(command, eval.source);
    require_here(eval.source, !eval.tlocs.empty(), "TLOCs");
    return polctl::run_eval(eval, &out);
  }
  if (command->get_name() == "graph") {
    require_one_source(command, graph.source);
    return polctl::run_graph(graph, &out);
  }
  if (command->get_name() == "document") {
    require_one_source(command, document.source);
    require_here(document.source, !document.tlocs.empty(), "TLOCs");
    require_here(document.source, document.applied.any(), "policies applied");
    return polctl::run_document(document, &out);
  }
  if (command->get_name() == "labels") {
    require_one_source(command, labels.source);
    require_here(labels.source, !labels.tlocs.empty(), "TLOCs");
    return polctl::run_labels(labels, &out);
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
