// SPDX-License-Identifier: Apache-2.0
#include "scripted.h"

#include <dirent.h>
#include <event2/event.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "exchange/pol_thread_wait.h"
#include "exchange/pol_yarrow_thread_internal.h"
#include "support/seams.h"
#include "yarrow/yarrow_cdb.h"
#include "yarrow/yarrow_maapi.h"
#include "yarrow/yarrow_schema.h"

namespace {

std::recursive_mutex g_lock;  // a sanitizer may call what is replaced while a statement holds it
std::condition_variable_any g_changed;
scripted::State g_state;
thread_local int t_errno = 0;

bool fails_by_name(const char* name) {
  if (g_state.fail_times == 0 || g_state.fail_name != name) return false;
  if (g_state.fail_skip-- > 0) return false;
  --g_state.fail_times;
  t_errno = scripted::kError;
  return true;
}

bool fails(const char* name) {
  std::lock_guard<std::recursive_mutex> hold(g_lock);
  return fails_by_name(name);
}

void keep_while_held(const char* name, std::unique_lock<std::recursive_mutex>* hold) {
  if (g_state.held != name || g_state.held_skip-- > 0) return;
  g_state.reached = true;
  g_changed.notify_all();
  g_changed.wait(*hold, [] { return g_state.held.empty(); });
}

// Also traces the call, and keeps it while it is held.
bool traced_fails(const char* name) {
  std::unique_lock<std::recursive_mutex> hold(g_lock);
  g_state.trace += std::string(name) + " ";
  keep_while_held(name, &hold);
  t_errno = scripted::kError;
  return ++g_state.step == g_state.fail_step || fails_by_name(name);
}

// A call on a socket or handle that is none fails as well.
int outcome(const char* name, int handle, int opened = 0, int result = YARROW_OK) {
  if (traced_fails(name)) return YARROW_ERR;
  if (handle < 0) return YARROW_ERR;
  scripted::state()->open += opened;
  return result;
}

// What ends a handle ends it also when it fails.
int ending(const char* name) {
  bool failed = traced_fails(name);
  --scripted::state()->open;
  return failed ? YARROW_ERR : YARROW_OK;
}

std::string keep_path(const char* format, va_list args) {
  char path[4096];
  vsnprintf(path, sizeof path, format, args);
  scripted::state()->paths += std::string(path) + "\n";
  return path;
}

}  // namespace

#define KEEP_PATH(format)                           \
  va_list args;                                     \
  va_start(args, format);                           \
  const std::string path = keep_path(format, args); \
  va_end(args)

