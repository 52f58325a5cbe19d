// SPDX-License-Identifier: Apache-2.0
//
// A yarrowd of its own for each test, and clients of it that clean up after themselves.
#ifndef TESTS_AGENT_SUPPORT_H
#define TESTS_AGENT_SUPPORT_H

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/types.h>

#include <csignal>
#include <initializer_list>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/process.h"
#include "yarrow/yarrow_cdb.h"
#include "yarrow/yarrow_changes.h"
#include "yarrow/yarrow_maapi.h"
#include "yarrow/yarrow_schema.h"

namespace test {

class TempDirectory {
 public:
  TempDirectory();
  ~TempDirectory();
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

extern int64_t g_clock_ahead;  // milliseconds that an agent of this process's clock goes ahead

std::string file_text(const std::string& name);

class AgentProcess {
 public:
  // An empty directory keeps nothing; `descriptors` is how many the process may have, 0 as many as
  // usual. What it logs is shown if it does not end well.
  explicit AgentProcess(const std::string& directory = "",
                        const std::vector<std::string>& options = {}, unsigned descriptors = 0);
  ~AgentProcess();
  AgentProcess(const AgentProcess&) = delete;
  AgentProcess& operator=(const AgentProcess&) = delete;

  uint16_t port() const { return port_; }  // 0: it did not start
  pid_t pid() const { return process_.pid(); }
  std::string log() const;
  void kill_hard() { end(SIGKILL); }
  int terminate() { return end(SIGTERM); }  // its exit status

 private:
  int end(int signal);

  int log_;
  Running process_;
  uint16_t port_ = 0;
};

// A stream socket and the agent's address.
class Socket {
 public:
  explicit Socket(uint16_t port);
  ~Socket();
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  int fd() const { return fd_; }
  const sockaddr* addr() const { return reinterpret_cast<const sockaddr*>(&address_); }
  socklen_t addr_len() const { return sizeof address_; }
  uint16_t port() const { return ntohs(address_.sin_port); }
  void shut();

 private:
  int fd_;
  sockaddr_in address_ = {};
};

// A socket with a user session.
class Session : public Socket {
 public:
  explicit Session(uint16_t port);

  int begin(int datastore = MAAPI_CANDIDATE, int mode = MAAPI_READ_WRITE) const;

  // Loads into the candidate and applies; the status of the first call that failed.
  int load(const std::string& xml, unsigned flags = YARROW_CONFIG_XML | YARROW_CONFIG_MERGE) const;
  int commit(const std::string& xml,
             unsigned flags = YARROW_CONFIG_XML | YARROW_CONFIG_MERGE) const;

  // Sets the leaf at each path to its text, deletes where that is null, and commits.
  int commit_edits(std::initializer_list<std::pair<std::string, const char*>> edits) const;

  // What a datastore holds at a path, as saved; "" when that fails.
  std::string save(const std::string& path, int datastore = MAAPI_RUNNING) const;
};

class Subscriber : public Socket {
 public:
  Subscriber(uint16_t port, const char* path, unsigned flags = 0);

  // The next batch, one line a change; "none" if there is no batch soon.
  std::string next(int timeout_ms = 5'000);
  int64_t commit_id() const { return commit_id_; }

 private:
  int64_t commit_id_ = -1;
};

// "1 /policy/lists/site-list/site@2 [A 5-9] preference=7": operation, path, level, keys, values. A
// value stands after its node's name, "-" for a removed one, "name(" and ")" for a container.
std::string describe(const t_yarrow_change& change);

// Sets a variable of the environment, and takes it back.
class Environment {
 public:
  Environment(const char* name, const std::string& value);
  ~Environment();
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

 private:
  const char* name_;
};

// A socket that listens on the loopback address, and at which port.
int listener(int backlog, uint16_t* port);

// What stands in for an agent: listens on the loopback address, says and does as it is told. Its
// process is this one.
class FalseAgent {
 public:
  // Answers each frame that comes with the next of `answers`, as bytes, then nothing more.
  explicit FalseAgent(std::vector<std::string> answers = {});
  ~FalseAgent();
  FalseAgent(const FalseAgent&) = delete;
  FalseAgent& operator=(const FalseAgent&) = delete;

  uint16_t port() const { return port_; }

 private:
  void serve(const std::vector<std::string>& answers);

  uint16_t port_ = 0;
  int listener_;
  int stop_[2];
  std::thread thread_;
};

// The error of a call that is to fail, with the agent's words, for comparing at a glance.
std::string why(int status);

constexpr unsigned kReplace = YARROW_CONFIG_XML | YARROW_CONFIG_REPLACE;

inline std::string policy(const std::string& inner) {
  return "<policy xmlns=\"urn:zenodra:policy\">" + inner + "</policy>";
}

}  // namespace test
#endif
