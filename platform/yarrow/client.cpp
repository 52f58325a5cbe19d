// SPDX-License-Identifier: Apache-2.0
//
// The client keeps nothing about a socket: each call writes one frame and reads one back, so that a
// caller may pass sockets between its threads and close them as it likes.
#include "platform/yarrow/client.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <system_error>

namespace yarrow {

namespace {

thread_local int t_error = YARROW_ERR_NONE;
thread_local std::string t_reason;

// A call that runs out of time leaves an answer that is still to come, which would be taken for the
// next call's: the connection is of no further use.
int out_of_time(int sock) {
  shutdown(sock, SHUT_RDWR);
  return fail(YARROW_ERR_TIMEOUT, "no answer within the time limit");
}

int wait_for(int sock, short events, const TimeLimit& limit) {
  for (;;) {
    pollfd watched = {sock, events, 0};
    int ready = poll(&watched, 1, limit.left_ms());
    if (ready > 0) return YARROW_OK;
    if (ready == 0) return out_of_time(sock);
    if (errno != EINTR) return fail_os("poll");
  }
}

int send_all(int sock, std::string_view bytes, const TimeLimit& limit) {
  while (!bytes.empty()) {
    ssize_t sent = send(sock, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent > 0) {
      bytes.remove_prefix(static_cast<size_t>(sent));
    } else if (sent < 0 && errno == EAGAIN) {
      if (wait_for(sock, POLLOUT, limit) != YARROW_OK) return YARROW_ERR;
    } else if (sent == 0 || errno != EINTR) {
      return fail(YARROW_ERR_NOTCONNECTED, "the connection is lost");
    }
  }
  return YARROW_OK;
}

int receive_all(int sock, char* bytes, size_t size, const TimeLimit& limit) {
  while (size > 0) {
    ssize_t got = recv(sock, bytes, size, MSG_DONTWAIT);
    if (got > 0) {
      bytes += got;
      size -= static_cast<size_t>(got);
    } else if (got < 0 && errno == EAGAIN) {
      if (wait_for(sock, POLLIN, limit) != YARROW_OK) return YARROW_ERR;
    } else if (got == 0 || errno != EINTR) {
      return fail(YARROW_ERR_NOTCONNECTED, "the connection is lost");
    }
  }
  return YARROW_OK;
}

}  // namespace

int fail(int error, std::string_view reason) {
  t_error = error;
  t_reason = reason;
  return YARROW_ERR;
}

// Allocates nothing: so short a text lies in the string itself.
int fail_no_memory() {
  t_error = YARROW_ERR_OS;
  t_reason = "out of memory";
  return YARROW_ERR;
}

int fail_os(std::string_view what) {
  int error = errno;
  return fail(YARROW_ERR_OS, std::string(what) + ": " + std::generic_category().message(error));
}

TimeLimit TimeLimit::of_socket(int sock) {
  timeval set = {};
  socklen_t size = sizeof set;
  TimeLimit limit;
  if (getsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &set, &size) != 0) return limit;
  if (set.tv_sec == 0 && set.tv_usec == 0) return limit;
  limit.end_ =
      Clock::now() + std::chrono::seconds(set.tv_sec) + std::chrono::microseconds(set.tv_usec);
  limit.endless_ = false;
  return limit;
}

int TimeLimit::left_ms() const {
  if (endless_) return -1;
  auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - Clock::now()).count();
  return static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX));
}

namespace {

// The reasons, one a line, in which names stand as the agent was given them: fit for a terminal.
std::string shown(std::string_view reasons) {
  std::string text(reasons);
  for (char& byte : text) {
    if ((static_cast<unsigned char>(byte) < ' ' && byte != '\n') || byte == '\x7f') byte = '?';
  }
  return text;
}

}  // namespace

int take_status(std::string* body) {
  Reader in(*body);
  uint32_t error = in.u32();
  if (!in.ok()) return fail(YARROW_ERR_PROTOCOL, "an answer cut short");
  if (error != YARROW_ERR_NONE) return fail(static_cast<int>(error), shown(in.text()));
  body->erase(0, sizeof error);
  return YARROW_OK;
}

int send_frame(int sock, std::string_view body, const TimeLimit& limit) {
  if (body.size() > kMaxFrame) return fail(YARROW_ERR_TOOBIG, "a request too big");
  Writer frame;
  frame.text(body);
  return send_all(sock, frame.bytes(), limit);
}

int read_frame(int sock, std::string* body, const TimeLimit& limit) {
  char head[4];
  if (receive_all(sock, head, sizeof head, limit) != YARROW_OK) return YARROW_ERR;
  uint32_t length = Reader(std::string_view(head, sizeof head)).u32();
  if (length > kMaxFrame) return fail(YARROW_ERR_PROTOCOL, "an answer too big");
  body->resize(length);
  return receive_all(sock, body->data(), length, limit);
}

int call(int sock, Request request, const Writer& arguments, std::string* content) {
  Writer body;
  body.u8(static_cast<uint8_t>(request));
  body.raw(arguments.view().data(), arguments.size());
  const TimeLimit limit = TimeLimit::of_socket(sock);
  Exchange exchange(sock);
  if (send_frame(sock, body.bytes(), limit) != YARROW_OK) return exchange.done(YARROW_ERR);
  if (read_frame(sock, content, limit) != YARROW_OK) return exchange.done(YARROW_ERR);
  return exchange.done(take_status(content));
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
  try {
    out.text(std::string_view(path, static_cast<size_t>(length)));
  } catch (const std::bad_alloc&) {
    fail_no_memory();
    return false;
  }
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
    case YARROW_ERR_TIMEOUT:
      return "out of time";
    default:
      return "unknown error";
  }
}
