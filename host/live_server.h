/* SPDX-License-Identifier: Apache-2.0
 *
 * live_server.h - a running host's local socket: several clients at once, each with one request.
 *
 * Nothing here waits: who owns the server polls its descriptors with its own and then lets it step.
 * A client that takes too long, or asks for too much, is cut off: one that
 * drips bytes, too, and sooner where others wait.
 */
#ifndef HOST_LIVE_SERVER_H
#define HOST_LIVE_SERVER_H

#include <poll.h>
#include <sys/types.h>
#include <sys/un.h>

#include <chrono>
#include <functional>
#include <list>
#include <string>
#include <string_view>
#include <vector>

#include "live_frame.h"
#include "output.h"

namespace polctl {

/* Throws InputError when the path is too long for a socket. */
sockaddr_un socket_address(const std::string& path);

/* Whether the peer runs as this process's user, or as root. */
bool same_user(int sock);

class LiveServer {
 public:
  static constexpr size_t kMaxClients = 16;
  static constexpr auto kPatience = std::chrono::seconds(10);    /* without a byte either way */
  static constexpr auto kRequestTime = std::chrono::seconds(30); /* for a whole request */
  static constexpr auto kGrace = std::chrono::seconds(1);        /* where others wait for a place */
  static constexpr size_t kSlowest =
      65536; /* bytes of an answer that a second must take, after that */
  static constexpr size_t kMaxOutput = size_t{256} * 1024 * 1024;

  /* Answers a request's options and input; what it throws as InputError becomes the answer's words. */
  using Answer =
      std::function<int(std::string_view options, const std::string& input, Output* out)>;

  /* Listens at the path, for this user alone. The file of a host that died is replaced; throws
   * InputError when one still serves there. */
  LiveServer(const std::string& path, Answer answer);
  ~LiveServer();
  LiveServer(const LiveServer&) = delete;
  LiveServer& operator=(const LiveServer&) = delete;

  /* Appends what is to be polled. */
  void wants(std::vector<pollfd>* polls) const;
  /* Serves what can be served now. Returns whether it has clients left. */
  bool step();

 private:
  struct Client {
    int fd;
    std::string received;
    bool answering = false;
    std::string head; /* of the answer, with its words */
    int output = -1;  /* a file in memory with what the command printed */
    size_t sent = 0;  /* of head and output together */
    size_t size = 0;
    std::chrono::steady_clock::time_point deadline; /* for the next byte */
    std::chrono::steady_clock::time_point begun;
    std::chrono::steady_clock::time_point end; /* for all of them */
  };

  void accept_clients();
  void make_room();
  bool receive(Client* client);
  bool send(Client* client);
  void answer(Client* client, const RequestHead& head);
  static void close_client(Client* client);

  std::string path_;
  Answer answer_;
  int listener_ = -1;
  dev_t device_ = 0; /* of the socket's file, to know it again */
  ino_t inode_ = 0;
  std::list<Client> clients_;
};

}  // namespace polctl

#endif
