// SPDX-License-Identifier: Apache-2.0
//
// Where the agent listens, and whom it lets in. Both are decided before a connection is kept: one
// that is refused is told so and closed, and takes nobody's place.
#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "agent/server.h"
#include "platform/yarrow/peer.h"

namespace agent {

namespace {

constexpr mode_t kOwnerOnly = 0600;
constexpr mode_t kOwnerAndGroup = 0660;

Result failed_os(const std::string& what) {
  return failed(YARROW_ERR_OS, what + ": " + std::generic_category().message(errno));
}

Result listen_on_port(Server& server, uint16_t port, uint16_t* bound) {
  server.listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  int on = 1;
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  bool done = server.listener >= 0 &&
              setsockopt(server.listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
              bind(server.listener, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
              listen(server.listener, SOMAXCONN) == 0 &&
              getsockname(server.listener, reinterpret_cast<sockaddr*>(&address), &size) == 0;
  if (!done) return failed_os("listening on port " + std::to_string(port));
  *bound = ntohs(address.sin_port);
  return {};
}

// Takes a socket out of the way that an agent left behind when it died.
Result remove_stale(const sockaddr_un& address) {
  struct stat there = {};
  if (lstat(address.sun_path, &there) != 0) return {};
  const std::string path = address.sun_path;
  if (!S_ISSOCK(there.st_mode)) return failed(YARROW_ERR_OS, path + " is there and no socket");
  int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (probe < 0) return failed_os(path);
  bool dead = connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
              errno == ECONNREFUSED;
  close(probe);
  if (!dead) return failed(YARROW_ERR_OS, "another agent listens at " + path);
  return unlink(address.sun_path) == 0 ? Result{} : failed_os(path);
}

// Gives the bound socket's file to the group. Through a descriptor of the file itself, so that
// nothing put in its place is changed instead.
Result give_to_group(Server& server, int file, gid_t group) {
  const std::string self = "/proc/self/fd/" + std::to_string(file);
  if (fchownat(file, "", static_cast<uid_t>(-1), group, AT_EMPTY_PATH) != 0 ||
      chmod(self.c_str(), kOwnerAndGroup) != 0) {
    return failed_os("giving " + server.path.name + " to its group");
  }
  server.path.has_group = true;
  server.path.group = group;
  return {};
}

Result find_group(const std::string& name, gid_t* group) {
  errno = 0;
  const struct group* found = getgrnam(name.c_str());
  if (found == nullptr) return failed(YARROW_ERR_OS, "there is no group '" + name + "'");
  *group = found->gr_gid;
  return {};
}

Result listen_on_path(Server& server, const std::string& path, const std::string& group_name) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    return failed(YARROW_ERR_OS, path + " is too long for a socket's path (at most " +
                                     std::to_string(sizeof address.sun_path - 1) + " bytes)");
  }
  memcpy(address.sun_path, path.data(), path.size());
  gid_t group = 0;
  Result result = group_name.empty() ? Result{} : find_group(group_name, &group);
  if (result.ok()) result = remove_stale(address);
  if (!result.ok()) return result;
  int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  server.path.listener = listener;
  // The mode goes to the file that bind makes: it is never open to others, not for a moment.
  if (listener < 0 || fchmod(listener, kOwnerOnly) != 0 ||
      bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    return failed_os("listening at " + path);
  }
  int file = open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
  struct stat made = {};
  if (file < 0 || fstat(file, &made) != 0 || !S_ISSOCK(made.st_mode)) {
    if (file >= 0) close(file);
    return failed(YARROW_ERR_OS, path + " was taken away");
  }
  server.path.name = path;
  server.path.device = made.st_dev;
  server.path.inode = made.st_ino;
  if (!group_name.empty()) result = give_to_group(server, file, group);
  close(file);
  if (result.ok() && listen(listener, SOMAXCONN) != 0) result = failed_os("listening at " + path);
  return result;
}

bool in_group(int socket, gid_t group) {
  ucred who = {};
  socklen_t size = sizeof who;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &who, &size) == 0 && who.gid == group) {
    return true;
  }
  size = 0;
  getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, nullptr, &size);
  std::vector<gid_t> groups(size / sizeof(gid_t));
  if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) != 0) return false;
  return std::find(groups.begin(), groups.end(), group) != groups.end();
}

}  // namespace

Result server_listen(Server& server, uint16_t port, uint16_t* bound, const std::string& path,
                     const std::string& group) {
  server.peer_table = yarrow::peer_table_open();
  if (server.peer_table < 0) return failed_os("asking for the owners of connections (sock_diag)");
  if (pipe2(server.wake, O_CLOEXEC | O_NONBLOCK) != 0) return failed_os("a pipe");
  Result result = listen_on_port(server, port, bound);
  return result.ok() && !path.empty() ? listen_on_path(server, path, group) : result;
}

void server_leave(Server& server) {
  for (int handle :
       {server.listener, server.path.listener, server.peer_table, server.wake[0], server.wake[1]}) {
    if (handle >= 0) close(handle);
  }
  // Not what somebody else has put there since.
  struct stat there = {};
  const std::string& name = server.path.name;
  bool own = !name.empty() && lstat(name.c_str(), &there) == 0 &&
             there.st_dev == server.path.device && there.st_ino == server.path.inode;
  if (own) unlink(name.c_str());
}

Result server_admit(const Server& server, int socket, bool by_path, uid_t* uid) {
  yarrow::Peer peer = yarrow::peer_of_accepted(server.peer_table, socket);
  if (!peer.known) return failed(YARROW_ERR_ACCESS, "the peer is not known: " + peer.why);
  *uid = peer.uid;
  const std::vector<uid_t>& allowed = server.allowed_uids;
  if (std::find(allowed.begin(), allowed.end(), peer.uid) != allowed.end()) return {};
  if (by_path && server.path.has_group && in_group(socket, server.path.group)) return {};
  return failed(YARROW_ERR_ACCESS, "the peer belongs to another user");
}

}  // namespace agent
