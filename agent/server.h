// SPDX-License-Identifier: Apache-2.0
//
// The agent's sockets: accepting, framing, and the telling of subscribers.
#ifndef AGENT_SERVER_H
#define AGENT_SERVER_H

#include <sys/types.h>

#include <list>
#include <string>
#include <vector>

#include "agent/session.h"

namespace agent {

struct Connection {
  enum class State : uint8_t { kHello, kServing, kClosing };  // closing: once its output is sent
  int socket = -1;
  State state = State::kHello;
  yarrow::SocketKind kind = yarrow::SocketKind::kMaapi;
  bool refused = false;  // its peer is of another uid
  bool dead = false;
  std::string in, out;
  size_t out_sent = 0;
  int64_t deadline = 0;  // for the rest of a frame, or the hello; 0: none
  Session session;
  int stream = 0;
  std::string filter;  // subscription: changes at this path and below
  std::deque<CommitRef> pending;
  size_t next_change = 0;  // in the first pending commit
  bool in_batch = false;
};

struct Server {
  Agent agent;
  int listener = -1;
  int wake[2] = {-1, -1};  // a byte in it ends the server
  std::vector<uid_t> allowed_uids;
  uint64_t next_id = 1;
  std::list<Connection> connections;

  Server() = default;
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
};

// Listens on the loopback address; port 0 takes a free one. `bound` receives the port.
Result server_listen(Server& server, uint16_t port, uint16_t* bound);

void server_run(Server& server);

// Whether the process at the other end of an accepted connection has one of the uids. Linux tells
// the uid of a socket's owner in /proc/net/tcp.
bool peer_has_uid(int socket, const std::vector<uid_t>& uids);

// Gives the connection what of its pending batches there is room for in its output.
void subscription_fill(Connection& connection);

// Tells the subscribers of a commit.
void subscription_publish(Server& server, const CommitRef& commit);

// Begins a subscription as its hello asks.
Result subscription_begin(const Agent& agent, Connection& connection, yarrow::Reader& in);

}  // namespace agent
#endif
