// SPDX-License-Identifier: Apache-2.0
#include "rig.h"

#include <algorithm>
#include <map>
#include <regex>
#include <sstream>
#include <vector>

#include "policy/pol_dump.h"
#include "yarrow/yarrow_schema.h"

namespace test {

namespace {

int append(void* arg, const char* text, size_t length) {
  static_cast<std::string*>(arg)->append(text, length);
  return 0;
}

// A list that lost its last element stays until its configuration goes, where one that never had any
// was never made. Both match nothing. An object that lost its last user goes, where one that never had
// any stays. Neither does anything.
void drop_empty_lists(std::string* dump) {
  static const std::map<std::string, std::string> types = {
      {"vpn-list", "4"},  {"tloc-list", "5"},   {"fwd-prefix-list", "6"}, {"fwd-prefix6-list", "7"},
      {"sla-class", "8"}, {"fwd-policer", "9"}, {"app-list", "10"}};
  const std::regex empty("([a-z6-]+): (\\S+) \\(PTR\\)\nend \n");
  std::smatch found;
  while (std::regex_search(*dump, found, empty)) {
    auto known = types.find(found[1]);
    std::string type = known != types.end() ? known->second : "none";
    std::string text = "Name: " + found[2].str() + ", Type: " + type + ", Size: 0\nXML: \n";
    dump->erase(static_cast<size_t>(found.position()), static_cast<size_t>(found.length()));
    size_t at = dump->find(text);
    if (at != std::string::npos) dump->erase(at, text.size());
  }
  *dump = std::regex_replace(
      *dump,
      std::regex("\n(entry appid|policer|sla class|pol-yarrow-thrd-args|.*list|policy "
                 "config|Thread Idx:\\d,) .*"),
      "");
}

// Without what histories may differ in: addresses, allocations that were made and freed again,
// whether a list's text is to be fetched again, and the order in lists.
std::string comparable(std::string dump) {
  dump = std::regex_replace(dump, std::regex("(0x)?0x[0-9a-f]{7,}(, [01])?"), "PTR");
  dump =
      std::regex_replace(dump, std::regex("( +(no|yes)) +\\d+ +\\d+ +\\d+ +(\\d+) *\n"), "$1 $3\n");
  drop_empty_lists(&dump);
  std::istringstream lines(dump);
  std::string sorted;
  std::vector<std::string> run;
  bool in_lists = true;
  const std::regex title("^ {4,}[A-Z][A-Z0-9 ]+ *$");
  const std::regex element("^ {2,4}[a-zA-Z]");
  auto flush = [&] {
    std::sort(run.begin(), run.end());
    for (const std::string& line : run) sorted += line + "\n";
    run.clear();
  };
  for (std::string line; std::getline(lines, line);) {
    if (line.empty()) continue;
    if (std::regex_search(line, title)) in_lists = line.find("POLICIES") == std::string::npos;
    if (in_lists ? std::regex_search(line, element) : line.starts_with("        TLOC: ")) {
      run.push_back(line);
      continue;
    }
    flush();
    sorted += line + "\n";
  }
  flush();
  return sorted;
}

}  // namespace

Rig::Rig() : session_(agent_.port()) {
  EXPECT_EQ(why(yarrow_load_schemas(session_.addr(), session_.addr_len())), "ok");
  feed_ = std::make_unique<polctl::ConfigFeed>(agent_.port());
  polctl::set_worker_port(unreachable_.port());
  t_pol_callbacks callbacks = {};
  pol_init(&callbacks);
  walk_ = std::make_unique<polctl::ConfigWalk>(g_pol_ctx_p);
  EXPECT_EQ(feed_->next(10'000, walk_.get()), 0);
}

Rig::~Rig() {
  walk_->release();
  pol_destroy();
  unsetenv(YARROW_PORT_VARIABLE);
}

bool Rig::commit() {
  if (maapi_candidate_commit(session_.fd()) == YARROW_OK) return true;
  EXPECT_EQ(yarrow_errno, YARROW_ERR_INVALID) << why(YARROW_ERR);
  EXPECT_EQ(why(maapi_candidate_reset(session_.fd())), "ok");
  return false;
}

void Rig::follow() {
  for (int64_t now = maapi_commit_id(session_.fd()); followed_ < now; ++followed_) {
    ASSERT_GT(feed_->next(10'000, walk_.get()), 0);
  }
}

void Rig::commit_and_follow(const std::string& xml) {
  ASSERT_EQ(why(session_.commit(xml)), "ok");
  follow();
}

std::pair<std::string, std::string> Rig::states() const {
  std::string followed;
  t_cli_user_ctx cli = {append, &followed};
  pol_dump_all(&cli, 0, 0, nullptr);

  Outcome fresh = run_polctl({{"dump", "all", "--agent=" + std::to_string(agent_.port())}, ""});
  EXPECT_EQ(fresh.status, 0) << fresh.err;
  return {comparable(std::move(followed)), comparable(std::move(fresh.out))};
}

}  // namespace test
