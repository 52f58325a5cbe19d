// SPDX-License-Identifier: Apache-2.0
//
// The client's functions, each with what it does and how it fails.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <map>
#include <sstream>
#include <thread>

#include "platform/yarrow/peer.h"
#include "platform/yarrow/wire.h"
#include "support.h"
#include "support/golden.h"

namespace test {
namespace {

class ClientTest : public ::testing::Test {
 protected:
  AgentProcess agent_;
  Session session_{agent_.port()};
  int fd_ = session_.fd();
};

char g_name[] = "apps";
constexpr char kSequence[] = "/policy/data-policy{D}/vpn-list{V}/sequence{10}";
const std::string kDataPolicy = policy(
    "<data-policy><name>D</name><vpn-list><name>V</name><sequence><number>10</number></sequence>"
    "</vpn-list></data-policy>");

TEST_F(ClientTest, TypedValuesOfEveryKindArriveInCanonicalForm) {
  ASSERT_EQ(why(session_.load(kDataPolicy)), "ok");
  int trans = session_.begin();
  t_yarrow_value values[7] = {};
  const uint32_t types[] = {C_BUF,        C_IPV4PREFIX, C_UINT32,    C_IPV4,
                            C_ENUM_VALUE, C_XMLTAG,     C_ENUM_VALUE};
  for (size_t i = 0; i < 7; ++i) values[i].type = types[i];
  values[0].val.buf = {4, reinterpret_cast<uint8_t*>(g_name)};
  values[1].val.ipv4prefix = {htonl(0x0a010203), 16};
  values[2].val.u32 = 70;
  values[3].val.ip = htonl(0x0a010203);
  values[4].val.enumvalue = 6;
  values[6].val.enumvalue = 99;
  const char* const leaves[] = {"match/app-list",        "match/source-ip",
                                "action/set/vpn",        "action/set/tloc/address",
                                "action/set/tloc/color", "action/set/tloc/local",
                                "action/set/tloc/color"};
  for (size_t i = 0; i < 7; ++i) {
    EXPECT_EQ(why(maapi_set_elem(fd_, trans, &values[i], "%s/%s", kSequence, leaves[i])),
              i < 6 ? "ok"
                    : "bad value: /policy/data-policy/vpn-list/sequence/action/set/tloc/color: no "
                      "word has the number 99");
  }
  ASSERT_EQ(why(maapi_apply_trans(fd_, trans, 0)), "ok");
  const std::string saved = session_.save(kSequence, MAAPI_CANDIDATE);
  for (const char* text :
       {"<source-ip>10.1.0.0/16</source-ip>", "<app-list>apps</app-list>", "<vpn>70</vpn>",
        "<address>10.1.2.3</address><color>5g</color>", "<local"}) {
    EXPECT_NE(saved.find(text), std::string::npos) << text << saved;
  }
  t_yarrow_value entry[5] = {};
  const uint32_t shape[] = {C_UINT8, C_NOEXISTS, C_NOEXISTS, C_NOEXISTS, C_UINT32};
  for (size_t i = 0; i < 5; ++i) entry[i].type = shape[i];
  trans = session_.begin();
  EXPECT_EQ(
      why(maapi_set_object(fd_, trans, entry, 5, "%s/action/set/kel-tloc-pref-list{7}", kSequence)),
      "bad value: /policy/data-policy{D}/vpn-list{V}/sequence{10}/action/set/kel-tloc-pref-list{7}"
      "/index: is not the key of the path")
      << "its key is not that of the path";
  EXPECT_EQ(maapi_exists(fd_, trans, "%s/action/set/kel-tloc-pref-list{7}", kSequence), 0);
  EXPECT_EQ(why(maapi_set_elem_text(
                fd_, trans, "5",
                "/policy/data-policy{gone}/vpn-list{V}/sequence{1}/action/set/vpn-label")),
            "no such node: /policy/data-policy{gone}/vpn-list{V}/sequence{1}/action/set/vpn-label: "
            "has no parent")
      << "labels bring no deleted policy back";
}

TEST_F(ClientTest, PathsThatDoNotFitTheSchemaAreNamed) {
  int trans = session_.begin();
  std::istringstream paths(read_golden("changes/paths.in"));
  std::string all;
  for (std::string path; std::getline(paths, path);) {
    all += path + "\n    " + why(maapi_delete(fd_, trans, "%s", path.c_str())) + "\n";
  }
  expect_golden("changes/paths.ok", all);
}

// What is at its limit is refused for another reason, if at all.
TEST_F(ClientTest, WhatIsBeyondItsLimitIsToldAsThat) {
  int trans = session_.begin();
  auto path_of = [&](size_t bytes) {
    const std::string path = "/policy/policer{" + std::string(bytes - 17, 'x') + "}";
    return why(maapi_exists(fd_, trans, "%s", path.c_str()));
  };
  auto value_of = [&](size_t bytes) {
    return why(maapi_set_elem_text(fd_, trans, std::string(bytes, 'x').c_str(),
                                   "/policy/app-id{a}/description"));
  };
  auto items_of = [&](size_t count) {
    std::vector<t_yarrow_value> items(count);
    for (t_yarrow_value& item : items) item.type = C_XMLTAG;
    t_yarrow_value list = {};
    list.type = C_LIST;
    list.val.list = {static_cast<uint32_t>(items.size()), items.data()};
    return why(maapi_set_elem(fd_, trans, &list, "%s/vpn-list{V}/preferred-color",
                              "/policy/app-route-policy{D}"));
  };
  auto comment_of = [&](size_t bytes) {
    return why(maapi_candidate_commit_noted(fd_, std::string(bytes, 'x').c_str(), 0));
  };
  auto minutes_of = [&](size_t minutes) {
    return why(maapi_candidate_commit_noted(fd_, "", static_cast<uint32_t>(minutes)));
  };
  const struct {
    std::function<std::string(size_t)> ask;
    size_t limit;
    const char* beyond;
  } kLimits[] = {{path_of, 4095, "too big: a path too long"},
                 {value_of, 4095, "too big: a value too long"},
                 {items_of, 1024, "too many items"},
                 {comment_of, 1000, "a comment or a time too long"},
                 {minutes_of, 10'080, "a comment or a time too long"}};
  for (const auto& [ask, limit, beyond] : kLimits) {
    EXPECT_EQ(ask(limit).find(beyond), std::string::npos) << ask(limit);
    EXPECT_NE(ask(limit + 1).find(beyond), std::string::npos) << ask(limit + 1);
  }
}

// The cache cuts saved text at these marks.
TEST_F(ClientTest, SavedTextIsOneLineShapedSoThatHeadersAndFootersCutIt) {
  const std::string vpn_list =
      "<lists><vpn-list><name>V</name><vpn><id>10</id></vpn></vpn-list></lists>";
  const std::string sla_class = "<sla-class><name>a&amp;b</name></sla-class>";
  ASSERT_EQ(why(session_.commit(policy(vpn_list +
                                       "\n <lists><vpn-list><name>W</name></vpn-list>\n"
                                       "</lists>" +
                                       sla_class))),
            "ok");
  auto saved = [](const std::string& inner) {
    return "<config xmlns=\"urn:norvik:config:1.0\">" + policy(inner) + "</config>";
  };
  EXPECT_EQ(session_.save("/policy/lists/vpn-list{V}"), saved(vpn_list));
  EXPECT_EQ(session_.save("/policy/sla-class"), saved(sla_class));
  int trans = session_.begin(MAAPI_RUNNING, MAAPI_READ);
  EXPECT_EQ(why(maapi_save_config(fd_, trans, YARROW_CONFIG_XML, "/policy/lists/vpn-list{none}")),
            "no such node: /policy/lists/vpn-list{none}: no such node");
  int id = maapi_save_config(fd_, trans, YARROW_CONFIG_XML, "/policy");
  Socket stream(agent_.port());
  EXPECT_EQ(why(yarrow_stream_connect(stream.fd(), stream.addr(), stream.addr_len(), id, 0)), "ok");
  Socket again(agent_.port());
  EXPECT_EQ(yarrow_stream_connect(again.fd(), again.addr(), again.addr_len(), id, 0), YARROW_ERR)
      << "it has its reader";
  id = maapi_save_config(fd_, trans, YARROW_CONFIG_XML, "/policy");
  EXPECT_EQ(maapi_save_config_result(fd_, id), YARROW_ERR) << "nobody read it";
}

// What is published, counted and deleted is seen with the library's own calls.
TEST_F(ClientTest, OperationalDataIsGuardedByTheLockOfItsCdbSession) {
  const std::string show = policy("<from-pellux><app-id><name>a</name></app-id></from-pellux>");
  int trans = session_.begin(MAAPI_OPERATIONAL);
  EXPECT_EQ(why(maapi_load_config_cmds(fd_, trans, 0x41, show.c_str(), "%s", "")), "ok");
  EXPECT_EQ(why(maapi_load_config_cmds(fd_, trans, 0x41, kDataPolicy.c_str(), "%s", "")),
            "malformed text: line 1:36: /policy/data-policy: is no state data");
  EXPECT_EQ(why(maapi_apply_trans(fd_, trans, 1)), "ok");
  Socket cdb(agent_.port());
  ASSERT_EQ(why(cdb_connect(cdb.fd(), CDB_DATA_SOCKET, cdb.addr(), cdb.addr_len())), "ok");
  EXPECT_EQ(cdb_num_instances(cdb.fd(), "/policy/from-pellux/app-id"), YARROW_ERR) << "no session";
  ASSERT_EQ(why(maapi_lock(fd_, MAAPI_OPERATIONAL)), "ok");
  EXPECT_EQ(why(cdb_start_session2(cdb.fd(), CDB_OPERATIONAL, CDB_LOCK_SESSION)),
            "locked by another session: another session holds the lock");
  std::thread release([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(120));
    maapi_unlock(fd_, MAAPI_OPERATIONAL);
  });
  EXPECT_EQ(why(cdb_start_session2(cdb.fd(), CDB_OPERATIONAL, CDB_LOCK_SESSION | CDB_LOCK_WAIT)),
            "ok");
  release.join();
  EXPECT_EQ(cdb_exists(cdb.fd(), "/policy/from-pellux/app-id{%s}", "a"), 1);
  EXPECT_EQ(why(maapi_apply_trans(fd_, trans, 1)),
            "locked by another session: another session holds the lock");
  EXPECT_EQ(why(cdb_end_session(cdb.fd())), "ok");
  EXPECT_EQ(why(maapi_apply_trans(fd_, trans, 1)), "ok");
  ASSERT_EQ(why(cdb_start_session2(cdb.fd(), CDB_RUNNING, 0)), "ok");
  EXPECT_EQ(why(cdb_delete(cdb.fd(), "/policy")),
            "access denied: only operational data is written without a transaction");
}

TEST_F(ClientTest, ASocketIsConnectedAndGivenItsSessionFirst) {
  Socket bare(agent_.port());
  EXPECT_EQ(why(static_cast<int>(maapi_commit_id(bare.fd()))),
            "not connected: the connection is lost");
  ASSERT_EQ(why(maapi_connect(bare.fd(), bare.addr(), bare.addr_len())), "ok");
  EXPECT_EQ(why(maapi_candidate_commit(bare.fd())), "bad request: no user session");
}

using yarrow::PushKind;
using yarrow::Writer;

std::string framed(const Writer& body) {
  Writer out;
  out.text(body.view());
  return out.bytes();
}

std::string good_status() {
  Writer out;
  out.u32(YARROW_ERR_NONE);
  return framed(out);
}

TEST(ConnectTest, TheEnvironmentIsRefusedByNameOrFollowed) {
  struct Row {
    const char* variable;
    std::string value, result;
  };
  const std::string number = " (expected a number from ";
  for (const Row& row : {Row{YARROW_PORT_VARIABLE, "70000",
                             "bad request: YARROW_IPC_PORT is '70000'" + number + "1 to 65535)"},
                         Row{YARROW_TIMEOUT_VARIABLE, "0",
                             "bad request: YARROW_IPC_TIMEOUT is '0'" + number + "1 to 3600)"},
                         Row{YARROW_UID_VARIABLE, "root",
                             "bad request: YARROW_IPC_UID is 'root'" + number + "0 to 4294967295)"},
                         Row{YARROW_PATH_VARIABLE, "/nowhere/agent.sock",
                             "system call failed: connect: No such file or directory"},
                         Row{YARROW_PATH_VARIABLE, std::string(200, 'x'),
                             "bad request: YARROW_IPC_PATH is too long for a socket's path"}}) {
    FalseAgent agent({good_status()});
    const Environment with(row.variable, row.value);
    const bool usual = std::string_view(row.variable) == YARROW_PATH_VARIABLE;
    Socket socket(usual ? YARROW_PORT : agent.port());
    EXPECT_EQ(why(maapi_connect(socket.fd(), socket.addr(), socket.addr_len())), row.result);
  }
}

TEST(ConnectTest, ACallForTheUsualAddressTakesTheUnixSocketThatIsNamed) {
  TempDirectory directory;
  const std::string path = directory.path() + "/agent.sock";
  AgentProcess agent("", {"--socket", path});
  const Environment with(YARROW_PATH_VARIABLE, path);
  Session session(YARROW_PORT);
  int family = 0;
  socklen_t size = sizeof family;
  ASSERT_EQ(getsockopt(session.fd(), SOL_SOCKET, SO_DOMAIN, &family, &size), 0);
  EXPECT_EQ(family, AF_UNIX);
  EXPECT_EQ(fcntl(session.fd(), F_GETFD), FD_CLOEXEC) << "as the caller made it";
  Subscriber subscriber(YARROW_PORT, "/policy");
  ASSERT_EQ(why(session.commit(policy("<app-id><name>a</name></app-id>"))), "ok");
  EXPECT_EQ(subscriber.next(), "1 /policy/app-id@1 [a]\n");
  EXPECT_NE(session.save("/policy").find("<name>a</name>"), std::string::npos);
  Session other(agent.port());
  ASSERT_EQ(getsockopt(other.fd(), SOL_SOCKET, SO_DOMAIN, &family, &size), 0);
  EXPECT_EQ(family, AF_INET) << "another address is taken as it is";
  EXPECT_EQ(maapi_commit_id(other.fd()), 1);
}

// The seconds that a call on the socket may take: its own receive limit, which the client gave it.
time_t seconds_of(int fd) {
  timeval limit = {};
  socklen_t size = sizeof limit;
  EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, &size), 0);
  return limit.tv_sec;
}

TEST(ConnectTest, AHungAgentIsLeftOnceTheTimeIsOver) {
  {
    FalseAgent agent({good_status()});
    Socket socket(agent.port());
    ASSERT_EQ(why(maapi_connect(socket.fd(), socket.addr(), socket.addr_len())), "ok");
    EXPECT_EQ(seconds_of(socket.fd()), 60) << "unless the environment says otherwise";
  }
  const Environment with(YARROW_TIMEOUT_VARIABLE, "1");
  using Clock = std::chrono::steady_clock;
  {
    FalseAgent mute;
    Socket socket(mute.port());
    auto begin = Clock::now();
    EXPECT_EQ(why(maapi_connect(socket.fd(), socket.addr(), socket.addr_len())),
              "out of time: no answer within the time limit");
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(3));
  }
  // Connected; then it answers in drops.
  FalseAgent slow({good_status(), std::string("\0", 1), std::string("\0", 1)});
  Socket socket(slow.port());
  ASSERT_EQ(why(maapi_connect(socket.fd(), socket.addr(), socket.addr_len())), "ok");
  EXPECT_EQ(seconds_of(socket.fd()), 1);
  std::thread prods([&] {
    for (int i = 0; i < 30; ++i) {
      usleep(50'000);
      [[maybe_unused]] ssize_t sent = send(socket.fd(), "x", 1, MSG_NOSIGNAL);
    }
  });
  auto begin = Clock::now();
  EXPECT_EQ(why(maapi_candidate_commit(socket.fd())),
            "out of time: no answer within the time limit");
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(3));
  EXPECT_EQ(why(maapi_candidate_commit(socket.fd())), "not connected: the connection is lost");
  prods.join();
  // Accepts nobody: its queue holds one.
  uint16_t port = 0;
  const int full = listener(0, &port);
  Socket first(port);
  Socket second(port);
  ASSERT_EQ(connect(first.fd(), first.addr(), first.addr_len()), 0);
  EXPECT_EQ(why(maapi_connect(second.fd(), second.addr(), second.addr_len())),
            "out of time: the agent accepts no connection");
  close(full);
}

