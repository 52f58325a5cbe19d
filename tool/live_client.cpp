// SPDX-License-Identifier: Apache-2.0
#include "live_client.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "host/address_text.h"
#include "host/input_error.h"
#include "host/live_server.h"

namespace polctl {

namespace {

class Connection {
 public:
  explicit Connection(const std::string& path) : path_(path) {
    sockaddr_un address = socket_address(path);
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0 || connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      int error = errno;
      if (fd_ >= 0) close(fd_);
      throw InputError(fmt::format(
          "{}: error: no host answers: {} (expected the socket of a running \"polctl serve\")",
          path, strerror(error)));
    }
    if (!same_user(fd_)) {
      close(fd_);
      throw InputError(path + ": error: another user's host listens there");
    }
  }
  ~Connection() { close(fd_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void send(std::string_view bytes) const {
    while (!bytes.empty()) {
      ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent < 0 && errno == EINTR) continue;
      // The host may refuse a request before it has read it all: its answer says why.
      if (sent < 0) return;
      bytes.remove_prefix(static_cast<size_t>(sent));
    }
  }

  // At most `limit` bytes. Throws InputError at the end.
  std::string_view receive(size_t limit) {
    ssize_t got;
    do {
      got = recv(fd_, buffer_, std::min(limit, sizeof buffer_), 0);
    } while (got < 0 && errno == EINTR);
    if (got <= 0) {
      throw InputError(path_ + ": error: the host broke off (expected an answer)");
    }
    return {buffer_, static_cast<size_t>(got)};
  }

  std::string receive_all(size_t size) {
    std::string bytes;
    while (bytes.size() < size) bytes += receive(size - bytes.size());
    return bytes;
  }

 private:
  std::string path_;
  int fd_;
  char buffer_[65536];
};

}  // namespace

int ask_live(const std::string& socket, const LiveRequest& request, Output* out) {
  Connection connection(socket);
  std::string options = encode_options(request);
  RequestHead asked = {static_cast<uint32_t>(options.size()),
                       static_cast<uint32_t>(request.input.size())};
  connection.send(encode(asked) + options);
  connection.send(request.input);
  AnswerHead head;
  if (!decode(connection.receive_all(AnswerHead::kSize), &head)) {
    throw InputError(socket + ": error: an answer that makes no sense (expected a polctl host)");
  }
  std::string error = connection.receive_all(head.error_size);
  for (uint64_t left = head.output_size; left > 0 && !out->gone();) {
    std::string_view part =
        connection.receive(static_cast<size_t>(std::min<uint64_t>(left, SIZE_MAX)));
    out->write(part);
    left -= part.size();
  }
  out->flush();
  if (!error.empty()) throw InputError(error);
  return static_cast<int>(head.status);
}

PolicyOptions with_agent_of_host(PolicyOptions source) {
  if (source.live.empty()) return source;
  ShowOptions status;
  status.json = true;
  Output said(Output::kNoFile);
  ask_live(source.live, {status, ""}, &said);
  constexpr std::string_view kPort = "\"port\":";
  std::string_view text = said.text();
  size_t at = text.find(kPort);
  if (at == std::string_view::npos) {
    throw InputError(source.live +
                     ": error: an answer that makes no sense (expected a polctl host)");
  }
  text.remove_prefix(at + kPort.size());
  source.agent = true;
  source.agent_port = text.substr(0, text.find_first_not_of("0123456789"));
  source.live.clear();
  return source;
}

std::string default_socket() {
  const char* directory = getenv("XDG_RUNTIME_DIR");
  if (directory != nullptr && *directory == '/') return std::string(directory) + "/polctl.sock";
  return fmt::format("/tmp/polctl-{}.sock", getuid());
}

}  // namespace polctl
