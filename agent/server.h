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
#include "platform/service/log.h"

namespace agent {

struct Connection {
  enum class State : uint8_t { kHello, kServing, kClosing };  // closing: once its output is sent
  int socket = -1;
  State state = State::kHello;
  yarrow::SocketKind kind = yarrow::SocketKind::kMaapi;
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

// A Unix socket to listen on.
struct SocketPath {
  int listener = -1;
  std::string name;  // empty: none was made
  dev_t device = 0;  // of the file that was made
  ino_t inode = 0;
  bool has_group = false;
  gid_t group = 0;  // whose members are let in
};

struct Server {
  Agent agent;
  int listener = -1;
  SocketPath path;
  int wake[2] = {-1, -1};    // a byte in it ends the server
  int peer_table = -1;       // kept, so that a lack of descriptors lets nobody in
  int64_t accept_after = 0;  // no descriptor was left: not before then
  std::vector<uid_t> allowed_uids;
  service::LogBurst refused, crowded, starved, closed;
  uint64_t next_id = 1;
  std::list<Connection> connections;

  Server() = default;
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
};

// Listens on the loopback address, where port 0 takes a free one and `bound` receives the port, and
// on a Unix socket unless `path` is empty: for its owner alone, or for the group of that name too.
Result server_listen(Server& server, uint16_t port, uint16_t* bound, const std::string& path,
                     const std::string& group);

// Lets go of all that server_listen took.
void server_leave(Server& server);

// Whether the peer of an accepted connection is served. `by_path`: it came by the Unix socket.
// `uid` stays as it is where the kernel tells none.
Result server_admit(const Server& server, int socket, bool by_path, uid_t* uid);

void server_run(Server& server);

// Gives the connection what of its pending batches there is room for in its output.
void subscription_fill(Connection& connection);

// Tells the subscribers of a commit.
void subscription_publish(Server& server, const CommitRef& commit);

// Begins a subscription as its hello asks.
Result subscription_begin(const Agent& agent, Connection& connection, yarrow::Reader& in);

}  // namespace agent
#endif
