// SPDX-License-Identifier: Apache-2.0
#include "live_server.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "address_text.h"
#include "input_error.h"

namespace polctl {

sockaddr_un socket_address(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    throw InputError(
        fmt::format("polctl: error: the socket's path {} is too long (expected at most {} bytes)",
                    in_quotes(path), sizeof address.sun_path - 1));
  }
  memcpy(address.sun_path, path.c_str(), path.size());
  return address;
}

bool same_user(int sock) {
  ucred peer = {};
  socklen_t length = sizeof peer;
  return getsockopt(sock, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 &&
         (peer.uid == getuid() || peer.uid == 0);
}

LiveServer::LiveServer(const std::string& path, Command command)
    : file_(path), command_(std::move(command)) {
  listener_ = file_.listener();
}

size_t LiveServer::lacks(std::string_view received) const {
  RequestHead head;
  if (received.size() < RequestHead::kSize) return RequestHead::kSize - received.size();
  if (!decode(received, &head)) return kNoRequest;
  return RequestHead::kSize + head.options_size + head.input_size - received.size();
}

PolledServer::Answer LiveServer::answer(const std::string& request) {
  RequestHead head;
  decode(request, &head);
  AnswerHead told;
  std::string error;
  Answer answer;
  answer.file = bounded_file(kMaxOutput);
  if (answer.file < 0) {
    error = "polctl: error: the host has no memory for an answer";
    told.status = kBadInput;
  } else {
    std::string_view options(request);
    std::string input = request.substr(RequestHead::kSize + head.options_size);
    Output out(answer.file);
    try {
      told.status = static_cast<uint32_t>(
          command_(options.substr(RequestHead::kSize, head.options_size), input, &out));
      out.flush();
    } catch (const InputError& fault) {
      error = fault.what();
      told.status = kBadInput;
    }
    answer.file_size = static_cast<size_t>(lseek(answer.file, 0, SEEK_CUR));
  }
  told.output_size = answer.file_size;
  told.error_size = static_cast<uint32_t>(error.size());
  answer.head = encode(told) + error;
  return answer;
}

}  // namespace polctl
