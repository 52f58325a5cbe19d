/* SPDX-License-Identifier: Apache-2.0
 *
 * common_options.h - the options that several commands take, by the same names everywhere.
 */
#ifndef TOOL_COMMON_OPTIONS_H
#define TOOL_COMMON_OPTIONS_H

#include <cstdint>
#include <string>
#include <vector>

#include "commands.h"

namespace CLI {
class App;
}

namespace polctl {

/* Where policy comes from: all of it, or one by one. */
void add_source_options(CLI::App* command, PolicyOptions* options);
void add_agent_options(CLI::App* command, PolicyOptions* options);
void add_policy_file(CLI::App* command, PolicyOptions* options);
void add_config(CLI::App* command, PolicyOptions* options);
void add_agent(CLI::App* command, PolicyOptions* options);
void add_live(CLI::App* command, PolicyOptions* options);
void add_trace(CLI::App* command, PolicyOptions* options);

/* How policies are used. */
void add_applied(CLI::App* command, AppliedPolicies* applied);
void add_direction(CLI::App* command, uint32_t* direction, const char* help);
void add_kind(CLI::App* command, uint32_t* kind);
void add_tlocs(CLI::App* command, std::string* tlocs);
inline constexpr const char* kDirectionHelp =
    "the policy is applied to what comes in (default) or goes out";

/* What routes are, and what may be spent on them. */
void add_routes_format(CLI::App* command, std::string* format);
void add_jobs(CLI::App* command, uint32_t* jobs);
void add_limits(CLI::App* command, std::vector<std::string>* limits);

/* --json, and --format json by the same name everywhere. */
void add_json(CLI::App* command, bool* json, const char* help);

}  // namespace polctl

#endif