// Needs the right to take on another user's id.
TEST(ConnectTest, AnotherUsersAgentIsToldNothingUnlessThatUserIsAllowed) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  constexpr uid_t kNobody = 65534;
  int port_pipe[2];
  ASSERT_EQ(pipe(port_pipe), 0);
  pid_t child = fork();
  if (child == 0) {
    alarm(30);
    if (setuid(kNobody) != 0) _exit(1);
    FalseAgent agent({good_status()});
    uint16_t port = agent.port();
    if (write(port_pipe[1], &port, sizeof port) != sizeof port) _exit(2);
    pause();
  }
  uint16_t port = 0;
  ASSERT_EQ(read(port_pipe[0], &port, sizeof port), ssize_t{sizeof port});
  {
    Socket socket(port);
    EXPECT_EQ(why(maapi_connect(socket.fd(), socket.addr(), socket.addr_len())),
              "access denied: the agent belongs to user 65534 (expected root, this process's user, "
              "or whom YARROW_IPC_UID names)");
  }
  const Environment with(YARROW_UID_VARIABLE, "65534");
  Socket socket(port);
  EXPECT_EQ(why(maapi_connect(socket.fd(), socket.addr(), socket.addr_len())), "ok")
      << "and the first was told nothing: the one answer was still there";
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  close(port_pipe[0]);
  close(port_pipe[1]);
}

