// SPDX-License-Identifier: Apache-2.0
//
// Whatever bytes arrive, the agent answers or closes, and serves the others on.
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>

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

void drain(int fd) {
  char block[65536];
  while (recv(fd, block, sizeof block, MSG_DONTWAIT) > 0) {
  }
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

// A request that makes sense, as the raw material of ones that do not.
std::string good_request(std::mt19937& random) {
  Writer out;
  out.u8(static_cast<uint8_t>(1 + random() % 29));
  out.u32(1 + random() % 3);
  out.text("/policy/lists/site-list{A}/site{1}");
  out.u32(random() % 45);
  out.text("5");
  return out.bytes();
}

std::string spoiled(std::string body, std::mt19937& random) {
  switch (random() % 4) {
    case 0:
      body.resize(random() % (body.size() + 1));
      break;
    case 1:
      for (int i = 0; i < 3 && !body.empty(); ++i)
        body[random() % body.size()] = static_cast<char>(random());
      break;
    case 2:
      body.append(random() % 64, static_cast<char>(random()));
      break;
    default:
      body.assign(random() % 64, '\0');
      for (char& byte : body) byte = static_cast<char>(random());
  }
  return body;
}

TEST(HostileTest, AThousandSpoiledFramesLeaveTheAgentServing) {
  AgentProcess agent;
  Session witness(agent.port());
  Subscriber subscriber(agent.port(), "/policy-from-pellux");
  ASSERT_EQ(why(witness.commit(policy("<app-id><name>a</name></app-id>"))), "ok");
  std::string before = witness.save("/policy");
  std::mt19937 random(11);
  for (int i = 0; i < 100; ++i) {
    Socket socket(agent.port());
    ASSERT_EQ(connect(socket.fd(), socket.addr(), socket.addr_len()), 0);
    auto kind = static_cast<SocketKind>(1 + i % 4);
    if (i % 5 == 0) {
      send_raw(socket.fd(), framed(spoiled(hello(kind), random)));
    } else {
      send_raw(socket.fd(), framed(hello(kind)));
      Writer session;
      session.u8(static_cast<uint8_t>(Request::kStartSession));
      for (const char* text : {"u", "c", "i", "s"}) session.text(text);
      Writer trans;
      trans.u8(static_cast<uint8_t>(Request::kStartTrans));
      trans.u32(MAAPI_CANDIDATE);
      trans.u32(MAAPI_READ_WRITE);
      Writer cdb;
      cdb.u8(static_cast<uint8_t>(Request::kCdbStart));
      cdb.u32(CDB_OPERATIONAL);
      cdb.u32(0);
      send_raw(socket.fd(), framed(session.bytes()) + framed(trans.bytes()) + framed(cdb.bytes()));
    }
    for (int j = 0; j < 10; ++j) {
      send_raw(socket.fd(), framed(spoiled(good_request(random), random)));
      drain(socket.fd());
    }
    // A frame that is cut short, or claims to be huge.
    if (i % 3 == 0) send_raw(socket.fd(), std::string("\0\0\1\0cut", 7));
    if (i % 3 == 1) send_raw(socket.fd(), "\xff\xff\xff\xff");
    ASSERT_EQ(maapi_commit_id(witness.fd()) >= 1, true) << "round " << i;
  }
  EXPECT_EQ(witness.save("/policy").substr(0, 60), before.substr(0, 60));
  EXPECT_EQ(agent.terminate(), 0) << "no crash on the way out";
  EXPECT_EQ(subscriber.next(), "closed");
  EXPECT_EQ(why(maapi_candidate_commit(witness.fd())), "not connected: the connection is lost");
}

TEST(HostileTest, AFrameBeyondTheLimitIsAnsweredAndTheConnectionClosed) {
  AgentProcess agent;
  Socket socket(agent.port());
  ASSERT_EQ(connect(socket.fd(), socket.addr(), socket.addr_len()), 0);
  send_raw(socket.fd(), std::string("\x7f\xff\xff\xff", 4));
  char answer[64];
  ssize_t got = recv(socket.fd(), answer, sizeof answer, MSG_WAITALL);
  ASSERT_GT(got, 8);
  EXPECT_EQ(yarrow::Reader(std::string_view(answer + 4, 4)).u32(), uint32_t{YARROW_ERR_TOOBIG});
}

TEST(HostileTest, ManyIdleConnectionsDoNotKeepAnEarlierOneFromBeingServed) {
  AgentProcess agent;
  Session first(agent.port());
  std::vector<std::unique_ptr<Socket>> crowd;
  for (int i = 0; i < 400; ++i) {
    crowd.push_back(std::make_unique<Socket>(agent.port()));
    ASSERT_EQ(connect(crowd.back()->fd(), first.addr(), first.addr_len()), 0);
  }
  EXPECT_EQ(maapi_commit_id(first.fd()), 0);
  crowd.clear();
  Session later(agent.port());
  EXPECT_EQ(maapi_commit_id(later.fd()), 0) << "room again once they are gone";
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
  for (int i = 0; i < 100; ++i) {
    status =
        maapi_start_trans_flags2(session.fd(), MAAPI_CANDIDATE, MAAPI_READ, 0, 0, nullptr, nullptr);
  }
  EXPECT_EQ(why(status), "too big: too many transactions");
}

// Needs the right to take on another user's id.
TEST(HostileTest, APeerOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  AgentProcess agent;
  pid_t child = fork();
  if (child == 0) {
    constexpr uid_t kNobody = 65534;
    if (setuid(kNobody) != 0) _exit(2);
    Socket socket(agent.port());
    int status = maapi_connect(socket.fd(), socket.addr(), socket.addr_len());
    _exit(status == YARROW_ERR && yarrow_errno == YARROW_ERR_ACCESS ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  Session own(agent.port());
  EXPECT_EQ(maapi_commit_id(own.fd()), 0);
}

}  // namespace
}  // namespace test
