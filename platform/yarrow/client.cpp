// SPDX-License-Identifier: Apache-2.0
//
// The client keeps nothing about a socket: each call writes one frame and reads one back, so that a
// caller may pass sockets between its threads and close them as it likes.
#include "platform/yarrow/client.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <system_error>

namespace yarrow {

namespace {

thread_local int t_error = YARROW_ERR_NONE;
thread_local std::string t_reason;

int send_all(int sock, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t sent = send(sock, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return fail(YARROW_ERR_NOTCONNECTED, "the connection is lost");
    bytes.remove_prefix(static_cast<size_t>(sent));
  }
  return YARROW_OK;
}

int receive_all(int sock, char* bytes, size_t size) {
  while (size > 0) {
    ssize_t got = recv(sock, bytes, size, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return fail(YARROW_ERR_NOTCONNECTED, "the connection is lost");
    bytes += got;
    size -= static_cast<size_t>(got);
  }
  return YARROW_OK;
}

// Takes a reply's status apart; leaves the content in `body`.
int take_status(std::string* body) {
  Reader in(*body);
  uint32_t error = in.u32();
  if (!in.ok()) return fail(YARROW_ERR_PROTOCOL, "an answer cut short");
  if (error != YARROW_ERR_NONE) return fail(static_cast<int>(error), in.text());
  body->erase(0, sizeof error);
  return YARROW_OK;
}

bool replaced_port(uint16_t* port) {
  const char* text = getenv(YARROW_PORT_VARIABLE);
  if (text == nullptr || *text == '\0') return true;
  char* end = nullptr;
  unsigned long value = strtoul(text, &end, 10);
  if (*end != '\0' || value == 0 || value > UINT16_MAX) return false;
  *port = static_cast<uint16_t>(value);
  return true;
}

}  // namespace

int fail(int error, std::string_view reason) {
  t_error = error;
  t_reason = reason;
  return YARROW_ERR;
}

int fail_os(std::string_view what) {
  int error = errno;
  return fail(YARROW_ERR_OS, std::string(what) + ": " + std::generic_category().message(error));
}

int connect_socket(int sock, const struct sockaddr* addr, socklen_t addr_len, SocketKind kind,
                   const Writer& arguments) {
  sockaddr_storage copy = {};
  if (addr == nullptr || addr_len > sizeof copy || addr_len < sizeof(sockaddr_in)) {
    return fail(YARROW_ERR_PROTOCOL, "no address");
  }
  memcpy(&copy, addr, addr_len);
  uint16_t port = 0;
  if (!replaced_port(&port)) {
    return fail(YARROW_ERR_PROTOCOL, YARROW_PORT_VARIABLE " is not a port");
  }
  if (port != 0 && copy.ss_family == AF_INET) {
    reinterpret_cast<sockaddr_in*>(&copy)->sin_port = htons(port);
  } else if (port != 0 && copy.ss_family == AF_INET6) {
    reinterpret_cast<sockaddr_in6*>(&copy)->sin6_port = htons(port);
  }
  while (connect(sock, reinterpret_cast<sockaddr*>(&copy), addr_len) != 0) {
    if (errno != EINTR) return fail_os("connect");
  }
  int on = 1;
  setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  Writer hello;
  hello.u32(kWireMagic);
  hello.u8(static_cast<uint8_t>(kind));
  hello.raw(arguments.view().data(), arguments.size());
  std::string body;
  if (send_frame(sock, hello.bytes()) != YARROW_OK) return YARROW_ERR;
  if (read_frame(sock, &body) != YARROW_OK) return YARROW_ERR;
  return take_status(&body);
}

int send_frame(int sock, std::string_view body) {
  if (body.size() > kMaxFrame) return fail(YARROW_ERR_TOOBIG, "a request too big");
  Writer frame;
  frame.text(body);
  return send_all(sock, frame.bytes());
}

int read_frame(int sock, std::string* body) {
  char head[4];
  if (receive_all(sock, head, sizeof head) != YARROW_OK) return YARROW_ERR;
  uint32_t length = Reader(std::string_view(head, sizeof head)).u32();
  if (length > kMaxFrame) return fail(YARROW_ERR_PROTOCOL, "an answer too big");
  body->resize(length);
  return receive_all(sock, body->data(), length);
}

int call(int sock, Request request, const Writer& arguments, std::string* content) {
  Writer body;
  body.u8(static_cast<uint8_t>(request));
  body.raw(arguments.view().data(), arguments.size());
  if (send_frame(sock, body.bytes()) != YARROW_OK) return YARROW_ERR;
  if (read_frame(sock, content) != YARROW_OK) return YARROW_ERR;
  return take_status(content);
}

int call_plain(int sock, Request request, const Writer& arguments) {
  std::string content;
  return call(sock, request, arguments, &content);
}

int call_number(int sock, Request request, const Writer& arguments) {
  std::string content;
  if (call(sock, request, arguments, &content) != YARROW_OK) return YARROW_ERR;
  Reader in(content);
  uint32_t number = in.u32();
  if (!in.ok() || number > INT32_MAX) return fail(YARROW_ERR_PROTOCOL, "an answer cut short");
  return static_cast<int>(number);
}

bool add_path(Writer& out, const char* format, va_list args) {
  char path[kMaxPath + 1];
  int length = vsnprintf(path, sizeof path, format, args);
  if (length < 0 || static_cast<size_t>(length) >= sizeof path) {
    fail(YARROW_ERR_TOOBIG, "a path too long");
    return false;
  }
  out.text(std::string_view(path, static_cast<size_t>(length)));
  return true;
}

bool add_value(Writer& out, const t_yarrow_value& value) {
  out.u32(value.type);
  switch (value.type) {
    case C_NOEXISTS:
    case C_XMLTAG:
      return true;
    case C_BUF: {
      const char* text = reinterpret_cast<const char*>(value.val.buf.ptr);
      out.text(text != nullptr ? std::string_view(text, value.val.buf.size) : std::string_view());
      return true;
    }
    case C_INT8:
    case C_UINT8:
      out.u8(value.val.u8);
      return true;
    case C_BOOL:
      out.u8(value.val.boolean);
      return true;
    case C_INT16:
    case C_UINT16:
      out.u16(value.val.u16);
      return true;
    case C_INT32:
    case C_UINT32:
      out.u32(value.val.u32);
      return true;
    case C_ENUM_VALUE:
      out.u32(value.val.enumvalue);
      return true;
    case C_INT64:
    case C_UINT64:
      out.u64(value.val.u64);
      return true;
    case C_IPV4:
      out.raw(&value.val.ip, sizeof value.val.ip);
      return true;
    case C_IPV6:
      out.raw(value.val.ip6, sizeof value.val.ip6);
      return true;
    case C_IPV4PREFIX:
      out.raw(&value.val.ipv4prefix.ip, sizeof value.val.ipv4prefix.ip);
      out.u8(value.val.ipv4prefix.len);
      return true;
    case C_IPV6PREFIX:
      out.raw(value.val.ipv6prefix.ip6, sizeof value.val.ipv6prefix.ip6);
      out.u8(value.val.ipv6prefix.len);
      return true;
    case C_LIST:
      out.u32(value.val.list.size);
      for (uint32_t i = 0; i < value.val.list.size; ++i) {
        const t_yarrow_value& item = value.val.list.ptr[i];
        if (item.type == C_LIST) break;
        if (!add_value(out, item)) return false;
      }
      return true;
    default:
      fail(YARROW_ERR_BADVALUE, "a value of no known type");
      return false;
  }
}

}  // namespace yarrow

int* yarrow_errno_location(void) { return &yarrow::t_error; }

const char* yarrow_lasterr(void) { return yarrow::t_reason.c_str(); }

const char* yarrow_strerror(int error) {
  switch (error) {
    case YARROW_ERR_NONE:
      return "no error";
    case YARROW_ERR_NOEXISTS:
      return "no such node";
    case YARROW_ERR_ALREADY:
      return "exists already";
    case YARROW_ERR_BADPATH:
      return "bad path";
    case YARROW_ERR_BADVALUE:
      return "bad value";
    case YARROW_ERR_INVALID:
      return "invalid configuration";
    case YARROW_ERR_PROTOCOL:
      return "bad request";
    case YARROW_ERR_MALFORMED:
      return "malformed text";
    case YARROW_ERR_ACCESS:
      return "access denied";
    case YARROW_ERR_OS:
      return "system call failed";
    case YARROW_ERR_LOCKED:
      return "locked by another session";
    case YARROW_ERR_TOOBIG:
      return "too big";
    case YARROW_ERR_NOTCONNECTED:
      return "not connected";
    default:
      return "unknown error";
  }
}
