// SPDX-License-Identifier: Apache-2.0
// Any frames to an agent in this process, over a socket as a client would send them. The input is a
// sequence of two bytes with a length and as many bytes of a frame's body; the length's highest bit
// sends the bytes as they are, without a frame's head. However they end, the agent answers or
// closes. What was committed stays for the next input.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "agent/yarrow_agent.h"
#include "byte_reader.h"
#include "platform/yarrow/wire.h"

namespace {

uint16_t agent_port() {
  static const std::shared_ptr<agent::Handle> agent = [] {
    std::string problem;
    std::shared_ptr<agent::Handle> made = agent::start({}, &problem);
    if (made) agent::run_in_thread(*made);
    return made;
  }();
  if (!agent) abort();
  return agent::port(*agent);
}

std::string sent(ByteReader bytes) {
  constexpr size_t kBare = 0x8000;
  std::string all;
  while (!bytes.done()) {
    size_t length = size_t{bytes.byte()} << 8;
    length |= bytes.byte();
    std::string body;
    for (size_t i = 0; i < (length & ~kBare) && !bytes.done(); ++i) {
      body += static_cast<char>(bytes.byte());
    }
    yarrow::Writer frame;
    frame.text(body);
    all += (length & kBare) != 0 ? body : frame.bytes();
  }
  return all;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(agent_port());
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const timeval limit = {10, 0};
  setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  if (connect(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) abort();
  const std::string bytes = sent(ByteReader(data, size));
  send(sock, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  shutdown(sock, SHUT_WR);
  char answers[65536];
  ssize_t got = 0;
  do {
    got = recv(sock, answers, sizeof answers, 0);
  } while (got > 0);
  if (got < 0 && errno == EAGAIN) abort();  // neither answered nor closed
  close(sock);
  return 0;
}
