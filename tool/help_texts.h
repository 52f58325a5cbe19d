/* SPDX-License-Identifier: Apache-2.0
 *
 * help_texts.h - what stands below the options in the help of each command.
 */
#ifndef TOOL_HELP_TEXTS_H
#define TOOL_HELP_TEXTS_H

namespace polctl {

inline constexpr const char* kExitStatuses =
    "Exit status: 0 done; 1 the answer is no, or there are errors to report;\n2 bad usage or "
    "input.";

inline constexpr const char* kEvalHelp = R"(Examples:
  echo 10.1.0.0/16 | polctl eval --policy-file branch.txt --policy branch
  polctl eval --policy-file branch.txt --policy branch --routes routes.jsonl --explain
  polctl eval --policy-file branch.txt --policy branch --routes routes.jsonl --json

Routes are bare prefixes or JSON objects, one a line, mixed at will. Of an object
every member but the type is optional; what is not there the route does not have:
  {"type":"route", "prefix":"10.1.0.0/16", "vpn":1, "tag":5, "preference":100,
   "domain":1, "site":10, "groups":[1,2], "originator":"10.0.0.9", "carrier":3,
   "tloc":{"address":"10.0.0.1", "color":"internet", "encap":"ipsec"},
   "origin":"ospf-inter-area"}
The type is "route", "tloc" or "service". TLOCs of --tlocs, one a line:
  {"address":"10.0.0.1", "color":"mpls", "encap":"gre", "label":7, "preference":50}
Where the configuration has words, numbers are taken too. --route has the same
members, type=route being the default; a TLOC's are tloc, color and encap, and each
group is its own: --route tloc=10.0.0.1,color=mpls,group=1,group=2,origin=4/2

--routes-format takes CSV whose first line names its columns as --route does, what
"ip -j route" prints, and routing tables in MRT (TABLE_DUMP_V2).

A membership policy is asked about a VPN alone:
  {"type":"service", "vpn":10}

Up to 20 routes are answered one by one, more by a summary by sequence; --json
answers each. The exit status is 0 whatever the policy decides.)";

inline constexpr const char* kTestHelp = R"(Examples:
  polctl test branch.jsonl --config sdwan.xml
  polctl test branch.jsonl guest.jsonl --policy-file branch.txt --format junit
  polctl test branch.jsonl --config sdwan.xml --coverage --routes routes.txt

A test is a line: a route as "polctl help eval" tells, the policy that is asked, and
what is expected of the answer. What is left out is not looked at:
  {"type":"route", "prefix":"10.30.1.0/24", "site":301, "vpn":10,
   "policy":"branch", "direction":"in", "name":"spokes reach each other",
   "expect":{"action":"accept", "sequence":60, "set":{"preference":300, "tag":null},
             "tlocs":[{"address":"172.16.1.1", "color":"mpls"}], "vpns":[[10,19]]}}
A sequence of null is the default action, a tag or preference of null is not set.
"kind":"membership" asks a membership policy. Or a line says what must never be,
whatever the route; its conditions are those of "polctl help search":
  {"policy":"branch", "never":{"action":"accept", "where":["type=route", "tag=666"]}}

Reached is a sequence that decided, a clause that held, a list element that took a
value. The routes of --routes are asked of every control policy. The exit status is
1 when any test fails.)";

inline constexpr const char* kCheckHelp = R"(Examples:
  polctl check sdwan.xml country-lists.xml
  polctl check --policy-file branch.txt --json
  polctl check --live

Reports every error and every warning, each with its place: line and column, and
the path in configuration. Where there are no errors, what every route there can
be would tell is proved: sequences that never decide or could go, list elements
that others cover, defaults that no route reaches, equal policies; --no-proofs
does without. The exit status is 1 when there are errors; with --strict for
warnings too. In which direction a policy is applied configuration
does not say: --direction tells, and what is then set in vain is warned of.)";

inline constexpr const char* kConvertHelp = R"(Examples:
  polctl convert sdwan.xml
  polctl convert branch.txt --to xml > branch.xml
  polctl convert sdwan.set --to json

Reads XML, JSON, set-lines or a policy file, as its content tells. What the other
form cannot say is an error with its line: nothing is left out.)";

inline constexpr const char* kMainHelp = R"(Examples:
  polctl check --policy-file branch.txt
  echo 10.1.0.0/16 | polctl eval --policy-file branch.txt --policy branch --explain
  polctl dump --policy-file branch.txt prefix-lists