TEST(ConnectTest, AClosedConnectionHasNoOwner) {
  int table = yarrow::peer_table_open();
  for (int family : {AF_INET, AF_INET6}) {
    uint16_t port = 0;
    const int listening = listener(4, &port);
    sockaddr_in6 mapped = {};
    mapped.sin6_family = AF_INET6;
    mapped.sin6_port = htons(port);
    inet_pton(AF_INET6, "::ffff:127.0.0.1", &mapped.sin6_addr);
    const Socket to(port);
    const bool plain = family == AF_INET;
    int client = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(connect(client, plain ? to.addr() : reinterpret_cast<sockaddr*>(&mapped),
                      plain ? to.addr_len() : sizeof mapped),
              0);
    yarrow::Peer server = yarrow::peer_of_connected(table, client);
    EXPECT_TRUE(server.known) << "not accepted yet: " << server.why;
    int accepted = accept(listening, nullptr, nullptr);
    for (const yarrow::Peer& peer : {yarrow::peer_of_accepted(table, accepted),
                                     yarrow::peer_of_connected(table, client), server}) {
      EXPECT_TRUE(peer.known) << peer.why;
      EXPECT_EQ(peer.uid, geteuid());
    }
    close(client);
    EXPECT_FALSE(yarrow::peer_of_accepted(table, accepted).known);
    close(accepted);
    close(listening);
  }
  close(table);
}

