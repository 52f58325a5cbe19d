/* SPDX-License-Identifier: Apache-2.0
 *
 * commands.h - polctl's commands. Each returns an ExitStatus and throws InputError.
 */
#ifndef TOOL_COMMANDS_H
#define TOOL_COMMANDS_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/counters.h"
#include "host/forwarding.h"
#include "host/output.h"
#include "host/policy_source.h"
#include "policy/pol_types.h"

namespace polctl {

/* Every command that a running host answers too (polctl serve) has two halves: run_ finds its policy
 * and answers, or asks the host; answer_ only answers. */

struct EvalOptions {
  PolicyOptions source;
  std::string policy;
  uint32_t kind = POL_KIND_ROUTE;
  uint32_t direction = POL_DIR_NONE; /* none given: inbound, and told where it matters */
  std::string routes = "-";          /* "-" is standard input */
  std::string routes_name;           /* what messages call them, unless "" */
  std::string routes_format;         /* of tool/importing; "": json-lines */
  std::vector<std::string> route;    /* instead of a file: prefix=10.1.0.0/16,site=302 */
  std::string tlocs;                 /* empty: each TLOC resolves to itself */
  bool json = false;
  bool explain = false;
  uint32_t jobs = 1; /* threads that evaluate; 0: one a processor */
};

/* Runs routes through a policy. kDone whatever the verdicts are: they are the answer. */
int run_eval(const EvalOptions& options, Output* out);
/* `decisions`, unless null, counts what was answered, also where it ends with an error. */
int answer_eval(const EvalOptions& options, Output* out, Decisions* decisions = nullptr);

struct SearchOptions {
  PolicyOptions source;
  std::string policy;
  uint32_t kind = POL_KIND_ROUTE;
  uint32_t direction = POL_DIR_NONE; /* as of eval */
  uint32_t action = 0;               /* enum pol_action; 0: either */
  std::string sequence;              /* its number, or "default"; "": any */
  std::vector<std::string> where;    /* conditions (proof/condition.h), which all hold */
  std::vector<std::string> limits;   /* of memory and time */
  bool all = false;                  /* every kind of route, not one a sequence */
  bool json = false;
};

/* Says whether there is a route that fits, and shows one a sequence. kFindings when there is none. */
int run_search(const SearchOptions& options, Output* out);
int answer_search(const SearchOptions& options, Output* out);

struct TestOptions {
  PolicyOptions source;
  std::vector<std::string> files;
  std::vector<std::string> names;    /* what messages call them, where not by their paths */
  std::vector<std::string> sizes;    /* of a request: bytes of each part of its input */
  uint32_t direction = POL_DIR_NONE; /* of tests that say none */
  std::string tlocs;
  std::string format = "text"; /* or "json", "junit", "tap" */
  bool explain = false;
  bool coverage = false;
  std::vector<std::string> limits; /* bounds of each statement about all routes */
  std::string routes;              /* asked too, for the coverage; "": none */
  std::string routes_name;
  std::string routes_format; /* as of eval */
};

/* Tries what policies are expected to say. kFindings when any test fails. */
int run_test(const TestOptions& options, Output* out);
int answer_test(const TestOptions& options, Output* out);
/* Of a request: the files are in its input. */
int answer_test(TestOptions options, const std::string& input, Output* out);

struct CheckOptions {
  PolicyOptions source;           /* of a running agent or host its configuration; or none */
  std::vector<std::string> files; /* configuration, merged in order, or one policy file; or none */
  uint32_t direction = POL_DIR_NONE; /* in which policies are applied; NONE: not known */
  bool json = false;
  bool strict = false;             /* warnings count as errors do */
  bool proofs = true;              /* what only a look at every route there can be tells, too */
  std::vector<std::string> limits; /* of memory and time, for that */
  bool all = false;                /* however many findings */
};

/* Says what is wrong with a policy file or with configuration. kFindings when there are errors. */
int run_check(const CheckOptions& options, Output* out);

struct DumpOptions {
  PolicyOptions source;
  std::string topic = "all";
};

/* Prints what the library holds once the policy is loaded. */
int run_dump(const DumpOptions& options, Output* out);
int answer_dump(const DumpOptions& options, Output* out);

struct GraphOptions {
  PolicyOptions source;
  std::string format = "text"; /* or "dot" or "json" */
};

/* Shows what uses what, what is undefined and what is unused. */
int run_graph(const GraphOptions& options, Output* out);
int answer_graph(const GraphOptions& options, const PolicySource& source, Output* out);

struct DocumentOptions {
  PolicyOptions source;
  AppliedPolicies applied; /* of a running host: its own count */
  std::string tlocs;
  bool pretty = false;
  bool show_data = false; /* publish it, say what the agent shows, and clear that */
};

/* Prints the XML document for the applied policies. */
int run_document(DocumentOptions options, Output* out);
int answer_document(const DocumentOptions& options, const ForwardingManager& manager, Output* out);

struct LabelsOptions {
  PolicyOptions source;
  std::string tlocs;
  bool json = false;
};

/* Shows the labels that the agent's configuration holds. */
int run_labels(LabelsOptions options, Output* out);
int answer_labels(const LabelsOptions& options, ConfigSession* session, Output* out);

struct ShowOptions {
  PolicyOptions source;        /* a running host; "policy" and "lists" of an agent too, uncounted */
  std::string what = "status"; /* or "policy", "lists", "commits" */
  std::string name;            /* of the policy */
  bool json = false;
};

/* Shows how a running host is and what it counted. */
int run_show(const ShowOptions& options, Output* out);

struct ClearOptions {
  PolicyOptions source;
  std::string what = "counters";
};

/* Has a running host count from 0 again. */
int run_clear(const ClearOptions& options, Output* out);

struct ReportOptions {
  PolicyOptions source;
  std::string file; /* "-": standard output */
};

/* Writes a page of the policy as one file: graph, policies, findings. */
int run_report(const ReportOptions& options, Output* out);

struct ServeOptions {
  PolicyOptions source;
  AppliedPolicies applied;
  std::string tlocs;
  std::string socket;
  std::string http;                           /* where the page is served; "": nowhere */
  std::vector<std::string> http_hosts;        /* names it is reached by besides */
  std::map<std::string, uint32_t> directions; /* by policy; inbound where none is given */
  std::string log;    /* where events go, as service::log_target_of knows it; "": standard output */
  std::string routes; /* of the routing daemon; "": it has none */
  std::string routes_format; /* as of eval */
  bool announce = false;     /* tell of each commit which routes are answered otherwise */
  std::string options_file;  /* where more options stand */
  bool print_config = false;
};

/* Keeps agent and host running until SIGINT or SIGTERM, and answers the other commands. */
int run_serve(ServeOptions options, Output* out);

struct DiffOptions {
  std::string
      old_file; /* each a policy file or configuration, as its content tells; "": `source` */
  std::string new_file;
  std::string policy;                /* empty: the only route policy there is in both */
  uint32_t direction = POL_DIR_NONE; /* as of eval */
  std::string routes;                /* empty: of every route there can be */
  std::string routes_format;         /* as of eval */
  std::vector<std::string> limits;   /* of memory and time, without routes */
  PolicyOptions source;              /* of the old policy, in place of a file */
  bool force = false;                /* take policy files that have errors */
  std::string tlocs;
  bool json = false;
  uint32_t jobs = 1; /* as of eval */
};

/* Runs routes through two versions of a policy, or compares them over all routes. kFindings when any is
 * answered differently. */
int run_diff(const DiffOptions& options, Output* out);

/* How a file is loaded that is either, as its content tells; and the old policy of a diff. Throw
 * InputError. */
PolicyOptions source_of(const std::string& file, bool force);
PolicyOptions old_source(const DiffOptions& options);

struct ConvertOptions {
  std::string file;
  std::string to = "set"; /* or "tree", "xml", "json", "text" (a policy file) */
};

/* Writes policy or configuration in another form, or says what that form cannot say. */
int run_convert(const ConvertOptions& options, Output* out);

struct CommandRow;

struct ShellOptions {
  PolicyOptions source;           /* a running agent, or a running host and its agent */
  std::string file;               /* of commands; "": standard input */
  bool keep_going = false;        /* tell what is wrong with later lines of a script too */
  std::vector<std::string> words; /* one command alone */
  bool announce = false;          /* each commit tells which kinds of routes it answers otherwise */
  bool interactive = false;       /* standard input is not the script */
  const std::vector<CommandRow>* commands = nullptr; /* the tool's */
};

/* An operator's shell at an agent, a script for it, or one of its commands. */
int run_shell(const ShellOptions& options, Output* out);

/* Whether the words are a command of the shell's, which the command line does not know; its source, if
 * they name one, is taken out of them. */
bool take_shell_words(std::vector<std::string> words, ShellOptions* options);

struct WatchOptions {
  PolicyOptions source;
  std::vector<std::string> policies; /* control policies to use; none: all there are */
  std::vector<std::string> change;   /* configuration files to commit; none: wait for others' */
  bool json = false;
  bool reconnect = false; /* to an agent that went, rather than end */
};

/* Registers a user for each policy and shows each commit: what it changed, whom it had called back, and
 * when. kFindings once the agent goes. */
int run_watch(const WatchOptions& options, Output* out);

/* A policy as a command's options say; who waits long is told. Throws InputError. */
PolicySource load_policy(const PolicyOptions& options);

/* What DumpOptions::topic may be. */
std::vector<std::string> dump_topics();

}  // namespace polctl

#endif
