// SPDX-License-Identifier: Apache-2.0
#include "common_options.h"

#include <CLI/CLI.hpp>

#include "host/output.h"
#include "importing/route_import.h"

namespace polctl {

void add_policy_file(CLI::App* command, PolicyOptions* options) {
  command->add_option("--policy-file", options->policy_file, "the text policy file to load")
      ->type_name("FILE");
  command->add_flag("--force", options->force, "take a policy file that has errors");
}

void add_config(CLI::App* command, PolicyOptions* options) {
  command
      ->add_option(
          "--config", options->config,
          "a configuration file for the agent inside this tool; several are merged in order")
      ->type_name("FILE")
      ->allow_extra_args(false);
}

void add_agent(CLI::App* command, PolicyOptions* options) {
  command
      ->add_flag("--agent", options->agent_port,
                 "take the configuration of a running agent (port 3010, or YARROW_IPC_PORT)")
      ->option_text("[=PORT]");
}

void add_trace(CLI::App* command, PolicyOptions* options) {
  command
      ->add_option("--trace", options->trace,
                   "let the library trace to syslog, at debug level 0 to 4")
      ->check(CLI::Range(0, 4))
      ->option_text("LEVEL");
}

void add_live(CLI::App* command, PolicyOptions* options) {
  command->add_flag("--live", options->live, "ask a running \"polctl serve\" at its socket")
      ->option_text("[=SOCKET]");
}

void add_agent_options(CLI::App* command, PolicyOptions* options) {
  add_config(command, options);
  add_agent(command, options);
  add_trace(command, options);
}

void add_source_options(CLI::App* command, PolicyOptions* options) {
  add_policy_file(command, options);
  add_agent_options(command, options);
  add_live(command, options);
}

void add_applied(CLI::App* command, AppliedPolicies* applied) {
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

void add_direction(CLI::App* command, uint32_t* direction, const char* help) {
  command
      ->add_option_function<std::string>(
          "--direction",
          [direction](const std::string& word) {
            *direction = word == "in" ? POL_DIR_IN : POL_DIR_OUT;
          },
          help)
      ->check(CLI::IsMember({"in", "out"}))
      ->option_text("in|out");
}

void add_tlocs(CLI::App* command, std::string* tlocs) {
  command
      ->add_option("--tlocs", *tlocs, "the TLOCs that resolve; without it each resolves to itself")
      ->type_name("FILE");
}

void add_limits(CLI::App* command, std::vector<std::string>* limits) {
  command
      ->add_option("--limit", *limits,
                   "what a proof may take before the answer is \"not known\" (60s, 400MB)")
      ->option_text("SECONDSs|MEGABYTESMB")
      ->allow_extra_args(false);
}

void add_routes_format(CLI::App* command, std::string* format) {
  command
      ->add_option("--routes-format", *format,
                   "what --routes is: " + joined(route_formats(), ", ") + "; the first by default")
      ->check(CLI::IsMember(route_formats()))
      ->option_text("FORMAT");
}

void add_json(CLI::App* command, bool* json, const char* help) {
  command->add_flag("--json", *json, help);
  command
      ->add_option_function<std::string>(
          "--format", [json](const std::string& word) { *json = word == "json"; },
          "text (default) or json, which is --json")
      ->check(CLI::IsMember({"text", "json"}))
      ->option_text("text|json");
}

void add_jobs(CLI::App* command, uint32_t* jobs) {
  *jobs = 0;
  command->add_option("--jobs", *jobs, "evaluate on so many threads (default: one a processor)")
      ->check(CLI::Range(1, 256))
      ->option_text("N");
}

void add_kind(CLI::App* command, uint32_t* kind) {
  command
      ->add_option_function<std::string>(
          "--kind",
          [kind](const std::string& word) {
            *kind = word == "route" ? POL_KIND_ROUTE : POL_KIND_MEMBERSHIP;
          },
          "the policy's kind: route (default) or membership")
      ->check(CLI::IsMember({"route", "membership"}))
      ->option_text("KIND");
}

}  // namespace polctl
