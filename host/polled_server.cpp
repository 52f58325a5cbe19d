// SPDX-License-Identifier: Apache-2.0
#include "polled_server.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "input_error.h"
#include "live_server.h"

namespace polctl {

namespace {

constexpr size_t kBlock = 65536;

// What is left of a host that died refuses connections; anything else is not ours to take away.
void remove_dead_socket(const std::string& path, const sockaddr_un& address) {
  struct stat status;
  if (lstat(path.c_str(), &status) != 0) return;
  int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  bool dead = S_ISSOCK(status.st_mode) &&
              connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
              errno == ECONNREFUSED;
  close(probe);
  if (dead) unlink(path.c_str());
}

}  // namespace

int bounded_file(size_t limit) {
  int fd = memfd_create("answer", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (fd < 0) return -1;
  if (ftruncate(fd, static_cast<off_t>(limit)) == 0 && fcntl(fd, F_ADD_SEALS, F_SEAL_GROW) == 0) {
    return fd;
  }
  close(fd);
  return -1;
}

SocketFile::SocketFile(const std::string& path) : path_(path) {
  sockaddr_un address = socket_address(path);
  remove_dead_socket(path, address);
  listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  // The file is born with its mode: nobody else can connect in between.
  mode_t before = umask(0177);
  int status =
      listener_ < 0 ? -1 : bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
  int error = errno;
  umask(before);
  struct stat made = {};
  if (status == 0 && lstat(path.c_str(), &made) == 0 &&
      listen(listener_, PolledServer::kBacklog) == 0) {
    device_ = made.st_dev;
    inode_ = made.st_ino;
    return;
  }
  if (status == 0) error = errno;
  if (listener_ >= 0) close(listener_);
  throw InputError(fmt::format("{}: error: cannot listen: {} (expected a path that is not in use)",
                               path, strerror(error)));
}

SocketFile::~SocketFile() {
  // Somebody may have put another in its place meanwhile.
  struct stat now = {};
  bool own = lstat(path_.c_str(), &now) == 0 && now.st_dev == device_ && now.st_ino == inode_;
  if (own) unlink(path_.c_str());
}

PolledServer::~PolledServer() {
  for (Client& client : clients_) close_client(&client);
  if (listener_ >= 0) close(listener_);
}

bool PolledServer::later() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR; }

void PolledServer::close_client(Client* client) {
  // What was sent and not read would have the kernel take the answer back.
  char rest[kBlock];
  while (client->answering && recv(client->fd, rest, sizeof rest, MSG_DONTWAIT) > 0) {
  }
  close(client->fd);
  if (client->answer.file >= 0) close(client->answer.file);
}

void PolledServer::wants(std::vector<pollfd>* polls) const {
  polls->push_back({listener_, static_cast<short>(clients_.size() < kMaxClients ? POLLIN : 0), 0});
  for (const Client& client : clients_) {
    polls->push_back({client.fd, static_cast<short>(client.answering ? POLLOUT : POLLIN), 0});
  }
}

bool PolledServer::step() {
  make_room();
  accept_clients();
  auto now = std::chrono::steady_clock::now();
  for (auto client = clients_.begin(); client != clients_.end();) {
    bool stays = client->answering ? send(&*client) : receive(&*client);
    if (stays && now < client->deadline && now < client->end) {
      ++client;
    } else {
      close_client(&*client);
      client = clients_.erase(client);
    }
  }
  return !clients_.empty();
}

void PolledServer::accept_clients() {
  while (clients_.size() < kMaxClients) {
    int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) return;
    if (!admits(fd)) {
      close(fd);
      continue;
    }
    Client& client = clients_.emplace_back();
    client.fd = fd;
    client.begun = std::chrono::steady_clock::now();
    client.deadline = client.begun + kPatience;
    client.end = client.begun + kRequestTime;
  }
}

// Where all places are taken and somebody waits, the one that has been asking for longest goes.
void PolledServer::make_room() {
  pollfd waiting = {listener_, POLLIN, 0};
  if (clients_.size() < kMaxClients || poll(&waiting, 1, 0) <= 0) return;
  auto slow =
      std::min_element(clients_.begin(), clients_.end(), [](const Client& a, const Client& b) {
        return std::pair(a.answering, a.begun) < std::pair(b.answering, b.begun);
      });
  if (slow->answering || std::chrono::steady_clock::now() < slow->begun + kGrace) return;
  close_client(&*slow);
  clients_.erase(slow);
}

// False when the client is done with.
bool PolledServer::receive(Client* client) {
  char block[kBlock];
  for (;;) {
    size_t missing = lacks(client->received);
    if (missing == kNoRequest) return false;
    if (missing == 0) break;
    ssize_t got = recv(client->fd, block, std::min(sizeof block, missing), 0);
    if (got < 0) return later();
    if (got == 0) return false;
    client->received.append(block, static_cast<size_t>(got));
    client->deadline = std::chrono::steady_clock::now() + kPatience;
  }
  client->answer = answer(client->received);
  client->size = client->answer.head.size() + client->answer.file_size;
  client->answering = true;
  client->received = {};
  auto now = std::chrono::steady_clock::now();
  client->deadline = now + kPatience;
  client->end = now + kRequestTime + std::chrono::seconds(client->size / kSlowest);
  return send(client);
}

bool PolledServer::send(Client* client) {
  char block[kBlock];
  const std::string& head = client->answer.head;
  while (client->sent < client->size) {
    std::string_view part;
    if (client->sent < head.size()) {
      part = std::string_view(head).substr(client->sent);
    } else {
      ssize_t got =
          pread(client->answer.file, block, std::min(sizeof block, client->size - client->sent),
                static_cast<off_t>(client->sent - head.size()));
      if (got <= 0) return false;
      part = {block, static_cast<size_t>(got)};
    }
    ssize_t sent = ::send(client->fd, part.data(), part.size(), MSG_NOSIGNAL);
    if (sent < 0) return later();
    client->sent += static_cast<size_t>(sent);
    client->deadline = std::chrono::steady_clock::now() + kPatience;
  }
  return false;
}

}  // namespace polctl
