// SPDX-License-Identifier: Apache-2.0
// Any frames to an agent in this process, over a socket as a client would: a byte with the kind of
// connection, then for each frame a byte with the request, two with the length of its body, and the
// body. A session with a transaction of each datastore is opened before, so that there is something
// to hit. What was committed stays for the next input.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "agent/yarrow_agent.h"
#include "byte_reader.h"
#include "platform/yarrow/wire.h"
#include "yarrow/yarrow_cdb.h"
#include "yarrow/yarrow_maapi.h"

namespace {

using yarrow::Request;
using yarrow::SocketKind;
using yarrow::Writer;

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

bool receive(int sock, char* bytes, size_t size) {
  return recv(sock, bytes, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

// Sends a frame and takes its answer; false once the agent has closed. An agent that says nothing
// for ten seconds has failed.
bool exchange(int sock, const Writer& body) {
  Writer frame;
  frame.text(body.view());
  send(sock, frame.bytes().data(), frame.size(), MSG_NOSIGNAL);
  char head[4];
  errno = 0;
  if (!receive(sock, head, sizeof head)) {
    if (errno == EAGAIN) abort();
    return false;
  }
  std::string answer(yarrow::Reader(std::string_view(head, sizeof head)).u32(), '\0');
  if (answer.size() > yarrow::kMaxFrame) abort();
  return receive(sock, answer.data(), answer.size());
}

Writer request(Request what) {
  Writer out;
  out.u8(static_cast<uint8_t>(what));
  return out;
}

bool open_session(int sock, SocketKind kind) {
  Writer hello;
  hello.u32(yarrow::kWireMagic);
  hello.u8(static_cast<uint8_t>(kind));
  if (!exchange(sock, hello)) return false;
  if (kind == SocketKind::kCdb) {
    Writer start = request(Request::kCdbStart);
    start.u32(CDB_OPERATIONAL);
    start.u32(0);
    return exchange(sock, start);
  }
  Writer session = request(Request::kStartSession);
  for (const char* name : {"u", "c", "i", "s"}) session.text(name);
  if (!exchange(sock, session)) return false;
  for (uint32_t datastore : {MAAPI_CANDIDATE, MAAPI_RUNNING, MAAPI_OPERATIONAL}) {
    Writer trans = request(Request::kStartTrans);
    trans.u32(datastore);
    trans.u32(MAAPI_READ_WRITE);
    if (!exchange(sock, trans)) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ByteReader bytes(data, size);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(agent_port());
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const timeval limit = {10, 0};
  setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  if (connect(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) abort();
  auto kind = bytes.byte() % 2 == 0 ? SocketKind::kMaapi : SocketKind::kCdb;
  bool open = open_session(sock, kind);
  while (open && !bytes.done()) {
    Writer body;
    body.u8(bytes.byte());
    size_t length = bytes.byte();
    length = length << 8 | bytes.byte();
    for (; length > 0 && !bytes.done(); --length) body.u8(bytes.byte());
    open = exchange(sock, body);
  }
  close(sock);
  return 0;
}
