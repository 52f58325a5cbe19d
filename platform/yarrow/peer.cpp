// SPDX-License-Identifier: Apache-2.0
#include "platform/yarrow/peer.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace yarrow {

namespace {

constexpr uint8_t kNewSynReceived = 12;  // the kernel's TCP_NEW_SYN_RECV, which no header tells

// One end of a connection, IPv4 in mapped form as IPv4.
struct End {
  int family = AF_UNSPEC;
  uint32_t address[4] = {};  // as on the wire
  uint16_t port = 0;         // as on the wire
};

struct TableEntry {
  int error = 0;  // errno; 0: found
  uint8_t state = 0;
  uid_t uid = 0;
  uint32_t inode = 0;  // 0: no process holds it
};

bool waits_to_be_accepted(const TableEntry& entry) {
  return entry.state == TCP_SYN_RECV || entry.state == kNewSynReceived ||
         (entry.state == TCP_ESTABLISHED && entry.inode == 0);
}

Peer unknown(std::string why) { return {false, 0, std::move(why)}; }

bool end_of(const sockaddr_storage& from, End* end) {
  if (from.ss_family == AF_INET) {
    const auto& v4 = reinterpret_cast<const sockaddr_in&>(from);
    *end = {AF_INET, {v4.sin_addr.s_addr}, v4.sin_port};
    return true;
  }
  if (from.ss_family != AF_INET6) return false;
  const auto& v6 = reinterpret_cast<const sockaddr_in6&>(from);
  end->port = v6.sin6_port;
  end->family = IN6_IS_ADDR_V4MAPPED(&v6.sin6_addr) ? AF_INET : AF_INET6;
  const uint8_t* bytes = v6.sin6_addr.s6_addr;
  if (end->family == AF_INET) {
    memcpy(end->address, bytes + 12, 4);
  } else {
    memcpy(end->address, bytes, 16);
  }
  return true;
}

bool ends_of(int sock, End* own, End* other) {
  sockaddr_storage address = {};
  socklen_t size = sizeof address;
  if (getsockname(sock, reinterpret_cast<sockaddr*>(&address), &size) != 0) return false;
  if (!end_of(address, own)) return false;
  size = sizeof address;
  if (getpeername(sock, reinterpret_cast<sockaddr*>(&address), &size) != 0) return false;
  return end_of(address, other) && own->family == other->family;
}

// The socket whose own end is `own` and whose other end is `other`; failing that, as the kernel has
// it, one that listens at `own`.
TableEntry look_up(int table, const End& own, const End& other) {
  static_assert(sizeof(inet_diag_sockid::idiag_src) == sizeof(End::address));
  struct {
    nlmsghdr head;
    inet_diag_req_v2 body;
  } request = {};
  request.head.nlmsg_len = sizeof request;
  request.head.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  request.head.nlmsg_flags = NLM_F_REQUEST;
  request.body.sdiag_family = static_cast<uint8_t>(own.family);
  request.body.sdiag_protocol = IPPROTO_TCP;
  request.body.idiag_states = ~0U;
  inet_diag_sockid& id = request.body.id;
  id.idiag_sport = own.port;
  id.idiag_dport = other.port;
  memcpy(id.idiag_src, own.address, sizeof own.address);
  memcpy(id.idiag_dst, other.address, sizeof other.address);
  id.idiag_cookie[0] = id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  TableEntry found;
  if (send(table, &request, sizeof request, 0) != sizeof request) {
    found.error = errno;
    return found;
  }
  // The kernel answers before the call above returns.
  alignas(nlmsghdr) char answer[8192];
  ssize_t got = recv(table, answer, sizeof answer, MSG_DONTWAIT);
  const auto* head = reinterpret_cast<const nlmsghdr*>(answer);
  if (got < 0 || !NLMSG_OK(head, static_cast<size_t>(got))) {
    found.error = got < 0 ? errno : EPROTO;
  } else if (head->nlmsg_type == NLMSG_ERROR && got >= ssize_t{NLMSG_LENGTH(sizeof(nlmsgerr))}) {
    found.error = -static_cast<const nlmsgerr*>(NLMSG_DATA(head))->error;
  } else if (head->nlmsg_type == SOCK_DIAG_BY_FAMILY &&
             got >= ssize_t{NLMSG_LENGTH(sizeof(inet_diag_msg))}) {
    const auto* entry = static_cast<const inet_diag_msg*>(NLMSG_DATA(head));
    found = {0, entry->idiag_state, entry->idiag_uid, entry->idiag_inode};
  } else {
    found.error = EPROTO;
  }
  return found;
}

Peer not_found(int error) {
  if (error == ENOENT) return unknown("no such connection on this machine");
  return unknown("the kernel does not tell (sock_diag: " + std::generic_category().message(error) +
                 ")");
}

bool is_unix(int sock) {
  int family = 0;
  socklen_t size = sizeof family;
  return getsockopt(sock, SOL_SOCKET, SO_DOMAIN, &family, &size) == 0 && family == AF_UNIX;
}

Peer unix_peer(int sock) {
  ucred who = {};
  socklen_t size = sizeof who;
  if (getsockopt(sock, SOL_SOCKET, SO_PEERCRED, &who, &size) != 0) return not_found(errno);
  return {true, who.uid, {}};
}

}  // namespace

int peer_table_open() { return socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG); }

Peer peer_of_accepted(int table, int sock) {
  if (is_unix(sock)) return unix_peer(sock);
  End own;
  End other;
  if (!ends_of(sock, &own, &other)) return unknown("the connection is closed");
  TableEntry entry = look_up(table, other, own);
  if (entry.error != 0) return not_found(entry.error);
  if (entry.state != TCP_ESTABLISHED || entry.inode == 0) return unknown("it closes already");
  return {true, entry.uid, {}};
}

Peer peer_of_connected(int table, int sock) {
  if (is_unix(sock)) return unix_peer(sock);
  End own;
  End other;
  if (!ends_of(sock, &own, &other)) return unknown("the connection is closed");
  // A connection that waits to be accepted is held by no process; it can only be accepted from the
  // listening socket. Accepted between the two questions, it has an owner at the next.
  for (int round = 0; round < 3; ++round) {
    TableEntry entry = look_up(table, other, own);
    if (entry.error != 0) return not_found(entry.error);
    if (!waits_to_be_accepted(entry)) {
      if (entry.state != TCP_ESTABLISHED) return unknown("it closes already");
      return {true, entry.uid, {}};
    }
    End nobody;
    nobody.family = other.family;
    TableEntry listener = look_up(table, other, nobody);
    bool listens = listener.error == 0 && listener.state == TCP_LISTEN && listener.inode != 0;
    entry = look_up(table, other, own);
    if (listens && entry.error == 0 && waits_to_be_accepted(entry)) {
      return {true, listener.uid, {}};
    }
  }
  return unknown("nobody has accepted the connection");
}

}  // namespace yarrow
