// SPDX-License-Identifier: Apache-2.0
#include "support/seams.h"

#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace {

std::mutex g_log_lock;  // the worker logs too
std::string g_log;
std::atomic<bool> g_all_threads{false};
thread_local int g_until_failure = 0;  // 0: none armed
thread_local bool g_hit = false;

bool fails() {
  if (g_until_failure == 0 || --g_until_failure > 0) return false;
  g_hit = true;
  return true;
}

}  // namespace

extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* memory, size_t size);

void* __wrap_malloc(size_t size) { return fails() ? nullptr : __real_malloc(size); }
void* __wrap_calloc(size_t count, size_t size) {
  return fails() ? nullptr : __real_calloc(count, size);
}
void* __wrap_realloc(void* memory, size_t size) {
  return fails() ? nullptr : __real_realloc(memory, size);
}

// The library's lines only: what else is linked into a test logs to other facilities.
static void keep_line(int priority, const char* format, va_list args) {
  if ((priority & LOG_FACMASK) != LOG_LOCAL7) return;
  if (seams::spinlocks_held != 0) abort();
  if (!g_all_threads && gettid() != getpid()) return;
  char line[4096];
  vsnprintf(line, sizeof line, format, args);
  std::lock_guard<std::mutex> hold(g_log_lock);
  g_log += std::to_string(priority) + " " + line;
}

void __wrap_syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  keep_line(priority, format, args);
  va_end(args);
}

// What hardened code calls instead.
void __wrap___syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  keep_line(priority, format, args);
  va_end(args);
}
}

namespace seams {

std::string take_log() {
  std::string text;
  std::lock_guard<std::mutex> hold(g_log_lock);
  text.swap(g_log);
  return text;
}

void log_of_all_threads(bool all) { g_all_threads = all; }

Fail::Fail(int nth) { g_until_failure = nth, g_hit = false; }
Fail::~Fail() { g_until_failure = 0; }
bool Fail::hit() const { return g_hit; }

}  // namespace seams
