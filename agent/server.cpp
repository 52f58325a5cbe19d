// SPDX-License-Identifier: Apache-2.0
//
// One thread, one poll loop. Each turn answers at most one request a connection, so that none can
// keep the others waiting for longer than its one request takes. Everything a peer can make the
// agent hold is bounded: connections, a connection's unread input and unsent output, the time for a
// frame. Whoever is not served holds nothing at all.
#include "agent/server.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace agent {

namespace {

using yarrow::Reader;
using yarrow::Request;
using yarrow::SocketKind;
using yarrow::Writer;

constexpr size_t kMaxConnections = 256;
constexpr size_t kReadSize = 256u << 10;
constexpr size_t kMaxUnsent = 16u << 20;
constexpr size_t kMaxIdleBuffer = 1u << 20;
constexpr int64_t kFrameTime = 30'000;
constexpr int64_t kHelloTime = 10'000;
constexpr int64_t kFarewellTime = 60'000;  // without progress
constexpr int kTick = 1'000;
constexpr int kAcceptsATurn = 16;
constexpr uid_t kNobody = static_cast<uid_t>(-1);
constexpr int64_t kAcceptPause = 1'000;
constexpr size_t kMaxResultsKept = 8;
constexpr int64_t kResultTime = 60'000;
constexpr size_t kFrameHead = 4;
constexpr size_t kMaxReason = 1u << 20;

std::string status_frame(const Result& result, std::string_view content) {
  Writer frame;
  frame.u32(0);
  frame.u32(result.error);
  if (result.ok()) {
    frame.raw(content.data(), content.size());
  } else {
    frame.text(std::string_view(result.reason).substr(0, kMaxReason));
  }
  frame.patch_u32(0, static_cast<uint32_t>(frame.size() - kFrameHead));
  return std::move(frame.bytes());
}

// What one big frame or answer needed is not kept for the rest of a connection's life.
void trim(std::string& buffer) {
  if (buffer.size() < kReadSize && buffer.capacity() > kMaxIdleBuffer) buffer.shrink_to_fit();
}

void add_status(Connection& connection, const Result& result, std::string_view content) {
  connection.out += status_frame(result, content);
}

Result begin_stream(Agent& agent, Connection& connection, Reader& in) {
  int id = static_cast<int>(in.u32());
  auto at = agent.streams.find(id);
  if (!in.ok() || at == agent.streams.end() || at->second.taken) {
    return failed(YARROW_ERR_NOEXISTS, "no such stream");
  }
  at->second.taken = true;
  at->second.deadline = INT64_MAX;  // while it is read
  connection.stream = id;
  return {};
}

// A stream's reader has gone. Whether it was delivered is kept for a while, for whoever asks; of
// one session the last few, so that one that never asks holds no more than that.
void end_stream(Agent& agent, int id) {
  auto ended = agent.streams.find(id);
  if (ended == agent.streams.end()) return;
  const uint64_t owner = ended->second.owner;
  ended->second.deadline = now_ms() + kResultTime;
  size_t kept = 0;
  for (auto at = agent.streams.rbegin(); at != agent.streams.rend(); ++at) {
    bool has_ended = at->second.taken && at->second.deadline != INT64_MAX;
    if (at->second.owner != owner || !has_ended || ++kept <= kMaxResultsKept) continue;
    agent.streams.erase(std::next(at).base());
    return;
  }
}

void answer_hello(Server& server, Connection& connection, std::string_view body) {
  Reader in(body);
  Result result;
  uint32_t magic = in.u32();
  auto kind = static_cast<SocketKind>(in.u8());
  if (!in.ok() || magic != yarrow::kWireMagic || kind < SocketKind::kMaapi ||
      kind > SocketKind::kSubscription) {
    result = failed(YARROW_ERR_PROTOCOL, "not a hello");
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

void publish_commits(Server& server) {
  while (!server.agent.unpublished.empty()) {
    subscription_publish(server, server.agent.unpublished.front());
    server.agent.unpublished.pop_front();
  }
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
  publish_commits(server);
  if (content.size() > yarrow::kMaxFrame - kFrameHead) {
    result = failed(YARROW_ERR_TOOBIG, "the answer is too big");
  }
  add_status(connection, result, content.view());
}

void log_closed(Server& server, const Connection& connection, const char* reason) {
  service::log_burst(server.closed, service::LogLevel::kWarning, "a connection is closed",
                     {{"reason", reason},
                      {"user", connection.session.user},
                      {"client", connection.session.client_id}});
}

// What a connection took too long for.
const char* lateness(const Connection& connection) {
  switch (connection.state) {
    case Connection::State::kHello:
      return "no hello in time";
    case Connection::State::kClosing:
      return "nobody read the rest in time";
    default:
      return "no whole frame in time";
  }
}

// Answers the next whole frame of the input; false when there is none yet.
bool answer_next(Server& server, Connection& connection) {
  if (connection.state == Connection::State::kClosing || connection.dead) return false;
  if (connection.in.size() < kFrameHead) return false;
  uint32_t length = Reader(connection.in).u32();
  if (length > yarrow::kMaxFrame) {
    add_status(connection, failed(YARROW_ERR_TOOBIG, "a frame too big"), {});
    log_closed(server, connection, "a frame too big");
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
  trim(connection.in);
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
  trim(connection.out);
  connection.out_sent = 0;
  if (connection.state != Connection::State::kClosing) return;
  if (auto stream = agent.streams.find(connection.stream); stream != agent.streams.end()) {
    stream->second.delivered = true;
  }
  connection.dead = true;
}

// Ends what the connection held, here and for others.
void let_go(Server& server, const Connection& connection) {
  session_end(server.agent, connection.session);
  if (connection.stream != 0) end_stream(server.agent, connection.stream);
  close(connection.socket);
  server.accept_after = 0;
}

void drop_dead(Server& server) {
  int64_t now = now_ms();
  for (auto at = server.connections.begin(); at != server.connections.end();) {
    bool late = at->deadline != 0 && now > at->deadline && !has_whole_frame(*at);
    if (!at->dead && !late) {
      ++at;
      continue;
    }
    if (late && !at->dead) log_closed(server, *at, lateness(*at));
    let_go(server, *at);
    at = server.connections.erase(at);
  }
  std::erase_if(server.agent.streams,
                [&](const auto& stream) { return now > stream.second.deadline; });
}

bool out_of_descriptors(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

// Says why not, if that goes out at once, and forgets the connection.
void refuse(int socket, const Result& why) {
  const std::string frame = status_frame(why, {});
  [[maybe_unused]] ssize_t sent =
      send(socket, frame.data(), frame.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  close(socket);
}

// Whether all places are taken, by peers that are still there.
bool is_full(Server& server) {
  if (server.connections.size() < kMaxConnections) return false;
  for (Connection& connection : server.connections) {
    char byte = 0;
    connection.dead =
        connection.dead || recv(connection.socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
  }
  drop_dead(server);
  return server.connections.size() == kMaxConnections;
}

void accept_some(Server& server, int listener) {
  for (int i = 0; i < kAcceptsATurn; ++i) {
    int socket = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (socket < 0) {
      // The connection stays in the listener's queue, which would wake the server again at once.
      if (!out_of_descriptors(errno)) return;
      service::log_burst(server.starved, service::LogLevel::kWarning,
                         "no connection can be accepted", {{"reason", strerror(errno)}});
      server.accept_after = now_ms() + kAcceptPause;
      return;
    }
    uid_t uid = kNobody;
    bool by_path = listener == server.path.listener;
    Result result = server_admit(server, socket, by_path, &uid);
    if (result.ok() && is_full(server)) {
      result = failed(YARROW_ERR_TOOBIG, "too many connections");
      service::log_burst(server.crowded, service::LogLevel::kWarning,
                         "a connection beyond the limit is refused",
                         {{"limit", kMaxConnections}, {"uid", uid}});
    } else if (!result.ok()) {
      service::log_burst(
          server.refused, service::LogLevel::kWarning, "a peer is refused",
          {{"uid", uid != kNobody ? std::to_string(uid) : ""}, {"reason", result.reason}});
    }
    if (!result.ok()) {
      refuse(socket, result);
      continue;
    }
    int on = 1;
    if (!by_path) setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    Connection& connection = server.connections.emplace_back();
    connection.socket = socket;
    connection.session.id = server.next_id++;
    connection.deadline = now_ms() + kHelloTime;
  }
}

void take_back_overdue(Server& server) {
  const int64_t confirm_by = server.agent.stores.confirm_by;
  if (confirm_by == 0 || now_ms() < confirm_by) return;
  session_take_back(server.agent);
  publish_commits(server);
}

// Waits for something to do; false when the server is to end.
bool wait_for_work(Server& server, bool at_once, std::vector<pollfd>& watched) {
  watched.clear();
  watched.push_back({server.wake[0], POLLIN, 0});
  const short accepts = now_ms() < server.accept_after ? 0 : POLLIN;
  watched.push_back({server.listener, accepts, 0});
  watched.push_back({server.path.listener, accepts, 0});  // -1 is passed over
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
  server_leave(*this);
}

void server_run(Server& server) {
  std::vector<pollfd> watched;
  bool more = false;
  take_back_overdue(server);  // of before the start, before anybody is served
  while (wait_for_work(server, more, watched)) {
    more = false;
    size_t index = 3;
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
    drop_dead(server);
    take_back_overdue(server);
    if ((watched[1].revents & POLLIN) != 0) accept_some(server, server.listener);
    if ((watched[2].revents & POLLIN) != 0) accept_some(server, server.path.listener);
    datastores_tidy(
        server.agent.stores);  // after the answer to the commit that made it due is sent
  }
}

}  // namespace agent
