// SPDX-License-Identifier: Apache-2.0
//
// Whatever bytes arrive, the agent answers or closes, and serves the others on.
#include <grp.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>

#include "agent/edits.h"
#include "agent/keypath.h"
#include "agent/server.h"
#include "agent/yarrow_agent.h"
#include "platform/yarrow/wire.h"
#include "support.h"

namespace test {
namespace {

using yarrow::Request;
using yarrow::SocketKind;
using yarrow::Writer;

void send_raw(int fd, const std::string& bytes) {
  // The agent may have closed already: that is an answer too.
  [[maybe_unused]] ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

std::string framed(const std::string& body) {
  Writer out;
  out.text(body);
  return out.bytes();
}

std::string hello(SocketKind kind) {
  Writer out;
  out.u32(yarrow::kWireMagic);
  out.u8(static_cast<uint8_t>(kind));
  return out.bytes();
}

// The status of the frame that a connection is sent, and whether it is closed after it.
struct Ending {
  uint32_t error = 0;
  size_t bytes = 0;
  bool closed = false;
};
Ending ending_of(int fd, int timeout_ms = 5'000) {
  Ending ending;
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  const timeval limit = {timeout_ms / 1000, timeout_ms % 1000 * 1000};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  char answer[4096];
  ssize_t got = recv(fd, answer, sizeof answer, 0);
  if (got >= 8) ending.error = yarrow::Reader(std::string_view(answer + 4, 4)).u32();
  for (; got > 0; got = recv(fd, answer, sizeof answer, 0))
    ending.bytes += static_cast<size_t>(got);
  ending.closed = got == 0 || errno == ECONNRESET;
  ending.closed = ending.closed && std::chrono::steady_clock::now() < end;
  return ending;
}

std::vector<std::unique_ptr<Socket>> crowd_at(uint16_t port, int size) {
  std::vector<std::unique_ptr<Socket>> crowd;
  for (int i = 0; i < size; ++i) {
    crowd.push_back(std::make_unique<Socket>(port));
    EXPECT_EQ(connect(crowd.back()->fd(), crowd.back()->addr(), crowd.back()->addr_len()), 0);
  }
  return crowd;
}

double processor_seconds(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string field;
  double ticks = 0;
  for (int i = 1; i <= 15 && file >> field; ++i) ticks += i >= 14 ? std::stod(field) : 0;
  return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

size_t resident_pages(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/statm");
  size_t pages = 0;
  file >> pages >> pages;
  return pages;
}

TEST(HostileTest, AFrameBeyondTheLimitIsAnsweredAndClosedAndTheAgentsEndIsSeenByAll) {
  AgentProcess agent;
  Session witness(agent.port());
  Subscriber subscriber(agent.port(), "/policy");
  for (uint32_t size : {yarrow::kMaxFrame, yarrow::kMaxFrame + 1, 0x7fffffffu}) {
    Socket socket(agent.port());
    ASSERT_EQ(connect(socket.fd(), socket.addr(), socket.addr_len()), 0);
    Writer length;
    length.u32(size);
    send_raw(socket.fd(), length.bytes());
    const std::string body(size == yarrow::kMaxFrame ? size : 0, 'x');
    EXPECT_EQ(send(socket.fd(), body.data(), body.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(body.size()));
    const Ending ending = ending_of(socket.fd());
    EXPECT_EQ(ending.error,
              uint32_t{size > yarrow::kMaxFrame ? YARROW_ERR_TOOBIG : YARROW_ERR_PROTOCOL});
    EXPECT_TRUE(ending.closed);
  }
  EXPECT_NE(agent.log().find("a connection is closed reason=\"a frame too big\""),
            std::string::npos);
  EXPECT_EQ(maapi_commit_id(witness.fd()), 0);
  EXPECT_EQ(agent.terminate(), 0);
  EXPECT_EQ(subscriber.next(), "closed");
  EXPECT_EQ(why(maapi_candidate_commit(witness.fd())), "not connected: the connection is lost");
}

TEST(HostileTest, ManyIdleConnectionsDoNotKeepAnEarlierOneFromBeingServed) {
  AgentProcess agent;
  Session first(agent.port());
  auto crowd = crowd_at(agent.port(), 255);
  Socket beyond(agent.port());
  ASSERT_EQ(connect(beyond.fd(), beyond.addr(), beyond.addr_len()), 0);
  Ending ending = ending_of(beyond.fd());
  EXPECT_EQ(ending.error, uint32_t{YARROW_ERR_TOOBIG});
  EXPECT_TRUE(ending.closed);
  EXPECT_EQ(maapi_commit_id(first.fd()), 0);
  crowd.clear();
  Session later(agent.port());
  EXPECT_EQ(maapi_commit_id(later.fd()), 0) << "room again once they are gone";
}

TEST(HostileTest, AnAgentWithoutADescriptorLeftRestsAndServesThoseItHas) {
  AgentProcess agent("", {}, 24);
  Session first(agent.port());
  usleep(300'000);  // its threads run by then: sanitizers need a descriptor where one begins
  auto crowd = crowd_at(agent.port(), 40);
  EXPECT_EQ(maapi_commit_id(first.fd()), 0);
  double before = processor_seconds(agent.pid());
  usleep(500'000);
  EXPECT_LT(processor_seconds(agent.pid()) - before, 0.2);
  EXPECT_EQ(maapi_commit_id(first.fd()), 0);
  crowd.clear();
  Session later(agent.port());
  EXPECT_EQ(maapi_commit_id(later.fd()), 0);
}

TEST(HostileTest, WhoAsksMuchAndReadsNothingIsHeardNoMoreBeforeHeReads) {
  AgentProcess agent;
  Socket greedy(agent.port());
  ASSERT_EQ(connect(greedy.fd(), greedy.addr(), greedy.addr_len()), 0);
  Writer ask;
  ask.u8(static_cast<uint8_t>(Request::kSchema));
  ask.u32(0);
  std::string many = framed(hello(SocketKind::kMaapi));
  for (int i = 0; i < 20'000; ++i) many += framed(ask.bytes());  // 20 KiB an answer
  send_raw(greedy.fd(), many);
  Session other(agent.port());
  for (int i = 0; i < 500; ++i) ASSERT_EQ(maapi_commit_id(other.fd()), 0);
  constexpr size_t kPagesOf160MiB = 40'960;  // of 400 MiB asked for
  EXPECT_LT(resident_pages(agent.pid()), kPagesOf160MiB);
}

TEST(HostileTest, TransactionsAndStreamsOfOneSessionAreBounded) {
  AgentProcess agent;
  Session session(agent.port());
  ASSERT_EQ(why(session.commit(policy("<app-id><name>a</name></app-id>"))), "ok");
  int trans = session.begin();
  int status = 0;
  int first = maapi_save_config(session.fd(), trans, YARROW_CONFIG_XML, "/policy");
  for (int i = 0; i < 8; ++i) {
    status = maapi_save_config(session.fd(), trans, YARROW_CONFIG_XML, "/policy");
    EXPECT_EQ(why(status), "ok");
  }
  Socket late(agent.port());
  EXPECT_EQ(yarrow_stream_connect(late.fd(), late.addr(), late.addr_len(), first, 0), YARROW_ERR)
      << "the oldest that nobody asked for gave way to the ninth";
  Session other(agent.port());
  const int unread = maapi_save_config(other.fd(), other.begin(), YARROW_CONFIG_XML, "/policy");
  other.shut();
  EXPECT_EQ(session.save("/policy"), session.save("/policy", MAAPI_CANDIDATE));
  Socket orphan(agent.port());
  EXPECT_EQ(yarrow_stream_connect(orphan.fd(), orphan.addr(), orphan.addr_len(), unread, 0),
            YARROW_ERR)
      << "it went with its connection";
  EXPECT_NE(agent.log().find("limit=\"too many streams: the oldest is given up\""),
            std::string::npos);
  const Session third(agent.port());
  int open = 0;
  do {
    status =
        maapi_start_trans_flags2(third.fd(), MAAPI_CANDIDATE, MAAPI_READ, 0, 0, nullptr, nullptr);
  } while (status >= 0 && ++open < 100);
  EXPECT_EQ(why(status), "too big: too many transactions");
  EXPECT_EQ(open, 16);
}

std::string read_stream(const Session& session, int id) {
  Socket stream(session.port());
  int status = yarrow_stream_connect(stream.fd(), stream.addr(), stream.addr_len(), id, 0);
  char text[4096];
  while (status == YARROW_OK && recv(stream.fd(), text, sizeof text, 0) > 0) {
  }
  return why(status);
}

TEST(HostileTest, StreamsThatNobodyAsksForNeitherWedgeASessionNorOutliveIt) {
  AgentProcess agent;
  auto session = std::make_unique<Session>(agent.port());
  ASSERT_EQ(why(session->commit(policy("<app-id><name>a</name></app-id>"))), "ok");
  int trans = session->begin();
  int id = 0;
  for (int i = 0; i < 40; ++i) {
    id = maapi_save_config(session->fd(), trans, YARROW_CONFIG_XML, "/policy");
    ASSERT_EQ(read_stream(*session, id), "ok") << i;
  }
  EXPECT_EQ(why(maapi_save_config_result(session->fd(), id)), "ok") << "the last is still known";
  EXPECT_EQ(why(maapi_save_config_result(session->fd(), id - 30)), "no such node: no such stream");
  id = maapi_save_config(session->fd(), trans, YARROW_CONFIG_XML, "/policy");
  session = std::make_unique<Session>(agent.port());
  EXPECT_EQ(maapi_commit_id(session->fd()), 1);
  EXPECT_EQ(read_stream(*session, id), "no such node: no such stream");
}

TEST(HostileTest, WhatASubscriberLagsBehindIsToldAsOne) {
  agent::Server server;
  std::string error;
  server.agent.schema = agent::schema_load(&error);
  ASSERT_TRUE(server.agent.schema) << error;
  agent::Connection& lagging = server.connections.emplace_back();
  lagging.kind = SocketKind::kSubscription;
  lagging.state = agent::Connection::State::kServing;
  agent::NodeRef root = agent::empty_tree(*server.agent.schema);
  constexpr uint64_t kCommits = 600;
  constexpr size_t kMost = 256;
  for (uint64_t commit = 1; commit <= kCommits; ++commit) {
    auto record = std::make_shared<agent::CommitRecord>();
    record->commit = commit;
    record->before = root;
    agent::Path path;
    ASSERT_TRUE(agent::path_parse(*server.agent.schema,
                                  "/policy/app-id{a" + std::to_string(commit) + "}", &path)
                    .ok());
    agent::Editor editor{*server.agent.schema, false, &root};
    ASSERT_TRUE(agent::edit_create(editor, path).ok());
    record->after = root;
    agent::changes_between(record->before, record->after, &record->changes);
    agent::subscription_publish(server, record);
  }
  ASSERT_EQ(lagging.pending.size(), kMost);
  EXPECT_EQ(lagging.pending[0]->commit, 1u) << "may be half told";
  EXPECT_EQ(lagging.pending[1]->commit, kCommits - kMost + 2);
  EXPECT_EQ(lagging.pending.back()->commit, kCommits);
  agent::subscription_fill(lagging);
  EXPECT_TRUE(lagging.pending.empty());
  size_t told = 0;
  for (size_t at = 0; (at = lagging.out.find("/policy/app-id", at)) != std::string::npos; ++at) {
    ++told;
  }
  EXPECT_EQ(told, kCommits) << "each entry once";
}

struct LocalAgent {
  explicit LocalAgent(const std::string& path = "", const std::string& group = "") {
    agent::Options options;
    options.socket_path = path;
    options.socket_group = group;
    handle = agent::start(options, &error);
    if (handle) agent::run_in_thread(*handle);
  }
  uint16_t port() const { return agent::port(*handle); }

  std::string error;
  std::shared_ptr<agent::Handle> handle;
};

}  // namespace
}  // namespace test

int64_t test::g_clock_ahead = 0;

// NOLINTBEGIN: names of the linker's
extern "C" {
int64_t __real__ZN5agent6now_msEv();
int64_t __wrap__ZN5agent6now_msEv() {
  return __real__ZN5agent6now_msEv() + __atomic_load_n(&test::g_clock_ahead, __ATOMIC_RELAXED);
}
}
// NOLINTEND

namespace test {
namespace {

TEST(HostileTest, WhoLingersIsLetGoOnceHisTimeIsOver) {
  LocalAgent agent;
  Session session(agent.port());
  const std::string name(24, 'n');
  std::string much;
  for (int i = 0; i < 150'000; ++i) {
    much += "<app-id><name>" + name + std::to_string(i) + "</name></app-id>";
  }
  ASSERT_EQ(why(session.load(policy(much))).substr(0, 200), "ok");
  int trans = session.begin();
  const int read = maapi_save_config(session.fd(), trans, YARROW_CONFIG_XML, "/policy");
  ASSERT_EQ(read_stream(session, read), "ok");
  int unread = maapi_save_config(session.fd(), trans, YARROW_CONFIG_XML, "/policy");
  int half_read = maapi_save_config(session.fd(), trans, YARROW_CONFIG_XML, "/policy");
  Socket silent(agent.port());
  Socket slow(agent.port());
  Socket reader(agent.port());
  const int small = 4096;
  setsockopt(reader.fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  ASSERT_EQ(connect(silent.fd(), silent.addr(), silent.addr_len()), 0);
  ASSERT_EQ(connect(slow.fd(), slow.addr(), slow.addr_len()), 0);
  ASSERT_EQ(why(yarrow_stream_connect(reader.fd(), reader.addr(), reader.addr_len(), half_read, 0)),
            "ok");
  send_raw(slow.fd(), framed(hello(SocketKind::kMaapi)) + std::string("\0\0\1\0cut", 7));
  char answer[8];
  ASSERT_EQ(recv(slow.fd(), answer, sizeof answer, MSG_WAITALL), 8);
  // Which of them are still there once the clock has gone on.
  struct Row {
    int64_t ahead;
    bool silent, slow, streams;
  };
  for (const Row& row : {Row{7'000, true, true, true}, Row{11'000, false, true, true},
                         Row{32'000, false, false, true}, Row{64'000, false, false, false}}) {
    __atomic_store_n(&g_clock_ahead, row.ahead, __ATOMIC_RELAXED);
    usleep(1'200'000);  // the agent looks at its clock once a second
    char byte = 0;
    EXPECT_EQ(recv(silent.fd(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) != 0, row.silent) << row.ahead;
    EXPECT_EQ(recv(slow.fd(), &byte, 1, MSG_DONTWAIT) != 0, row.slow) << row.ahead;
    EXPECT_EQ(maapi_commit_id(session.fd()), 0);
  }
  EXPECT_EQ(read_stream(session, unread), "no such node: no such stream");
  EXPECT_EQ(why(maapi_save_config_result(session.fd(), read)), "no such node: no such stream")
      << "a result that nobody asked for";
  EXPECT_EQ(why(maapi_save_config_result(session.fd(), half_read)),
            "not connected: the stream was not read to its end");
  const Ending cut = ending_of(reader.fd());
  EXPECT_TRUE(cut.closed);
  EXPECT_LT(cut.bytes, much.size()) << "what the kernel held of it";
  __atomic_store_n(&g_clock_ahead, 0, __ATOMIC_RELAXED);
}

std::string mode_of(const std::string& path) {
  struct stat file = {};
  if (lstat(path.c_str(), &file) != 0) return "none";
  char text[32];
  snprintf(text, sizeof text, "%s %o", S_ISSOCK(file.st_mode) ? "socket" : "other",
           file.st_mode & 07777);
  return text;
}

TEST(HostileTest, TheUnixSocketIsItsOwnersAndNobodyElsesIsTouched) {
  TempDirectory directory;
  const std::string path = directory.path() + "/agent.sock";
  {
    LocalAgent agent(path);
    ASSERT_TRUE(agent.handle) << agent.error;
    EXPECT_EQ(mode_of(path), "socket 600");
    EXPECT_EQ(LocalAgent(path).error, "another agent listens at " + path);
  }
  EXPECT_EQ(mode_of(path), "none") << "taken away at the end";
  int left = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
  ASSERT_EQ(bind(left, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  close(left);
  {
    LocalAgent agent(path, "nogroup");
    ASSERT_TRUE(agent.handle) << "one that a dead agent left is replaced: " << agent.error;
    EXPECT_EQ(mode_of(path), "socket 660");
    unlink(path.c_str());
    std::ofstream(path) << "mine";
  }
  EXPECT_EQ(mode_of(path).substr(0, 5), "other") << "not the agent's, so not removed";
  EXPECT_EQ(LocalAgent(path).error, path + " is there and no socket");
  EXPECT_EQ(LocalAgent(path + std::string(120, 'x')).error.substr(path.size() + 120),
            " is too long for a socket's path (at most 107 bytes)");
  EXPECT_EQ(LocalAgent(path + "2", "no such").error, "there is no group 'no such'");
}

// Runs in a child of another user and group; the child's status is what it returned.
template <typename Run>
int as_user(uid_t uid, gid_t group, Run run) {
  pid_t child = fork();
  if (child == 0) {
    alarm(20);
    if (setgroups(1, &group) != 0 || setgid(uid) != 0 || setuid(uid) != 0) _exit(99);
    _exit(run());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Needs the right to take on another user's id.
TEST(HostileTest, APeerOfAnotherUserIsRefusedAtOnceAndTakesNobodysPlace) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  constexpr uid_t kNobody = 65534;
  constexpr gid_t kOther = 65533;
  AgentProcess agent;
  int hello_done[2];
  int all_done[2];
  ASSERT_EQ(pipe(hello_done) + pipe(all_done), 0);
  std::thread strangers([&] {
    EXPECT_EQ(as_user(kNobody, kOther,
                      [&] {
                        Socket one(agent.port());
                        int status = maapi_connect(one.fd(), one.addr(), one.addr_len());
                        if (status != YARROW_ERR || yarrow_errno != YARROW_ERR_ACCESS) return 1;
                        auto crowd = crowd_at(agent.port(), 300);
                        for (const auto& each : crowd) {
                          Ending ending = ending_of(each->fd());
                          if (ending.error != YARROW_ERR_ACCESS || !ending.closed) return 2;
                        }
                        char byte = 0;
                        if (write(hello_done[1], &byte, 1) != 1) return 3;
                        return read(all_done[0], &byte, 1) == 1 ? 0 : 4;
                      }),
              0);
  });
  char byte = 0;
  EXPECT_EQ(read(hello_done[0], &byte, 1), 1);
  Session own(agent.port());
  EXPECT_EQ(maapi_commit_id(own.fd()), 0);
  EXPECT_EQ(write(all_done[1], &byte, 1), 1);
  strangers.join();
  for (int fd : {hello_done[0], hello_done[1], all_done[0], all_done[1]}) close(fd);
}

TEST(HostileTest, TheGroupOfTheUnixSocketIsLetInThereAlone) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  constexpr uid_t kNobody = 65534;
  const struct group* games = getgrnam("games");
  ASSERT_NE(games, nullptr);
  const gid_t member = games->gr_gid;
  TempDirectory directory;
  ASSERT_EQ(chmod(directory.path().c_str(), 0755), 0);
  const std::string path = directory.path() + "/agent.sock";
  AgentProcess agent("", {"--socket", path, "--group", "games"});
  auto status_by_path = [&] {
    const Environment by_path(YARROW_PATH_VARIABLE, path);
    Socket socket(YARROW_PORT);
    return maapi_connect(socket.fd(), socket.addr(), socket.addr_len()) == YARROW_OK ? 0
                                                                                     : yarrow_errno;
  };
  auto status_by_port = [&] {
    Socket socket(agent.port());
    return maapi_connect(socket.fd(), socket.addr(), socket.addr_len()) == YARROW_OK ? 0
                                                                                     : yarrow_errno;
  };
  EXPECT_EQ(as_user(kNobody, member, status_by_path), 0);
  EXPECT_EQ(as_user(kNobody, member, status_by_port), YARROW_ERR_ACCESS);
  EXPECT_EQ(as_user(kNobody, kNobody, status_by_path), YARROW_ERR_OS) << "the file's mode";
  ASSERT_EQ(chmod(path.c_str(), 0666), 0);
  EXPECT_EQ(as_user(kNobody, kNobody, status_by_path), YARROW_ERR_ACCESS) << "whatever its mode";
}

}  // namespace
}  // namespace test
