/* SPDX-License-Identifier: Apache-2.0
 *
 * coverage.h - which sequences, clauses and list elements routes reached.
 *
 * A sequence is reached when it decides, a clause when it holds, an element when it takes a value for
 * which a clause holds: each has then done its work at least once. Counted are control and membership
 * policies and the lists that their clauses match; of several elements that take a value, the one that
 * the library names.
 */
#ifndef TOOL_EXPECT_COVERAGE_H
#define TOOL_EXPECT_COVERAGE_H

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "host/output.h"
#include "policy/pol_content.h"
#include "policy/pol_exec.h"

namespace polctl {

struct ClauseCoverage {
  uint32_t clause = 0; /* POL_MATCH_F_* */
  uint64_t held = 0;
  uint64_t failed = 0;
};

struct SequenceCoverage {
  uint32_t sequence = 0;
  bool is_default = false;
  uint64_t decided = 0;
  std::vector<ClauseCoverage> clauses; /* in the order of their testing */

  std::string name() const; /* "10", "default" */
};

struct PolicyCoverage {
  std::string name;
  uint32_t kind = 0;
  std::vector<SequenceCoverage> sequences; /* the default action last */
};

struct ListCoverage {
  uint32_t type = 0; /* enum pol_graph_type */
  std::string name;
  std::vector<std::pair<std::string, bool>> elements; /* in words; whether reached */
  uint64_t reached = 0;
};

class Coverage {
 public:
  /* Reads what there is to reach off the process's context. */
  Coverage();

  /* Asks the policy's user and counts. REQUIRES: a prepared query, asked nothing yet. */
  void ask(const std::string& policy, uint32_t kind, t_pol_user* user, t_pol_route_query* query);

  const std::vector<PolicyCoverage>& policies() const { return policies_; }
  const std::vector<ListCoverage>& lists() const { return lists_; }

 private:
  struct Reader;
  struct Asking;
  struct ListPlace {
    size_t at; /* in lists_ */
    std::map<std::string, size_t> elements;
  };

  std::vector<PolicyCoverage> policies_;
  std::vector<ListCoverage> lists_;
  std::map<const void*, ListPlace> places_;
};

/* Tables, and one JSON object on a line. */
void write_coverage_text(const Coverage& coverage, Output* out);
void write_coverage_json(const Coverage& coverage, Output* out);

}  // namespace polctl

#endif