// NOLINTBEGIN: names and shapes are those of what is replaced.
extern "C" {

int* yarrow_errno_location() { return &t_errno; }
const char* yarrow_strerror(int error) {
  static thread_local char text[32];
  snprintf(text, sizeof text, "error %d", error);
  return text;
}
const char* yarrow_lasterr() { return "as scripted"; }
// Knows nothing of steps below a node, nor of "/".
const t_yarrow_cs_node* yarrow_cs_node_cd(const t_yarrow_cs_node* start, const char* format, ...) {
  static const t_yarrow_cs_node node = {};
  KEEP_PATH(format);
  if (strcmp(format, "%s") != 0) scripted::state()->paths += "formatted\n";
  return start == nullptr && scripted::state()->schema.contains(path) ? &node : nullptr;
}

int maapi_connect(int sock, const sockaddr*, socklen_t) { return outcome("maapi_connect", sock); }
int maapi_close(int sock) {
  bool failed = traced_fails("maapi_close");
  return close(sock) == 0 && !failed ? YARROW_OK : YARROW_ERR;
}
int maapi_start_user_session3(int sock, const char*, const char*, const sockaddr*, const char*) {
  return outcome("maapi_start_user_session3", sock);
}
int maapi_end_user_session(int sock) { return outcome("maapi_end_user_session", sock); }
int maapi_start_trans_flags2(int sock, int, int, int, unsigned, const char*, const char*) {
  return outcome("maapi_start_trans_flags2", sock, 1, 3);
}
int maapi_finish_trans(int, int) { return ending("maapi_finish_trans"); }
int maapi_candidate_commit(int sock) { return outcome("maapi_candidate_commit", sock); }

int maapi_apply_trans(int sock, int, int) {
  int status = outcome("maapi_apply_trans", sock);
  std::lock_guard<std::recursive_mutex> hold(g_lock);
  if (g_state.apply_times == 0) return status;
  --g_state.apply_times;
  t_errno = YARROW_ERR_LOCKED;
  return g_state.apply_result;
}

int maapi_delete(int sock, int, const char* format, ...) {
  KEEP_PATH(format);
  if (outcome("maapi_delete", sock) != YARROW_OK) return YARROW_ERR;
  const bool of_list = path.find("kel-tloc-pref-list{") != std::string::npos;
  if (!of_list && !path.ends_with("/vpn-label")) return YARROW_OK;
  if (of_list && atoi(path.c_str() + path.rfind('{') + 1) < g_state.positions) return YARROW_OK;
  t_errno = YARROW_ERR_NOEXISTS;
  return YARROW_ERR;
}
int maapi_set_elem(int sock, int, const t_yarrow_value* value, const char* format, ...) {
  KEEP_PATH(format);
  scripted::state()->objects += std::to_string(value->val.u32) + "\n";
  return outcome("maapi_set_elem", sock);
}
int maapi_set_object(int sock, int, const t_yarrow_value* values, int count, const char* format,
                     ...) {
  KEEP_PATH(format);
  std::string types;
  for (int i = 0; i < count; ++i) types += std::to_string(values[i].type) + " ";
  scripted::state()->objects += types + "\n";
  return outcome("maapi_set_object", sock);
}

int maapi_save_config(int sock, int, unsigned, const char* format, ...) {
  KEEP_PATH(format);
  return outcome("maapi_save_config", sock, 0, 5);
}
int maapi_save_config_result(int sock, int) { return outcome("maapi_save_config_result", sock); }
int maapi_load_config(int sock, int, unsigned, const char*) {
  return outcome("maapi_load_config", sock);
}
int maapi_load_config_cmds(int sock, int, unsigned, const char*, const char*, ...) {
  return outcome("maapi_load_config_cmds", sock);
}

// The text lies in the socket's buffer when this returns.
int yarrow_stream_connect(int sock, const sockaddr*, socklen_t, int, int) {
  if (outcome("yarrow_stream_connect", sock) != YARROW_OK) return YARROW_ERR;
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) abort();
  std::lock_guard<std::recursive_mutex> hold(g_lock);
  const std::string& text = g_state.stream;
  if (send(ends[0], text.data(), text.size(), MSG_DONTWAIT) != static_cast<ssize_t>(text.size())) {
    abort();
  }
  close(ends[0]);
  dup2(ends[1], sock);
  close(ends[1]);
  return YARROW_OK;
}

int cdb_connect(int sock, int, const sockaddr*, socklen_t) { return outcome("cdb_connect", sock); }
int cdb_close(int sock) {
  bool failed = traced_fails("cdb_close");
  return close(sock) == 0 && !failed ? YARROW_OK : YARROW_ERR;
}
int cdb_start_session2(int sock, int, unsigned) { return outcome("cdb_start_session2", sock); }
int cdb_end_session(int sock) { return outcome("cdb_end_session", sock); }
int cdb_num_instances(int sock, const char* format, ...) {
  KEEP_PATH(format);
  return outcome("cdb_num_instances", sock, 0, path == "/policy/from-pellux/policer" ? 0 : 1);
}
int cdb_delete(int sock, const char* format, ...) {
  KEEP_PATH(format);
  return outcome("cdb_delete", sock);
}

bool __real_pol_thread_wait(t_pol_yarrow_thread* thread, unsigned seconds);
bool __wrap_pol_thread_wait(t_pol_yarrow_thread* thread, unsigned seconds) {
  {
    std::lock_guard<std::recursive_mutex> hold(g_lock);
    ++g_state.waits;
    if (seconds != 5) abort();
    g_changed.notify_all();
    if (!g_state.real_waits) return true;
  }
  return __real_pol_thread_wait(thread, seconds);
}

