// SPDX-License-Identifier: Apache-2.0
//
// The client's functions, each with what it does and how it fails.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <thread>

#include "platform/yarrow/peer.h"
#include "platform/yarrow/wire.h"
#include "support.h"
#include "support/golden.h"

namespace test {
namespace {

class ClientTest : public ::testing::Test {
 protected:
  std::string get(int trans, const char* path) const {
    char text[128] = "";
    int length = maapi_get_elem_text(session_.fd(), trans, text, sizeof text, "%s", path);
    return length >= 0 ? std::string(text, static_cast<size_t>(length)) : "! " + why(length);
  }

  AgentProcess agent_;
  Session session_{agent_.port()};
  int fd_ = session_.fd();
};

char g_name[] = "apps";
constexpr char kSequence[] = "/policy/data-policy{D}/vpn-list{V}/sequence{10}";
const std::string kDataPolicy = policy(
    "<data-policy><name>D</name><vpn-list><name>V</name><sequence><number>10</number></sequence>"
    "</vpn-list></data-policy>");

TEST_F(ClientTest, EditsOfATransactionShowInItAtOnceAndOutsideAfterApply) {
  int trans = session_.begin();
  EXPECT_EQ(why(maapi_create(fd_, trans, "/policy/policer{p}")), "ok");
  EXPECT_EQ(why(maapi_set_elem_text(fd_, trans, "1000", "/policy/policer{p}/rate")), "ok");
  EXPECT_EQ(get(trans, "/policy/policer{p}/rate"), "1000");
  EXPECT_EQ(maapi_exists(fd_, trans, "/policy/policer{p}"), 1);
  EXPECT_EQ(maapi_num_instances(fd_, trans, "/policy/policer"), 1);
  int other = session_.begin(MAAPI_CANDIDATE, MAAPI_READ);
  EXPECT_EQ(maapi_exists(fd_, other, "/policy/policer{p}"), 0);
  EXPECT_EQ(why(maapi_apply_trans(fd_, trans, 1)), "ok");
  EXPECT_EQ(maapi_exists(fd_, other, "/policy/policer{p}"), 0) << "a transaction is a snapshot";
  int later = session_.begin(MAAPI_CANDIDATE, MAAPI_READ);
  EXPECT_EQ(maapi_exists(fd_, later, "/policy/policer{p}"), 1);
  EXPECT_EQ(why(maapi_set_elem_text(fd_, trans, "5", "/policy/policer{p}/burst")), "ok")
      << "kept open";
  EXPECT_EQ(why(maapi_apply_trans(fd_, trans, 0)), "ok");
  EXPECT_EQ(why(maapi_set_elem_text(fd_, trans, "6", "/policy/policer{p}/burst")),
            "bad request: the transaction is applied already");
  EXPECT_EQ(why(maapi_finish_trans(fd_, trans)), "ok");
  EXPECT_EQ(why(maapi_finish_trans(fd_, trans)), "bad request: no such transaction");
}

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
  EXPECT_EQ(why(maapi_delete(fd_, trans, "/policy/policer{%s}", std::string(5000, 'x').c_str())),
            "too big: a path too long");
  EXPECT_EQ(why(maapi_set_elem_text(fd_, trans, std::string(4096, 'x').c_str(),
                                    "/policy/app-id{a}/name")),
            "too big: a value too long");
  std::vector<t_yarrow_value> items(1025);
  for (t_yarrow_value& item : items) item.type = C_XMLTAG;
  t_yarrow_value list = {};
  list.type = C_LIST;
  list.val.list = {static_cast<uint32_t>(items.size()), items.data()};
  EXPECT_EQ(why(maapi_set_elem(fd_, trans, &list, "%s/vpn-list{V}/preferred-color",
                               "/policy/data-policy{D}")),
            "too big: /policy/data-policy/vpn-list/preferred-color: too many items");
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

TEST_F(ClientTest, LoadMergesReplacesOrStartsAfreshAsItsFlagsSay) {
  const std::string received =
      "<config xmlns=\"urn:norvik:config:1.0\"><policy-from-pellux "
      "xmlns=\"urn:zenodra:policy\">";
  const std::string end = "</policy-from-pellux></config>";
  ASSERT_EQ(why(session_.load(policy("<app-id><name>keep</name></app-id>"))), "ok");
  ASSERT_EQ(why(session_.load(received + "<app-id><name>old</name></app-id>" + end, 0x4401)), "ok");
  ASSERT_EQ(why(session_.load(received + "<app-id><name>new</name></app-id>" + end, 0x4401)), "ok");
  int trans = session_.begin();
  EXPECT_EQ(maapi_exists(fd_, trans, "/policy-from-pellux/app-id{old}"), 0);
  EXPECT_EQ(maapi_exists(fd_, trans, "/policy-from-pellux/app-id{new}"), 1);
  ASSERT_EQ(why(session_.load(received + end, 0x4401)), "ok") << "an empty envelope empties it";
  trans = session_.begin();
  EXPECT_EQ(maapi_exists(fd_, trans, "/policy-from-pellux"), 0);
  EXPECT_EQ(why(maapi_delete(fd_, trans, "/policy-from-pellux")), "ok")
      << "though there is nothing";
  TempDirectory directory;
  std::string file = directory.path() + "/one.xml";
  std::ofstream(file) << policy("<app-id><name>a</name></app-id>");
  EXPECT_EQ(why(maapi_load_config(fd_, trans, 0x41, file.c_str())), "ok");
  EXPECT_EQ(maapi_num_instances(fd_, trans, "/policy/app-id"), 2);
  const std::string colors = policy(
      "<app-route-policy><name>D</name><vpn-list><name>V</name><preferred-color>mpls"
      "</preferred-color></vpn-list></app-route-policy>");
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(why(session_.load(colors)), "ok");
    EXPECT_EQ(session_.save("/policy/app-route-policy", MAAPI_CANDIDATE),
              "<config xmlns=\"urn:norvik:config:1.0\">" + colors + "</config>");
  }
  EXPECT_EQ(why(maapi_load_config(fd_, trans, 0x1, file.c_str())), "ok");
  EXPECT_EQ(maapi_num_instances(fd_, trans, "/policy/app-id"), 1);
  EXPECT_EQ(why(maapi_load_config_cmds(fd_, trans, 0x41, "<sequence><number>5</number></sequence>",
                                       "/policy/control-policy{none}")),
            "ok");
  EXPECT_EQ(maapi_exists(fd_, trans, "/policy/control-policy{none}/sequence{5}"), 1);
  EXPECT_EQ(maapi_load_config(fd_, trans, 0x41, (file + ".none").c_str()), YARROW_ERR);
  EXPECT_EQ(yarrow_errno, YARROW_ERR_OS);
}

// What is published, counted and deleted is seen with the library's own calls.
TEST_F(ClientTest, OperationalDataIsGuardedByTheLockOfItsCdbSession) {
  const std::string show = policy("<from-pellux><app-id><name>a</name></app-id></from-pellux>");
  int trans = session_.begin(MAAPI_OPERATIONAL);
  EXPECT_EQ(why(maapi_load_config_cmds(fd_, trans, 0x41, show.c_str(), "%s", "")), "ok");
  EXPECT_EQ(why(maapi_load_config_cmds(fd_, trans, 0x41, kDataPolicy.c_str(), "%s", "")),
            "malformed text: line 1: /policy/data-policy: is no state data");
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

TEST_F(ClientTest, CallsOutOfOrderAreRefused) {
  Socket bare(agent_.port());
  EXPECT_EQ(why(static_cast<int>(maapi_commit_id(bare.fd()))),
            "not connected: the connection is lost");
  ASSERT_EQ(why(maapi_connect(bare.fd(), bare.addr(), bare.addr_len())), "ok");
  EXPECT_EQ(why(maapi_candidate_commit(bare.fd())), "bad request: no user session");
  EXPECT_EQ(why(maapi_start_user_session3(fd_, "u", "c", nullptr, nullptr)),
            "exists already: the socket has its user session");
  EXPECT_EQ(why(maapi_start_trans_flags2(fd_, 9, 2, 0, 0, nullptr, nullptr)),
            "bad request: no such datastore");
  int trans = session_.begin(MAAPI_RUNNING, MAAPI_READ);
  EXPECT_EQ(why(maapi_create(fd_, trans, "/policy/app-id{a}")),
            "access denied: a transaction for reading");
  EXPECT_EQ(why(maapi_end_user_session(fd_)), "ok");
  EXPECT_EQ(why(maapi_finish_trans(fd_, trans)), "bad request: no user session");
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

TEST(ConnectTest, AHungAgentIsLeftOnceTheTimeIsOver) {
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
  int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* any = reinterpret_cast<sockaddr*>(&address);
  ASSERT_EQ(bind(listener, any, size) + listen(listener, 0) + getsockname(listener, any, &size), 0);
  Socket first(ntohs(address.sin_port));
  Socket second(ntohs(address.sin_port));
  ASSERT_EQ(connect(first.fd(), any, size), 0);
  EXPECT_EQ(why(maapi_connect(second.fd(), any, size)),
            "out of time: the agent accepts no connection");
  close(listener);
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
    FalseAgent any;  // for a port that is listened at
    Socket listener(0);
    socklen_t size = listener.addr_len();
    sockaddr_in at = {};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(listener.fd(), reinterpret_cast<sockaddr*>(&at), size), 0);
    ASSERT_EQ(listen(listener.fd(), 4), 0);
    ASSERT_EQ(getsockname(listener.fd(), reinterpret_cast<sockaddr*>(&at), &size), 0);
    sockaddr_in6 mapped = {};
    mapped.sin6_family = AF_INET6;
    mapped.sin6_port = at.sin_port;
    inet_pton(AF_INET6, "::ffff:127.0.0.1", &mapped.sin6_addr);
    const bool plain = family == AF_INET;
    int client = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(
        connect(client,
                plain ? reinterpret_cast<sockaddr*>(&at) : reinterpret_cast<sockaddr*>(&mapped),
                plain ? sizeof at : sizeof mapped),
        0);
    yarrow::Peer server = yarrow::peer_of_connected(table, client);
    EXPECT_TRUE(server.known) << "not accepted yet: " << server.why;
    int accepted = accept(listener.fd(), nullptr, nullptr);
    for (const yarrow::Peer& peer : {yarrow::peer_of_accepted(table, accepted),
                                     yarrow::peer_of_connected(table, client), server}) {
      EXPECT_TRUE(peer.known) << peer.why;
      EXPECT_EQ(peer.uid, geteuid());
    }
    close(client);
    EXPECT_FALSE(yarrow::peer_of_accepted(table, accepted).known);
    close(accepted);
  }
  close(table);
}

// One change of a batch, in the agent's own encoding.
struct Told {
  const char* path;
  uint8_t op, level;
  std::vector<Writer> keys, values;  // a value with its tag in front
  const char* result;
};

Writer number(uint32_t type, uint32_t value) {
  Writer out;
  out.u32(type);
  out.u32(value);
  return out;
}

Writer number16(uint16_t value) {
  Writer out;
  out.u32(C_UINT16);
  out.u16(value);
  return out;
}

Writer text(const char* value) {
  Writer out;
  out.u32(C_BUF);
  out.text(value);
  return out;
}

Writer bare(uint32_t type) {
  Writer out;
  out.u32(type);
  return out;
}

Writer tagged(const char* path, const Writer& value) {
  const t_yarrow_cs_node* node = yarrow_cs_node_cd(nullptr, "%s", path);
  Writer out;
  out.u32(node != nullptr ? node->tag : 0);
  out.u32(node != nullptr ? node->ns : 0);
  out.raw(value.view().data(), value.size());
  return out;
}

std::string batch(const Told& told) {
  Writer begin;
  begin.u8(static_cast<uint8_t>(PushKind::kBatchBegin));
  begin.u64(7);
  Writer changes;
  changes.u8(static_cast<uint8_t>(PushKind::kChanges));
  changes.u32(1);
  changes.text(told.path);
  changes.u8(told.op);
  changes.u8(told.level);
  for (const std::vector<Writer>* all : {&told.keys, &told.values}) {
    changes.u32(static_cast<uint32_t>(all->size()));
    for (const Writer& one : *all) changes.raw(one.view().data(), one.size());
  }
  Writer end;
  end.u8(static_cast<uint8_t>(PushKind::kBatchEnd));
  return framed(begin) + framed(changes) + framed(end);
}

TEST_F(ClientTest, WhatAnAgentTellsOfAnotherTypeThanTheSchemaIsNamedByPath) {
  ASSERT_EQ(why(yarrow_load_schemas(session_.addr(), session_.addr_len())), "ok");
  const char* const policer = "/policy/policer";
  const char* const rate = "/policy/policer/rate";
  const char* const sequence = "/policy/data-policy/vpn-list/sequence";
  const char* const match = "/policy/data-policy/vpn-list/sequence/match";
  const std::vector<Writer> names = {text("D"), text("V"), number16(10)};
  Writer long_prefix;
  long_prefix.u32(C_IPV4PREFIX);
  long_prefix.u32(0);
  long_prefix.u8(33);
  const std::vector<Told> rows = {
      {policer, 1, 1, {text("p")}, {}, "ok"},
      {"/unknown/list",
       1,
       1,
       {text("p")},
       {tagged("", number(99, 5))},
       "/unknown/list: the agent told a value of no known form"},
      {"/unknown/list", 1, 1, {text("p")}, {tagged("", number(C_UINT32, 5))}, "ok"},
      {policer,
       9,
       1,
       {text("p")},
       {},
       "/policy/policer: the agent told no operation that there is"},
      {policer,
       1,
       1,
       {number(C_UINT32, 1)},
       {},
       "/policy/policer, key name: the agent told a uint32 (expected a text)"},
      {policer, 1, 1, {}, {}, "/policy/policer, key name: the agent told no key (expected a text)"},
      {policer,
       1,
       2,
       {text("p")},
       {},
       "/policy/policer: the agent told keys of other lists (expected those of the path)"},
      {policer,
       1,
       1,
       {text("p")},
       {tagged(rate, text("5"))},
       "/policy/policer/rate: the agent told a text (expected a uint64)"},
      {policer, 1, 1, {text("p")}, {tagged(rate, bare(C_NOEXISTS))}, "ok"},
      {policer,
       1,
       1,
       {text("p")},
       {tagged(rate, long_prefix)},
       "/policy/policer: the agent told a value of no known form"},
      {sequence,
       1,
       3,
       names,
       {tagged(match, bare(C_XMLBEGIN))},
       "/policy/data-policy/vpn-list/sequence/match: the agent told a container without end "
       "(expected the end of a container)"},
      {sequence,
       1,
       3,
       names,
       {tagged(match, bare(C_XMLEND))},
       "/policy/data-policy/vpn-list/sequence: the agent told the end of a container (expected its "
       "begin before)"},
      {sequence,
       1,
       3,
       names,
       {tagged(match, number(C_UINT32, 1))},
       "/policy/data-policy/vpn-list/sequence/match: the agent told a uint32 (expected a container "
       "or a list)"},
  };
  for (const Told& row : rows) {
    FalseAgent agent({good_status() + batch(row)});
    Socket socket(agent.port());
    ASSERT_EQ(why(yarrow_sub_connect(socket.fd(), socket.addr(), socket.addr_len(), "/", 0)), "ok");
    t_yarrow_batch* told = nullptr;
    int status = yarrow_sub_read(socket.fd(), 5'000, &told);
    const std::string expected = row.result;
    EXPECT_EQ(why(status), expected == "ok" ? expected : "bad request: " + expected);
    yarrow_batch_free(told);
  }
}

}  // namespace
}  // namespace test
