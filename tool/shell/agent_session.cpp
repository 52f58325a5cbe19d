// SPDX-License-Identifier: Apache-2.0
#include "agent_session.h"

#include <fmt/format.h>
#include <pwd.h>
#include <unistd.h>

#include "host/input_error.h"

namespace polctl {

namespace {

[[noreturn]] void refuse(const char* what) {
  throw InputError(fmt::format("{}: {}", what, agent_problem()));
}

void require(int status, const char* what) {
  if (status < 0) refuse(what);
}

std::string user_name() {
  const passwd* entry = getpwuid(geteuid());
  return entry != nullptr ? entry->pw_name : std::to_string(geteuid());
}

}  // namespace

AgentSession::AgentSession(uint16_t port) : sock_(agent_socket()), port_(port) {
  sockaddr_in address = agent_address(port);
  if (maapi_connect(sock_, reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
          YARROW_OK &&
      maapi_start_user_session3(sock_, user_name().c_str(), "shell", nullptr, "polctl") ==
          YARROW_OK) {
    return;
  }
  std::string problem = agent_problem();
  close(sock_);
  throw InputError(
      fmt::format("agent at port {}: error: {} (expected a running yarrowd)", port, problem));
}

int AgentSession::begin(int datastore, int mode) const {
  int trans = maapi_start_trans_flags2(sock_, datastore, mode, 0, 0, nullptr, nullptr);
  require(trans, "no transaction");
  return trans;
}

std::string AgentSession::xml(int datastore, const std::string& path) const {
  std::string problem;
  std::string text = saved_xml(sock_, port_, datastore, path, &problem);
  if (!problem.empty()) throw InputError("no configuration: " + problem);
  return text;
}

// Ends the transaction, applied if the edit before was taken.
std::vector<ConfigFault> AgentSession::apply(int trans, int status) const {
  if (status == YARROW_OK) status = maapi_apply_trans(sock_, trans, 0);
  std::vector<ConfigFault> faults;
  if (status != YARROW_OK) faults = agent_faults();
  maapi_finish_trans(sock_, trans);
  return faults;
}

std::vector<ConfigFault> AgentSession::load(const std::string& text, unsigned flags) const {
  int trans = begin(MAAPI_CANDIDATE, MAAPI_READ_WRITE);
  return apply(trans, maapi_load_config_cmds(sock_, trans, flags, text.c_str(), "%s", ""));
}

std::vector<ConfigFault> AgentSession::remove(const std::string& path) const {
  int trans = begin(MAAPI_CANDIDATE, MAAPI_READ_WRITE);
  return apply(trans, maapi_delete(sock_, trans, "%s", path.c_str()));
}

std::vector<ConfigFault> AgentSession::validate() const {
  if (maapi_candidate_validate(sock_) == YARROW_OK) return {};
  return agent_faults();
}

void AgentSession::discard() const { require(maapi_candidate_reset(sock_), "not discarded"); }

void AgentSession::roll_back(unsigned back) const {
  require(maapi_load_rollback(sock_, back), "not rolled back");
}

void AgentSession::lock() const {
  require(maapi_lock(sock_, MAAPI_CANDIDATE), "not locked");
  if (maapi_lock(sock_, MAAPI_RUNNING) == YARROW_OK) return;
  std::string problem = agent_problem();
  maapi_unlock(sock_, MAAPI_CANDIDATE);
  throw InputError("not locked: " + problem);
}

void AgentSession::unlock() const {
  maapi_unlock(sock_, MAAPI_RUNNING);
  maapi_unlock(sock_, MAAPI_CANDIDATE);
}

int64_t AgentSession::commit(const std::string& comment, unsigned minutes,
                             std::vector<ConfigFault>* faults) const {
  int64_t number = maapi_candidate_commit_noted(sock_, comment.c_str(), minutes);
  if (number >= 0) return number;
  *faults = agent_faults();
  return 0;
}

AgentCommits AgentSession::commits() const {
  AgentCommits commits;
  auto visit = [](const t_maapi_commit* commit, void* state) {
    static_cast<AgentCommits*>(state)->all.push_back(
        {commit->number, commit->time, commit->user, commit->client_id, commit->comment});
    return 0;
  };
  require(maapi_commits(sock_, visit, &commits, &commits.waiting, &commits.seconds), "no commits");
  return commits;
}

std::vector<AgentUser> AgentSession::users() const {
  std::vector<AgentUser> users;
  auto visit = [](const t_maapi_session* session, void* state) {
    static_cast<std::vector<AgentUser>*>(state)->push_back({session->since, session->user,
                                                            session->context, session->client_id,
                                                            session->source, session->flags});
    return 0;
  };
  require(maapi_sessions(sock_, visit, &users), "no sessions");
  return users;
}

}  // namespace polctl