// A value as the agent encodes it: its type, then what stands after the colon.
std::string encoded(const std::string& word) {
  static const std::map<std::string, uint32_t> types = {
      {"text", C_BUF},       {"u16", C_UINT16}, {"u32", C_UINT32},    {"prefix", C_IPV4PREFIX},
      {"begin", C_XMLBEGIN}, {"end", C_XMLEND}, {"none", C_NOEXISTS}, {"odd", 99}};
  const std::string type = word.substr(0, word.find(':'));
  const std::string rest = word.substr(std::min(word.size(), type.size() + 1));
  const auto number = static_cast<uint32_t>(atoi(rest.c_str()));
  Writer out;
  out.u32(types.at(type));
  if (type == "text") out.text(rest);
  if (type == "u16") out.u16(static_cast<uint16_t>(number));
  if (type == "u32" || type == "odd") out.u32(number);
  if (type == "prefix") {
    out.u32(0);
    out.u8(static_cast<uint8_t>(number));
  }
  return out.bytes();
}

// A batch of one change: "PATH OPERATION LEVEL", keys, and values as "PATH=VALUE".
std::string batch(const std::string& line) {
  std::istringstream words(line);
  std::string path, keys, values;
  unsigned op = 0, level = 0;
  uint32_t key_count = 0, value_count = 0;
  words >> path >> op >> level;
  for (std::string word; words >> word;) {
    const size_t equals = word.find('=');
    if (equals == std::string::npos) {
      keys += encoded(word);
      ++key_count;
      continue;
    }
    const t_yarrow_cs_node* node = yarrow_cs_node_cd(nullptr, "%s", word.substr(0, equals).c_str());
    Writer tag;
    tag.u32(node != nullptr ? node->tag : 0);
    tag.u32(node != nullptr ? node->ns : 0);
    values += tag.bytes() + encoded(word.substr(equals + 1));
    ++value_count;
  }
  Writer begin, changes, end;
  begin.u8(static_cast<uint8_t>(PushKind::kBatchBegin));
  begin.u64(7);
  changes.u8(static_cast<uint8_t>(PushKind::kChanges));
  changes.u32(1);
  changes.text(path);
  changes.u8(static_cast<uint8_t>(op));
  changes.u8(static_cast<uint8_t>(level));
  changes.u32(key_count);
  changes.raw(keys.data(), keys.size());
  changes.u32(value_count);
  changes.raw(values.data(), values.size());
  end.u8(static_cast<uint8_t>(PushKind::kBatchEnd));
  return framed(begin) + framed(changes) + framed(end);
}

TEST_F(ClientTest, WhatAnAgentTellsOfAnotherTypeThanTheSchemaIsNamedByPath) {
  ASSERT_EQ(why(yarrow_load_schemas(session_.addr(), session_.addr_len())), "ok");
  std::istringstream lines(read_golden("changes/odd_batches.in"));
  std::string all;
  for (std::string line; std::getline(lines, line);) {
    FalseAgent agent({good_status() + batch(line)});
    Socket socket(agent.port());
    ASSERT_EQ(why(yarrow_sub_connect(socket.fd(), socket.addr(), socket.addr_len(), "/", 0)), "ok");
    t_yarrow_batch* told = nullptr;
    all += line + "\n    " + why(yarrow_sub_read(socket.fd(), 5'000, &told)) + "\n";
    yarrow_batch_free(told);
  }
  expect_golden("changes/odd_batches.ok", all);
}

}  // namespace
}  // namespace test
