// SPDX-License-Identifier: Apache-2.0
//
// Whose process is at the other end of a connection on this machine. Both sides ask: the agent whom
// it serves, the client whose agent it talks to.
//
// A Unix socket knows its peer. Of a TCP connection the kernel is asked for the one socket at the
// other end (sock_diag): the cost does not grow with the sockets of the machine, and a connection
// that is closed has no owner, whatever uid the kernel's tables print for it.
#ifndef YARROW_PEER_H
#define YARROW_PEER_H

#include <sys/types.h>

#include <string>

namespace yarrow {

struct Peer {
  bool known = false;
  uid_t uid = 0;
  std::string why;  // not known
};

// A channel to the kernel's table of sockets; -1, with errno set, when there is none.
int peer_table_open();

// The owner of the socket at the other end of a client's connection: established, and held by a
// process.
Peer peer_of_accepted(int table, int sock);

// The owner of the server that a client's connection reached, whether or not it accepted it yet.
Peer peer_of_connected(int table, int sock);

}  // namespace yarrow
#endif
