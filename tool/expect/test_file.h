/* SPDX-License-Identifier: Apache-2.0
 *
 * test_file.h - what a policy is expected to say, from text: JSON Lines, each a route as RouteReader
 * takes it, with the policy that is asked and what is expected of the answer; or a policy and what it must
 * never do.
 */
#ifndef TOOL_EXPECT_TEST_FILE_H
#define TOOL_EXPECT_TEST_FILE_H

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tool/route_reader.h"

namespace polctl {

/* A number that is set, or that none is. */
struct ExpectedNumber {
  bool looked_at = false;
  std::optional<uint32_t> value;
};

struct ExpectedTloc {
  t_tloc_id tloc = {};
  std::optional<uint32_t> color; /* what is not there is not looked at */
  std::optional<uint32_t> encap;
  std::optional<uint32_t> label;
  std::optional<uint32_t> preference;
};

using VpnRanges = std::vector<std::pair<uint64_t, uint64_t>>;

/* What is not there is not looked at. */
struct Expected {
  std::optional<uint32_t> action;
  ExpectedNumber sequence; /* no value: the default action decides */
  ExpectedNumber tag;
  ExpectedNumber preference;
  std::optional<std::vector<ExpectedTloc>> tlocs; /* all of them, in any order */
  std::optional<VpnRanges> vpns;
};

/* What must not be, whatever the route. */
struct Never {
  std::optional<uint32_t> action;
  ExpectedNumber sequence; /* no value: the default action */
  std::vector<std::string> where;
};

struct TestCase {
  uint64_t line = 0;
  std::string name; /* "": it has none */
  std::string policy;
  uint32_t kind = 0;      /* enum pol_kind */
  uint32_t direction = 0; /* enum pol_direction; NONE: it says none */
  Expected expected;
  std::optional<Never> never; /* then nothing is expected, and there is no route */
};

class TestFile {
 public:
  /* Messages call the file `name` unless that is "". Throws InputError. */
  explicit TestFile(const std::string& path, const std::string& name) : lines_(path, name) {}

  /* Fills the test, the host's part of the query, which the caller has cleared, and all of `attr`. False
   * at the end. Throws InputError naming file, line and column of what is wrong. */
  bool next(TestCase* test, t_pol_route_query* query, t_pol_route_attr* attr);

  const std::string& name() const { return lines_.name(); }
  /* Where a member of the last test stands, for messages: "tests.jsonl:3:11". */
  std::string place(const char* member) const;

 private:
  void read(TestCase* test, t_pol_route_query* query, t_pol_route_attr* attr);

  LineReader lines_;
  size_t start_ = 0; /* of the object in the line */
  JsonLine all_;
  JsonLine route_; /* those of the fields that are the route's */
};

}  // namespace polctl

#endif
