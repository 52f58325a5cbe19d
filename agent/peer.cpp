// SPDX-License-Identifier: Apache-2.0
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "agent/server.h"

namespace agent {

namespace {

// Finds the line of the socket whose own end is `own` and whose other end is `other`.
bool find_owner(const char* table, const char* own, const char* other, uid_t* owner) {
  FILE* file = fopen(table, "re");
  if (file == nullptr) return false;
  char line[512];
  bool found = false;
  while (!found && fgets(line, sizeof line, file) != nullptr) {
    char local[64];
    char remote[64];
    unsigned uid = 0;
    if (sscanf(line, "%*s %63s %63s %*s %*s %*s %*s %u", local, remote, &uid) != 3) continue;
    found = strcmp(local, own) == 0 && strcmp(remote, other) == 0;
    *owner = uid;
  }
  fclose(file);
  return found;
}

}  // namespace

bool peer_has_uid(int socket, const std::vector<uid_t>& uids) {
  sockaddr_in peer = {};
  sockaddr_in self = {};
  socklen_t size = sizeof peer;
  if (getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &size) != 0) return false;
  size = sizeof self;
  if (getsockname(socket, reinterpret_cast<sockaddr*>(&self), &size) != 0) return false;
  uid_t owner = 0;
  char own[64];
  char other[64];
  // The kernel prints an address as the number its bytes make in memory, a port as a number.
  snprintf(own, sizeof own, "%08" PRIX32 ":%04X", peer.sin_addr.s_addr, ntohs(peer.sin_port));
  snprintf(other, sizeof other, "%08" PRIX32 ":%04X", self.sin_addr.s_addr, ntohs(self.sin_port));
  bool found = find_owner("/proc/net/tcp", own, other, &owner);
  if (!found) {
    // An IPv6 socket that speaks IPv4 stands in the other table, in mapped form.
    const std::string mapped = "0000000000000000FFFF0000";
    found = find_owner("/proc/net/tcp6", (mapped + own).c_str(), (mapped + other).c_str(), &owner);
  }
  return found && std::find(uids.begin(), uids.end(), owner) != uids.end();
}

}  // namespace agent
