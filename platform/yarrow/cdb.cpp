// SPDX-License-Identifier: Apache-2.0
#include "yarrow/yarrow_cdb.h"

#include <unistd.h>

#include <chrono>
#include <thread>

#include "platform/yarrow/client.h"

namespace {

using yarrow::call_number;
using yarrow::call_plain;
using yarrow::Request;
using yarrow::Writer;

constexpr std::chrono::seconds kLockWait{10};
constexpr std::chrono::milliseconds kLockPause{50};

}  // namespace

int cdb_connect(int sock, int type, const struct sockaddr* addr, socklen_t addr_len) try {
  if (type != CDB_DATA_SOCKET) return yarrow::fail(YARROW_ERR_PROTOCOL, "no such kind of socket");
  return yarrow::connect_socket(sock, addr, addr_len, yarrow::SocketKind::kCdb, Writer());
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int cdb_close(int sock) { return close(sock) == 0 ? YARROW_OK : yarrow::fail_os("close"); }

int cdb_start_session2(int sock, int datastore, unsigned lock_flags) try {
  Writer out;
  out.u32(static_cast<uint32_t>(datastore));
  out.u32(lock_flags);
  // The agent answers at once; the waiting is done on this side.
  const auto end = std::chrono::steady_clock::now() + kLockWait;
  for (;;) {
    if (call_plain(sock, Request::kCdbStart, out) == YARROW_OK) return YARROW_OK;
    bool waits = (lock_flags & CDB_LOCK_WAIT) != 0 && yarrow_errno == YARROW_ERR_LOCKED;
    if (!waits || std::chrono::steady_clock::now() >= end) return YARROW_ERR;
    std::this_thread::sleep_for(kLockPause);
  }
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int cdb_end_session(int sock) try {
  return call_plain(sock, Request::kCdbEnd, Writer());
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int cdb_num_instances(int sock, const char* format, ...) try {
  Writer out;
  va_list args;
  va_start(args, format);
  bool good = yarrow::add_path(out, format, args);
  va_end(args);
  return good ? call_number(sock, Request::kNumInstances, out) : YARROW_ERR;
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int cdb_delete(int sock, const char* format, ...) try {
  Writer out;
  va_list args;
  va_start(args, format);
  bool good = yarrow::add_path(out, format, args);
  va_end(args);
  return good ? call_plain(sock, Request::kDelete, out) : YARROW_ERR;
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int cdb_exists(int sock, const char* format, ...) try {
  Writer out;
  va_list args;
  va_start(args, format);
  bool good = yarrow::add_path(out, format, args);
  va_end(args);
  return good ? call_number(sock, Request::kExists, out) : YARROW_ERR;
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}