int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol) {
  return traced_fails("socket") ? (errno = EMFILE, -1) : __real_socket(domain, type, protocol);
}
ssize_t __real_recv(int sock, void* bytes, size_t size, int flags);
ssize_t __wrap_recv(int sock, void* bytes, size_t size, int flags) {
  return traced_fails("recv") ? -1 : __real_recv(sock, bytes, size, flags);
}
FILE* __wrap_fopen(const char*, const char*) { return traced_fails("fopen") ? nullptr : tmpfile(); }
int __real_close(int fd);
int __wrap_close(int fd) {
  int status = __real_close(fd);
  if (status != 0) ++scripted::state()->bad_closes;
  return status;
}

#define FAILS_WHEN_TOLD(type, name, parameters, arguments, failure)             \
  type __real_##name parameters;                                                \
  type __wrap_##name parameters {                                               \
    return fails(#name) ? static_cast<type>(failure) : __real_##name arguments; \
  }
FAILS_WHEN_TOLD(int, pipe, (int* ends), (ends), -1)
FAILS_WHEN_TOLD(int, fcntl, (int fd, int command, int argument), (fd, command, argument), -1)
FAILS_WHEN_TOLD(ssize_t, write, (int fd, const void* bytes, size_t size), (fd, bytes, size),
                (errno = EIO, -1))
FAILS_WHEN_TOLD(event_base*, event_base_new, (), (), nullptr)
FAILS_WHEN_TOLD(event*, event_new,
                (event_base * base, int fd, short what, event_callback_fn call, void* arg),
                (base, fd, what, call, arg), nullptr)
FAILS_WHEN_TOLD(int, event_add, (event * what, const timeval* timeout), (what, timeout), -1)
FAILS_WHEN_TOLD(int, pthread_spin_init, (pthread_spinlock_t * lock, int shared), (lock, shared),
                EAGAIN)
int __real_pthread_spin_lock(pthread_spinlock_t* lock);
int __wrap_pthread_spin_lock(pthread_spinlock_t* lock) {
  if (fails("pthread_spin_lock")) return EDEADLK;
  ++seams::spinlocks_held;
  return __real_pthread_spin_lock(lock);
}
// What fails to be let go or destroyed is so all the same.
int __real_pthread_spin_unlock(pthread_spinlock_t* lock);
int __wrap_pthread_spin_unlock(pthread_spinlock_t* lock) {
  --seams::spinlocks_held;
  const int status = __real_pthread_spin_unlock(lock);
  char thread[16] = "";
  pthread_getname_np(pthread_self(), thread, sizeof thread);
  if (strcmp(thread, "pol-yarrow") == 0) {
    std::unique_lock<std::recursive_mutex> hold(g_lock);
    keep_while_held("pthread_spin_unlock", &hold);
  }
  return fails("pthread_spin_unlock") ? EPERM : status;
}
FAILS_WHEN_TOLD(int, pthread_spin_destroy, (pthread_spinlock_t * lock), (lock),
                (__real_pthread_spin_destroy(lock), EBUSY))
}
// NOLINTEND

namespace scripted {

Locked state() { return {std::unique_lock<std::recursive_mutex>(g_lock), &g_state}; }
void reset() { *state().state = {}; }
void fail_call(const char* name, int skip, int times) {
  std::lock_guard<std::recursive_mutex> hold(g_lock);
  g_state.fail_name = name;
  g_state.fail_skip = skip;
  g_state.fail_times = times;
}
int occurrences(const std::string& text, const std::string& part) {
  int count = 0;
  for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) ++count;
  return count;
}
int calls(const std::string& name) { return occurrences(state()->trace, " " + name + " "); }
void hold(const char* name, int skip) {
  std::lock_guard<std::recursive_mutex> hold(g_lock);
  g_state.held = name;
  g_state.held_skip = skip;
  g_state.reached = false;
}
void wait_until_held() {
  std::unique_lock<std::recursive_mutex> lock(g_lock);
  g_changed.wait(lock, [] { return g_state.reached; });
}
void release() {
  state()->held.clear();
  g_changed.notify_all();
}
int descriptors() {
  DIR* directory = opendir("/proc/self/fd");
  int count = 0;
  while (readdir(directory) != nullptr) ++count;
  closedir(directory);
  return count;
}

}  // namespace scripted
