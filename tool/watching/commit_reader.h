/* SPDX-License-Identifier: Apache-2.0
 *
 * commit_reader.h - what a commit changed, as set-lines old and new, from the agent's own history: it
 * keeps the configurations that rollback reaches. And, for who looks and waits a little, how it is now.
 */
#ifndef TOOL_WATCHING_COMMIT_READER_H
#define TOOL_WATCHING_COMMIT_READER_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "host/agent_link.h"
#include "tool/watching/changed_entries.h"
#include "tool/watching/configured_policy.h"

namespace polctl {

struct CommitDetail {
  std::string user; /* as the agent noted them; "": not known */
  std::string client;
  std::string comment;
  std::vector<std::string> lines; /* "- set ..." and "+ set ..." */
  std::string problem;            /* why there are none; "": there are */
};

/* Reads the entries before and after the commit; beyond kEntriesRead of them a line says how many are
 * left out. `from` is the commit that the batch before told of: a batch may tell of several. The
 * session has no edits, and looks elsewhere afterwards. Problems with the agent, and a commit that is
 * not kept any more, are the detail's. */
inline constexpr size_t kEntriesRead = 100;
CommitDetail read_commit(ConfigSession* session, int64_t from, int64_t number,
                         const std::vector<ChangedEntry>& entries);

/* Asks the agent in a thread of its own, for a host that waits for nobody. */
class CommitReader {
 public:
  explicit CommitReader(uint16_t port);
  ~CommitReader();
  CommitReader(const CommitReader&) = delete;
  CommitReader& operator=(const CommitReader&) = delete;

  /* Beyond kAsked that wait, the oldest goes unread. */
  void ask(int64_t from, int64_t number, std::vector<ChangedEntry> entries);
  /* What has been read since the last call, by commit. */
  std::map<int64_t, CommitDetail> take();

  /* The agent's sessions but for this reader's; -1 where that is not known in time. */
  int64_t sessions();
  /* The policies of that name as they run; none where that is not known in time. */
  ConfiguredPolicies configured(const std::string& policy);

 private:
  static constexpr auto kPatience = std::chrono::milliseconds(200);
  static constexpr size_t kAsked = 50;
  struct Question {
    int64_t from;
    int64_t number;
    std::vector<ChangedEntry> entries;
  };
  CommitDetail read(const Question& question) const;

  struct Glance {
    std::string policy; /* "": the sessions are counted */
    bool over = false;
    int64_t sessions = -1;
    ConfiguredPolicies configured;
  };
  std::shared_ptr<Glance> glance(const std::string& policy);
  void look(Glance* glance) const;
  void run();

  const uint16_t port_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool over_ = false;
  std::deque<Question> asked_;
  std::map<int64_t, CommitDetail> read_;
  std::shared_ptr<Glance> wanted_; /* null: nobody waits for one */
  std::condition_variable looked_;
  std::thread thread_;
};

}  // namespace polctl

#endif
