/* SPDX-License-Identifier: Apache-2.0
 *
 * polled_server.h - a listening socket and its clients, each with one request and one answer.
 *
 * Nothing here waits: who owns the server polls its descriptors with its own and then lets it step.
 * A client that takes too long, or asks for too much, is cut off: one that
 * drips bytes, too, and sooner where others wait.
 */
#ifndef HOST_POLLED_SERVER_H
#define HOST_POLLED_SERVER_H

#include <poll.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <string_view>
#include <vector>

namespace polctl {

class PolledServer {
 public:
  static constexpr size_t kMaxClients = 16;
  static constexpr int kBacklog = 64;                            /* that wait to become clients */
  static constexpr auto kPatience = std::chrono::seconds(10);    /* without a byte either way */
  static constexpr auto kRequestTime = std::chrono::seconds(30); /* for a whole request */
  static constexpr auto kGrace = std::chrono::seconds(1);        /* where others wait for a place */
  static constexpr size_t kSlowest =
      65536; /* bytes of an answer that a second must take, after that */

  PolledServer() = default;
  virtual ~PolledServer();
  PolledServer(const PolledServer&) = delete;
  PolledServer& operator=(const PolledServer&) = delete;

  /* Appends what is to be polled. */
  void wants(std::vector<pollfd>* polls) const;
  /* Serves what can be served now. Returns whether it has clients left. */
  bool step();

 protected:
  struct Answer {
    std::string head; /* sent first */
    int file = -1;    /* in memory, with what follows; closed by the server. -1: nothing does */
    size_t file_size = 0;
  };
  /* How far a request has come: the bytes that it lacks at least, 0 when it is whole, kNoRequest when
   * it will be none and its client is to be closed. */
  static constexpr size_t kNoRequest = SIZE_MAX;
  virtual size_t lacks(std::string_view received) const = 0;
  virtual Answer answer(const std::string& request) = 0;
  virtual bool admits(int /*socket*/) const { return true; }

  /* Whether the last call may just be made again later. */
  static bool later();

  int listener_ = -1; /* not blocking; closed by the server */

 private:
  struct Client {
    int fd;
    std::string received;
    bool answering = false;
    Answer answer;
    size_t sent = 0; /* of all of the answer */
    size_t size = 0;
    std::chrono::steady_clock::time_point deadline; /* for the next byte */
    std::chrono::steady_clock::time_point begun;
    std::chrono::steady_clock::time_point end; /* for all of them */
  };

  void accept_clients();
  void make_room();
  bool receive(Client* client);
  bool send(Client* client);
  static void close_client(Client* client);

  std::list<Client> clients_;
};

/* A file in memory that does not grow beyond the limit. Negative when there is none. */
int bounded_file(size_t limit);

/* A listening socket at a path, for this user alone. The file of a host that died is replaced; throws
 * InputError when one still serves there. Removes its own file and no other's. */
class SocketFile {
 public:
  explicit SocketFile(const std::string& path);
  ~SocketFile();
  SocketFile(const SocketFile&) = delete;
  SocketFile& operator=(const SocketFile&) = delete;
  /* Whoever takes it closes it. */
  int listener() const { return listener_; }

 private:
  std::string path_;
  int listener_ = -1;
  uint64_t device_ = 0; /* of the file, to know it again */
  uint64_t inode_ = 0;
};

}  // namespace polctl

#endif
