// SPDX-License-Identifier: Apache-2.0
//
// One thread, one poll loop. Each turn answers at most one request a connection, so that none can
// keep the others waiting for longer than its one request takes. Everything a peer can make the
// agent hold is bounded: connections, a connection's unread input and unsent output, the time for a
// frame.
#include "agent/server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace agent {

namespace {

using yarrow::Reader;
using yarrow::Request;
using yarrow::SocketKind;
using yarrow::Writer;

constexpr size_t kMaxConnections = 256;
constexpr size_t kReadSize = 256u << 10;
constexpr size_t kMaxUnsent = 16u << 20;
constexpr int64_t kFrameTime = 30'000;
constexpr int64_t kHelloTime = 10'000;
constexpr int64_t kFarewellTime = 60'000;  // without progress
constexpr int kTick = 1'000;
constexpr size_t kFrameHead = 4;
constexpr size_t kMaxReason = 1u << 20;

void add_status(Connection& connection, const Result& result, std::string_view content) {
  Writer frame;
  frame.u32(0);
  frame.u32(result.error);
  if (result.ok()) {
    frame.raw(content.data(), content.size());
  } else {
    frame.text(std::string_view(result.reason).substr(0, kMaxReason));
  }
  frame.patch_u32(0, static_cast<uint32_t>(frame.size() - kFrameHead));
  connection.out += frame.bytes();
}

Result begin_stream(Agent& agent, Connection& connection, Reader& in) {
  int id = static_cast<int>(in.u32());
  auto at = agent.streams.find(id);
  if (!in.ok() || at == agent.streams.end() || at->second.taken) {
    return failed(YARROW_ERR_NOEXISTS, "no such stream");
  }
  at->second.taken = true;
  connection.stream = id;
  return {};
}

void answer_hello(Server& server, Connection& connection, std::string_view body) {
  Reader in(body);
  Result result;
  uint32_t magic = in.u32();
  auto kind = static_cast<SocketKind>(in.u8());
  if (!in.ok() || magic != yarrow::kWireMagic || kind < SocketKind::kMaapi ||
      kind > SocketKind::kSubscription) {
    result = failed(YARROW_ERR_PROTOCOL, "not a hello");
  } else if (connection.refused) {
    result = failed(YARROW_ERR_ACCESS, "the peer belongs to another user");
  } else if (kind == SocketKind::kStream) {
    result = begin_stream(server.agent, connection, in);
  } else if (kind == SocketKind::kSubscription) {
    result = subscription_begin(server.agent, connection, in);
  }
  connection.kind = kind;
  connection.state = result.ok() ? Connection::State::kServing : Connection::State::kClosing;
  add_status(connection, result, {});
  if (connection.stream != 0) {
    connection.out += stream_text(server.agent, connection.stream);
    connection.state = Connection::State::kClosing;
  }
  bool closing = connection.state == Connection::State::kClosing;
  connection.deadline = closing ? now_ms() + kFarewellTime : 0;
}

void answer_request(Server& server, Connection& connection, std::string_view body) {
  if (connection.kind == SocketKind::kSubscription || connection.kind == SocketKind::kStream) {
    connection.dead = true;  // such a socket has nothing to say
    return;
  }
  Reader in(body);
  auto request = static_cast<Request>(in.u8());
  Writer content;
  Result result = in.ok() ? session_answer(server.agent, connection.session, connection.kind,
                                           request, in, content)
                          : failed(YARROW_ERR_PROTOCOL, "an empty request");
  // Subscribers first: whoever learns that a commit is done can find its batch under way.
  while (!server.agent.unpublished.empty()) {
    subscription_publish(server, server.agent.unpublished.front());
    server.agent.unpublished.pop_front();
  }
  if (content.size() > yarrow::kMaxFrame - kFrameHead) {
    result = failed(YARROW_ERR_TOOBIG, "the answer is too big");
  }
  add_status(connection, result, content.view());
}

// Answers the next whole frame of the input; false when there is none yet.
bool answer_next(Server& server, Connection& connection) {
  if (connection.state == Connection::State::kClosing || connection.dead) return false;
  if (connection.in.size() < kFrameHead) return false;
  uint32_t length = Reader(connection.in).u32();
  if (length > yarrow::kMaxFrame) {
    add_status(connection, failed(YARROW_ERR_TOOBIG, "a frame too big"), {});
    connection.state = Connection::State::kClosing;
    return false;
  }
  if (connection.in.size() < kFrameHead + length) return false;
  std::string_view body = std::string_view(connection.in).substr(kFrameHead, length);
  if (connection.state == Connection::State::kHello) {
    answer_hello(server, connection, body);
  } else {
    answer_request(server, connection, body);
  }
  connection.in.erase(0, kFrameHead + length);
  if (connection.state != Connection::State::kClosing) {
    connection.deadline = connection.in.empty() ? 0 : now_ms() + kFrameTime;
  }
  return true;
}

bool has_whole_frame(const Connection& connection) {
  if (connection.in.size() < kFrameHead) return false;
  return connection.in.size() >= kFrameHead + Reader(connection.in).u32();
}

void read_some(Connection& connection) {
  size_t before = connection.in.size();
  connection.in.resize(before + kReadSize);
  ssize_t got = recv(connection.socket, connection.in.data() + before, kReadSize, MSG_DONTWAIT);
  connection.in.resize(before + (got > 0 ? static_cast<size_t>(got) : 0));
  bool later = got < 0 && (errno == EAGAIN || errno == EINTR);
  if (got == 0 || (got < 0 && !later)) connection.dead = true;
  if (connection.state == Connection::State::kClosing) connection.in.clear();
  if (before == 0 && !connection.in.empty() && connection.deadline == 0) {
    connection.deadline = now_ms() + kFrameTime;
  }
}

void write_some(Agent& agent, Connection& connection) {
  while (connection.out_sent < connection.out.size()) {
    ssize_t sent = send(connection.socket, connection.out.data() + connection.out_sent,
                        connection.out.size() - connection.out_sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0 && errno == EAGAIN) return;
    if (sent <= 0) {
      connection.dead = true;
      return;
    }
    connection.out_sent += static_cast<size_t>(sent);
    if (connection.state == Connection::State::kClosing)
      connection.deadline = now_ms() + kFarewellTime;
  }
  connection.out.clear();
  connection.out_sent = 0;
  if (connection.state != Connection::State::kClosing) return;
  if (auto stream = agent.streams.find(connection.stream); stream != agent.streams.end()) {
    stream->second.delivered = true;
  }
  connection.dead = true;
}

void accept_one(Server& server) {
  int socket = accept4(server.listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (socket < 0) return;
  if (server.connections.size() == kMaxConnections) {
    close(socket);
    return;
  }
  int on = 1;
  setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  Connection& connection = server.connections.emplace_back();
  connection.socket = socket;
  connection.session.id = server.next_id++;
  connection.refused = !peer_has_uid(socket, server.allowed_uids);
  connection.deadline = now_ms() + kHelloTime;
}

void drop_dead(Server& server) {
  int64_t now = now_ms();
  for (auto at = server.connections.begin(); at != server.connections.end();) {
    bool late = at->deadline != 0 && now > at->deadline && !has_whole_frame(*at);
    if (!at->dead && !late) {
      ++at;
      continue;
    }
    session_end(server.agent, at->session);
    close(at->socket);
    at = server.connections.erase(at);
  }
  std::erase_if(server.agent.streams, [&](const auto& stream) {
    return !stream.second.taken && now > stream.second.deadline;
  });
}

// Waits for something to do; false when the server is to end.
bool wait_for_work(Server& server, bool at_once, std::vector<pollfd>& watched) {
  watched.clear();
  watched.push_back({server.wake[0], POLLIN, 0});
  watched.push_back({server.listener, POLLIN, 0});
  for (const Connection& connection : server.connections) {
    size_t unsent = connection.out.size() - connection.out_sent;
    short events = 0;
    if (unsent > 0) events |= POLLOUT;
    if (!has_whole_frame(connection) && unsent < kMaxUnsent) events |= POLLIN;
    watched.push_back({connection.socket, events, 0});
  }
  if (poll(watched.data(), watched.size(), at_once ? 0 : kTick) < 0 && errno != EINTR) return false;
  return (watched[0].revents & POLLIN) == 0;
}

}  // namespace

Server::~Server() {
  for (const Connection& connection : connections) close(connection.socket);
  for (int handle : {listener, wake[0], wake[1]}) {
    if (handle >= 0) close(handle);
  }
}

Result server_listen(Server& server, uint16_t port, uint16_t* bound) {
  server.listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  int on = 1;
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  bool done = server.listener >= 0 && pipe2(server.wake, O_CLOEXEC | O_NONBLOCK) == 0 &&
              setsockopt(server.listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
              bind(server.listener, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
              listen(server.listener, SOMAXCONN) == 0 &&
              getsockname(server.listener, reinterpret_cast<sockaddr*>(&address), &size) == 0;
  if (!done) {
    return failed(YARROW_ERR_OS, "listening on port " + std::to_string(port) + ": " +
                                     std::generic_category().message(errno));
  }
  *bound = ntohs(address.sin_port);
  return {};
}

void server_run(Server& server) {
  std::vector<pollfd> watched;
  bool more = false;
  while (wait_for_work(server, more, watched)) {
    more = false;
    size_t index = 2;
    for (Connection& connection : server.connections) {
      short events = watched[index++].revents;
      if ((events & (POLLIN | POLLHUP | POLLERR)) != 0) read_some(connection);
    }
    for (Connection& connection : server.connections) {
      if (connection.out.size() - connection.out_sent < kMaxUnsent) answer_next(server, connection);
    }
    for (Connection& connection : server.connections) {
      if (connection.dead) continue;
      subscription_fill(connection);
      write_some(server.agent, connection);
      more = more || has_whole_frame(connection) ||
             (!connection.pending.empty() && connection.out.empty());
    }
    if ((watched[1].revents & POLLIN) != 0) accept_one(server);
    drop_dead(server);
    datastores_tidy(
        server.agent.stores);  // after the answer to the commit that made it due is sent
  }
}

}  // namespace agent