"polctl help COMMAND" tells the options of a command, "polctl version" the version.)";

inline constexpr const char* kDiffHelp = R"(Examples:
  polctl diff old.xml new.xml
  polctl diff old.xml new.xml --policy branch --routes routes.jsonl
  polctl diff --agent candidate.xml

Each file is a policy file or configuration, as its content tells. Without
--routes every route there can be is considered: each kind of routes that is
answered differently is shown by the sequences that decide it, what of a route
matters, and one such route. The exit status is 0 when nothing is answered
differently, which is a proof, 1 when something is, and 4 when it is not known.
An answer is the action and what is set; which sequence gives it is not.

With --routes every route of these that is answered differently is shown: both
verdicts, what decided, and what is set differently; more than 20 such routes are
summed up. The exit status is 1 when any route differs.)";

inline constexpr const char* kSearchHelp = R"(Examples:
  polctl search --config sdwan.xml --policy branch --action accept --where tag=666
  polctl search --policy-file branch.txt --policy branch --sequence 40
  polctl search --live --policy branch --where prefix=10.0.0.0/8-24 --where "not site-list=hubs"

Shows a route for each sequence that decides such routes, as eval --routes takes
it, with what matters of it. FIELD is type, prefix, vpn, tag, preference,
domain, site, group, tloc, color, origin, originator or carrier, or prefix-list,
site-list, vpn-list, tloc-list or color-list with the name of one. Numbers may be
ranges (vpn=1-9), a prefix may have a longest length (10.0.0.0/8-24); "absent"
stands for what a route lacks, a tloc is ADDRESS,COLOR,ENCAPSULATION.
The exit status is 0 when there is one, 1 when there is none, which is a proof,
and 4 when it is not known.)";

inline constexpr const char* kWatchHelp = R"(Examples:
  polctl watch --config sdwan.xml --change edit.xml
  polctl watch --agent --policy branch

Registers a user for each control policy named, or for all. With --change the
files are committed, and the batch of changes and every callback are shown with
their time since the commit began. Without it every commit that others make is
shown: number, time, what it changed as set-lines, whom it had called back.
When the agent goes, the exit status is 1, unless --reconnect waits for it.)";

inline constexpr const char* kGraphHelp = R"(Examples:
  polctl graph --config sdwan.xml
  polctl graph --config sdwan.xml --format dot | dot -Tsvg > policy.svg
  polctl graph --live --format json

Lists, objects, policies with their VPN lists and sequences, and registered
users. What is used without being configured is marked as undefined, what is
configured and used by nobody as unused.)";

inline constexpr const char* kDocumentHelp = R"(Examples:
  polctl document --config sdwan.xml --pretty
  polctl document --config sdwan.xml --from-service branch --app-route voice
  polctl document --live

Without the name of a policy, the only one of each kind is applied, a data policy
in both directions. With --live the running host's own are.)";

inline constexpr const char* kShowHelp = R"(Examples:
  polctl show configuration policy lists --format set
  polctl show policy branch
  polctl show --live
  polctl show lists --live --json

Without --live an agent is asked. Of a running host, status: agent, last commit,
worker, what was counted; policy: its sequences as configured, and what each
decided; lists: elements and users; commits: the last 50 with what they changed.
"polctl clear counters --live" counts from 0 again.
  show configuration [PATH] [| compare [N]] [--format tree|set|xml|json])";

inline constexpr const char* kShellHelp = R"(Examples:
  polctl shell
  polctl shell --agent=3011 commands.txt
  polctl show configuration --format set
  polctl set policy control-policy branch default-action accept
  polctl commit

On a terminal with editing, history and completion; ? tells what may come next. A
script is tried first and stops at its first wrong line: nothing of it is then
committed. Each command may be given alone: show, save, and with a commit behind
them set, delete, copy, load and rollback; "commit" confirms what waits for it.)";

inline constexpr const char* kServeHelp = R"(Examples:
  polctl serve --config sdwan.xml --tlocs tlocs.jsonl &
  polctl labels --live
  polctl watch --agent --change edit.xml

Follows every commit that is made at the agent. SIGHUP reads TLOCs and routes
again; SIGINT and SIGTERM end it. Each control and membership policy is used
inbound unless --apply NAME:out says otherwise. Routes are decided at the start
and again whenever a policy calls back: what changed is told and counted.)";

}  // namespace polctl

#endif
