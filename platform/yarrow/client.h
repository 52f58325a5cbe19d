// SPDX-License-Identifier: Apache-2.0
//
// What all calls of the client share: failing, connecting, and one request with its reply.
#ifndef YARROW_CLIENT_H
#define YARROW_CLIENT_H

#include <sys/socket.h>

#include <cstdarg>
#include <string>

#include "platform/yarrow/wire.h"
#include "yarrow/yarrow_types.h"

namespace yarrow {

// Sets the thread's error and returns YARROW_ERR.
int fail(int error, std::string_view reason);
int fail_os(std::string_view what);

// Connects the socket, the port replaced as the environment says, sends the hello (the kind, then
// `arguments`) and takes the answer.
int connect_socket(int sock, const struct sockaddr* addr, socklen_t addr_len, SocketKind kind,
                   const Writer& arguments);

int send_frame(int sock, std::string_view body);
int read_frame(int sock, std::string* body);

// Sends a request and takes its reply. On success `content` is what the agent answered.
int call(int sock, Request request, const Writer& arguments, std::string* content);

// The same where the answer holds nothing, or one number that the caller returns.
int call_plain(int sock, Request request, const Writer& arguments);
int call_number(int sock, Request request, const Writer& arguments);

// Appends a formatted path as a text. False, with the error set, if it is too long.
bool add_path(Writer& out, const char* format, va_list args);

// Appends a typed value. False, with the error set, for a type that is not known.
bool add_value(Writer& out, const t_yarrow_value& value);

}  // namespace yarrow
#endif
