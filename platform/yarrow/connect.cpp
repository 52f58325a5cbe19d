// SPDX-License-Identifier: Apache-2.0
//
// Where a connect call goes, and whether who answers there is to be trusted. Anyone may listen on a
// port that no agent holds: nothing is said before the kernel has told whose process it is.
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>

#include "platform/yarrow/client.h"
#include "platform/yarrow/peer.h"

namespace yarrow {

namespace {

struct Target {
  sockaddr_storage address = {};
  socklen_t size = 0;

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }
};

// A number that the environment may give. False, with the error set, for one out of its range.
template <typename Number>
bool number_in(const char* variable, Number low, Number high, Number* number, bool* set) {
  const char* text = secure_getenv(variable);
  *set = text != nullptr && *text != '\0';
  if (!*set) return true;
  std::string_view view = text;
  auto [end, status] = std::from_chars(view.data(), view.data() + view.size(), *number);
  if (status == std::errc() && end == view.data() + view.size() && *number >= low &&
      *number <= high) {
    return true;
  }
  fail(YARROW_ERR_PROTOCOL, std::string(variable) + " is '" + text + "' (expected a number from " +
                                std::to_string(low) + " to " + std::to_string(high) + ")");
  return false;
}

bool unix_target(const char* path, Target* target) {
  auto* address = reinterpret_cast<sockaddr_un*>(&target->address);
  *target = {};
  size_t length = strlen(path);
  if (length >= sizeof address->sun_path) {
    fail(YARROW_ERR_PROTOCOL, YARROW_PATH_VARIABLE " is too long for a socket's path");
    return false;
  }
  address->sun_family = AF_UNIX;
  memcpy(address->sun_path, path, length + 1);
  target->size = sizeof *address;
  return true;
}

bool is_usual(const Target& target) {
  const auto* address = reinterpret_cast<const sockaddr_in*>(&target.address);
  return address->sin_family == AF_INET && address->sin_port == htons(YARROW_PORT) &&
         address->sin_addr.s_addr == htonl(INADDR_LOOPBACK);
}

void set_port(Target* target, uint16_t port) {
  if (target->address.ss_family == AF_INET) {
    reinterpret_cast<sockaddr_in*>(&target->address)->sin_port = htons(port);
  } else if (target->address.ss_family == AF_INET6) {
    reinterpret_cast<sockaddr_in6*>(&target->address)->sin6_port = htons(port);
  }
}

// Where a call for the address goes. `usual` is set when that is the usual path, which gives way to
// the address when no agent answers there.
bool find_target(Target* target, bool* usual) {
  const char* path = secure_getenv(YARROW_PATH_VARIABLE);
  uint16_t port = 0;
  bool has_port = false;
  *usual = false;
  if (path != nullptr && *path != '\0' && is_usual(*target)) return unix_target(path, target);
  if (!number_in<uint16_t>(YARROW_PORT_VARIABLE, 1, UINT16_MAX, &port, &has_port)) return false;
  if (has_port) set_port(target, port);
  struct stat there = {};
  *usual =
      !has_port && is_usual(*target) && stat(YARROW_PATH, &there) == 0 && S_ISSOCK(there.st_mode);
  return true;
}

int set_time_limit(int sock) {
  unsigned seconds = YARROW_TIMEOUT;
  bool set = false;
  if (!number_in(YARROW_TIMEOUT_VARIABLE, 1U, 3600U, &seconds, &set)) return YARROW_ERR;
  const timeval limit = {static_cast<time_t>(seconds), 0};
  bool done = setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0 &&
              setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0;
  return done ? YARROW_OK : fail_os("the time limit");
}

int family_of(int sock) {
  int family = -1;
  socklen_t size = sizeof family;
  return getsockopt(sock, SOL_SOCKET, SO_DOMAIN, &family, &size) == 0 ? family : -1;
}

int connect_to(int sock, const Target& target) {
  if (set_time_limit(sock) != YARROW_OK) return YARROW_ERR;
  const TimeLimit limit = TimeLimit::of_socket(sock);
  if (connect(sock, target.get(), target.size) == 0) return YARROW_OK;
  if (errno == EAGAIN) return fail(YARROW_ERR_TIMEOUT, "the agent accepts no connection");
  if (errno != EINPROGRESS && errno != EINTR) return fail_os("connect");
  pollfd watched = {sock, POLLOUT, 0};
  int ready = 0;
  do {
    ready = poll(&watched, 1, limit.left_ms());
  } while (ready < 0 && errno == EINTR);
  if (ready < 0) return fail_os("poll");
  if (ready == 0) return fail(YARROW_ERR_TIMEOUT, "the agent accepts no connection");
  int error = 0;
  socklen_t size = sizeof error;
  getsockopt(sock, SOL_SOCKET, SO_ERROR, &error, &size);
  errno = error;
  return error == 0 ? YARROW_OK : fail_os("connect");
}

// Connects a socket of the Unix kind and has the descriptor name it; untouched on failure.
int connect_as_unix(int sock, const Target& target) {
  int flags = fcntl(sock, F_GETFD);
  int status = fcntl(sock, F_GETFL);
  if (flags < 0 || status < 0) return fail_os("connect");
  const Descriptor fresh(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | (status & O_NONBLOCK), 0));
  if (fresh.get() < 0) return fail_os("socket");
  if (connect_to(fresh.get(), target) != YARROW_OK) return YARROW_ERR;
  bool taken = dup3(fresh.get(), sock, (flags & FD_CLOEXEC) != 0 ? O_CLOEXEC : 0) >= 0;
  return taken ? YARROW_OK : fail_os("dup3");
}

