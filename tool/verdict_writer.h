/* SPDX-License-Identifier: Apache-2.0
 *
 * verdict_writer.h - what a policy said about one route, for programs and for people.
 */
#ifndef TOOL_VERDICT_WRITER_H
#define TOOL_VERDICT_WRITER_H

#include <cstdint>
#include <string>
#include <vector>

#include "host/output.h"
#include "policy/pol_exec.h"
#include "terminal.h"

namespace polctl {

/* One step of an explanation; `reason` is a copy. */
struct Step {
  t_pol_explain_step step;
  std::string reason;
};

struct Verdict {
  uint64_t index = 0; /* of the route, from 0 */
  const t_pol_route_query* query = nullptr;
  uint32_t action = 0;
  t_pol_explain_step decision = {};
  uint32_t direction = 0;  /* enum pol_direction in which the policy was applied */
  std::vector<Step> steps; /* empty unless an explanation was asked for */
};

/* "10.1.0.0/16", "tloc 10.0.0.1 : mpls : ipsec", "service 10.1.0.0/16", or its number when a route
 * has neither prefix nor TLOC. */
std::string route_text(const Verdict& verdict);
/* The same with VPN and site, where it has them: "10.1.0.0/16 vpn 10 site 301". */
std::string route_text_in_full(const Verdict& verdict);

/* A set clause of what decided that did not act. */
struct Idle {
  const char* word; /* of configuration */
  const char* why;
};
std::vector<Idle> idle_sets(const Verdict& verdict);

/* What a route was given: all TLOCs and VPN ranges, ", " between them; "" for none. */
std::string tlocs_text(const t_pol_route_query& query);
std::string vpns_text(const t_pol_route_query& query);

/* One object on one line. Every member is always there; "steps" only with an explanation. */
void write_json(const Verdict& verdict, Output* out);

/* A row for a table of routes, of as many cells as verdict_heading(). */
std::vector<Table::Cell> verdict_heading();
std::vector<Table::Cell> verdict_row(const Verdict& verdict);

/* The route, a line for every sequence tried and one for the decision. */
void write_explanation(const Verdict& verdict, Output* out, const Palette& palette);

}  // namespace polctl

#endif
