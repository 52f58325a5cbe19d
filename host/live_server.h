/* SPDX-License-Identifier: Apache-2.0
 *
 * live_server.h - a running host's local socket, in the frames of live_frame.h.
 */
#ifndef HOST_LIVE_SERVER_H
#define HOST_LIVE_SERVER_H

#include <sys/un.h>

#include <functional>
#include <string>
#include <string_view>

#include "live_frame.h"
#include "output.h"
#include "polled_server.h"

namespace polctl {

/* Throws InputError when the path is too long for a socket. */
sockaddr_un socket_address(const std::string& path);

/* Whether the peer runs as this process's user, or as root. */
bool same_user(int sock);

class LiveServer : public PolledServer {
 public:
  static constexpr size_t kMaxOutput = size_t{256} * 1024 * 1024;

  /* Answers a request's options and input; what it throws as InputError becomes the answer's words. */
  using Command =
      std::function<int(std::string_view options, const std::string& input, Output* out)>;

  /* Listens at the path; see SocketFile. */
  LiveServer(const std::string& path, Command command);

 protected:
  size_t lacks(std::string_view received) const override;
  Answer answer(const std::string& request) override;
  bool admits(int socket) const override { return same_user(socket); }

 private:
  SocketFile file_;
  Command command_;
};

}  // namespace polctl

#endif