int connect_target(int sock, const Target& target) {
  bool becomes_unix = target.address.ss_family == AF_UNIX && family_of(sock) != AF_UNIX;
  return becomes_unix ? connect_as_unix(sock, target) : connect_to(sock, target);
}

int reach(int sock, Target target) {
  bool usual = false;
  if (!find_target(&target, &usual)) return YARROW_ERR;
  Target path;
  if (usual && unix_target(YARROW_PATH, &path) && connect_target(sock, path) == YARROW_OK) {
    return YARROW_OK;
  }
  return connect_target(sock, target);
}

// An agent that refuses a connection says so at once and closes, perhaps before it is asked. The
// error stays as it is if there is no such word.
int read_refusal(int sock) {
  const int error = yarrow_errno;
  const std::string reason = yarrow_lasterr();
  std::string body;
  pollfd watched = {sock, POLLIN, 0};
  bool told = poll(&watched, 1, 0) == 1 &&
              read_frame(sock, &body, TimeLimit::of_socket(sock)) == YARROW_OK &&
              take_status(&body) != YARROW_OK;
  return told ? YARROW_ERR : fail(error, reason);
}

// Whether the agent that was reached is root's, the process's user's or that of the one allowed.
int check_owner(int sock) {
  const bool in_table = family_of(sock) != AF_UNIX;
  const Descriptor table(in_table ? peer_table_open() : -1);
  if (in_table && table.get() < 0) return fail_os("sock_diag");
  const Peer peer = peer_of_connected(table.get(), sock);
  if (!peer.known) {
    fail(YARROW_ERR_ACCESS, "whose agent it is cannot be told: " + peer.why);
    return read_refusal(sock);
  }
  uid_t allowed = 0;
  bool set = false;
  if (!number_in<uid_t>(YARROW_UID_VARIABLE, 0, UINT32_MAX, &allowed, &set)) return YARROW_ERR;
  if (peer.uid == 0 || peer.uid == geteuid() || (set && peer.uid == allowed)) return YARROW_OK;
  return fail(YARROW_ERR_ACCESS, "the agent belongs to user " + std::to_string(peer.uid) +
                                     " (expected root, this process's user, or whom " +
                                     YARROW_UID_VARIABLE " names)");
}

}  // namespace

int connect_socket(int sock, const struct sockaddr* addr, socklen_t addr_len, SocketKind kind,
                   const Writer& arguments) {
  Target target;
  if (addr == nullptr || addr_len > sizeof target.address || addr_len < sizeof(sockaddr_in)) {
    return fail(YARROW_ERR_PROTOCOL, "no address");
  }
  memcpy(&target.address, addr, addr_len);
  target.size = addr_len;
  if (reach(sock, target) != YARROW_OK) return YARROW_ERR;
  if (check_owner(sock) != YARROW_OK) return YARROW_ERR;
  Exchange exchange(sock);
  int on = 1;
  if (family_of(sock) != AF_UNIX) setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  Writer hello;
  hello.u32(kWireMagic);
  hello.u8(static_cast<uint8_t>(kind));
  hello.raw(arguments.view().data(), arguments.size());
  std::string body;
  const TimeLimit limit = TimeLimit::of_socket(sock);
  if (send_frame(sock, hello.bytes(), limit) != YARROW_OK) {
    return exchange.done(read_refusal(sock));
  }
  if (read_frame(sock, &body, limit) != YARROW_OK) return exchange.done(YARROW_ERR);
  return exchange.done(take_status(&body));
}

}  // namespace yarrow
