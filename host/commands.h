/* SPDX-License-Identifier: Apache-2.0
 *
 * commands.h - polctl's commands. Each returns an ExitStatus and throws InputError.
 */
#ifndef HOST_COMMANDS_H
#define HOST_COMMANDS_H

#include <cstdint>
#include <string>
#include <vector>

#include "output.h"
#include "policy/pol_types.h"
#include "policy_source.h"

namespace polctl {

struct EvalOptions {
  PolicyOptions source;
  std::string policy;
  uint32_t kind = POL_KIND_ROUTE;
  uint32_t direction = POL_DIR_IN;
  std::string routes = "-"; /* "-" is standard input */
  std::string tlocs;        /* empty: each TLOC resolves to itself */
  bool json = false;
  bool explain = false;
};

/* Runs routes through a policy. kDone whatever the verdicts are: they are the answer. */
int run_eval(const EvalOptions& options, Output* out);

struct CheckOptions {
  std::string policy_file;
  std::vector<std::string> config; /* configuration files, merged in order; then no policy file */
  bool json = false;
};

/* Says what is wrong with a policy file or with configuration. kFindings when there is something. */
int run_check(const CheckOptions& options, Output* out);
int run_check_config(const CheckOptions& options, Output* out);

struct DumpOptions {
  PolicyOptions source;
  std::string topic = "all";
};

/* Prints what the library holds once the policy is loaded. */
int run_dump(const DumpOptions& options, Output* out);

struct DiffOptions {
  std::string old_file; /* each a policy file or configuration, as its content tells */
  std::string new_file;
  std::string policy; /* empty: the only route policy there is in both */
  uint32_t direction = POL_DIR_IN;
  std::string routes;
  std::string tlocs;
  bool json = false;
};

/* Runs routes through two versions of a policy. kFindings when any of them is answered differently. */
int run_diff(const DiffOptions& options, Output* out);

struct WatchOptions {
  PolicyOptions source;
  std::vector<std::string> policies; /* control policies to use; none: all there are */
  std::vector<std::string> change;   /* configuration files to commit; none: wait for others' */
};

/* Registers a user for each policy and shows what each commit has it told, and when. */
int run_watch(const WatchOptions& options, Output* out);

/* What DumpOptions::topic may be. */
std::vector<std::string> dump_topics();

}  // namespace polctl

#endif
