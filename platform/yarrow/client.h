// SPDX-License-Identifier: Apache-2.0
//
// What all calls of the client share: failing, connecting, and one request with its reply.
#ifndef YARROW_CLIENT_H
#define YARROW_CLIENT_H

#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <new>
#include <string>

#include "platform/yarrow/wire.h"
#include "yarrow/yarrow_types.h"

namespace yarrow {

// Sets the thread's error and returns YARROW_ERR.
int fail(int error, std::string_view reason);
int fail_os(std::string_view what);

// For the handler that every exported function has which may allocate: no exception passes the C
// interface, memory that cannot be had is an error like another.
int fail_no_memory();

// Ends a connection unless the exchange on it is done: an answer that is left on it would be taken
// for the next call's.
class Exchange {
 public:
  explicit Exchange(int sock) : sock_(sock) {}
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;
  ~Exchange() {
    if (sock_ >= 0) shutdown(sock_, SHUT_RDWR);
  }
  int done(int status) {
    sock_ = -1;
    return status;
  }

 private:
  int sock_;
};

// A descriptor that is closed at the end of its block.
class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (number_ >= 0) close(number_);
  }
  int get() const { return number_; }

 private:
  int number_;
};

// The time that is left of one call. It begins with the socket's own receive time limit, which the
// connect calls set; 0 there is no limit.
class TimeLimit {
 public:
  static TimeLimit of_socket(int sock);
  int left_ms() const;  // as poll takes it: -1 no limit

 private:
  using Clock = std::chrono::steady_clock;
  bool endless_ = true;
  Clock::time_point end_;
};

// Connects the socket to the agent at the address, or where the environment says, asks whose agent
// that is, sends the hello (the kind, then `arguments`) and takes the answer.
int connect_socket(int sock, const struct sockaddr* addr, socklen_t addr_len, SocketKind kind,
                   const Writer& arguments);

int send_frame(int sock, std::string_view body, const TimeLimit& limit);
int read_frame(int sock, std::string* body, const TimeLimit& limit);

// Takes a reply's status off the front of its body, which is then the content.
int take_status(std::string* body);

// Sends a request and takes its reply. On success `content` is what the agent answered.
int call(int sock, Request request, const Writer& arguments, std::string* content);

// The same where the answer holds nothing, or one number that the caller returns.
int call_plain(int sock, Request request, const Writer& arguments);
int call_number(int sock, Request request, const Writer& arguments);

// Appends a formatted path as a text. False, with the error set, if it is too long or memory is
// short: throws nothing, so that its callers reach their va_end.
bool add_path(Writer& out, const char* format, va_list args);

// Appends a typed value. False, with the error set, for a type that is not known.
bool add_value(Writer& out, const t_yarrow_value& value);

}  // namespace yarrow
#endif
