// SPDX-License-Identifier: Apache-2.0
#include "platform/service/log.h"

#include <poll.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <ctime>

namespace service {

namespace {

constexpr size_t kMaxLine = PIPE_BUF - 1;  // so that a line is written whole or not at all
constexpr int64_t kBurstTime = 10'000;
constexpr unsigned kBurstLines = 20;

std::atomic<LogTarget> g_target = LogTarget::kSyslog;
std::atomic<const char*> g_program = "agent";
std::atomic<uint64_t> g_lost = 0;

const char* level_name(LogLevel level) {
  switch (level) {
    case LogLevel::kError:
      return "error";
    case LogLevel::kWarning:
      return "warning";
    case LogLevel::kNotice:
      return "notice";
    default:
      return "info";
  }
}

// The visible text in quotes; JSON has backslashes of its own.
std::string quoted(std::string_view visible_text, bool json) {
  std::string out = "\"";
  for (char c : visible_text) {
    if (c == '"' || (json && c == '\\')) out += '\\';
    out += c;
  }
  return out + '"';
}

std::string value_text(const LogField& field, bool json) {
  if (field.is_number) return field.value;
  std::string text = visible_text(field.value);
  bool plain = !json && text.find_first_of(" \"=\\") == std::string::npos;
  return plain ? text : quoted(text, json);
}

std::string timestamp() {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  tm parts = {};
  gmtime_r(&now.tv_sec, &parts);
  char text[40];
  size_t size = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  snprintf(text + size, sizeof text - size, ".%03ldZ", now.tv_nsec / 1'000'000);
  return text;
}

bool write_line(std::string line) {
  line += '\n';
  pollfd ready = {STDERR_FILENO, POLLOUT, 0};
  bool room = poll(&ready, 1, 0) == 1 && (ready.revents & POLLOUT) != 0;
  return room &&
         write(STDERR_FILENO, line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

void emit(LogLevel level, std::string_view what, std::initializer_list<LogField> fields) {
  LogTarget target = g_target;
  if (target == LogTarget::kOff) return;
  std::string line = log_format(target, level, what, fields);
  if (target == LogTarget::kSyslog) {
    syslog(LOG_DAEMON | static_cast<int>(level), "%s", line.c_str());
    return;
  }
  uint64_t lost = g_lost.exchange(0);
  bool told = lost == 0 || write_line(log_format(
                               target, LogLevel::kWarning,
                               "lines are missing: the log was not read, or could not be written",
                               {{"lines", lost}}));
  if (!told || !write_line(std::move(line))) g_lost += told ? 1 : lost + 1;
}

int64_t steady_ms() {
  using std::chrono::duration_cast;
  using std::chrono::milliseconds;
  auto since = std::chrono::steady_clock::now().time_since_epoch();
  return duration_cast<milliseconds>(since).count();
}

}  // namespace

std::string visible_text(std::string_view text) {
  std::string out;
  for (char c : text.substr(0, kMaxLogText)) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c >= ' ' && c <= '~') {
      out += c;
    } else {
      char code[8];
      snprintf(code, sizeof code, "\\x%02x", unsigned{static_cast<uint8_t>(c)});
      out += code;
    }
  }
  if (text.size() > kMaxLogText) out += "...";
  return out;
}

std::string log_format(LogTarget target, LogLevel level, std::string_view what,
                       std::initializer_list<LogField> fields) {
  bool json = target == LogTarget::kJson;
  std::string line;
  if (json) {
    line = "{\"time\":\"" + timestamp() + "\",\"program\":" + quoted(g_program.load(), true) +
           ",\"pid\":" + std::to_string(getpid()) + ",\"level\":\"" + level_name(level) +
           "\",\"what\":" + quoted(visible_text(what), true);
  } else if (target == LogTarget::kStderr) {
    line = timestamp() + ' ' + g_program.load() + '[' + std::to_string(getpid()) + "] " +
           level_name(level) + ": " + visible_text(what);
  } else {
    line = visible_text(what);
  }
  for (const LogField& field : fields) {
    if (field.value.empty()) continue;
    std::string value = value_text(field, json);
    std::string name =
        json ? ",\"" + std::string(field.name) + "\":" : ' ' + std::string(field.name) + '=';
    if (line.size() + name.size() + value.size() + 2 > kMaxLine) continue;
    line += name + value;
  }
  return json ? line + '}' : line;
}

void log_to(LogTarget target, const char* program) {
  g_program = program;
  g_target = target;
  if (target == LogTarget::kSyslog) openlog(program, LOG_PID, LOG_DAEMON);
}

bool log_target_of(std::string_view name, LogTarget* target) {
  constexpr std::pair<std::string_view, LogTarget> kNames[] = {{"stderr", LogTarget::kStderr},
                                                               {"syslog", LogTarget::kSyslog},
                                                               {"json", LogTarget::kJson},
                                                               {"off", LogTarget::kOff}};
  for (const auto& [known, meaning] : kNames) {
    if (name != known) continue;
    *target = meaning;
    return true;
  }
  return false;
}

void log_line(LogLevel level, std::string_view what, std::initializer_list<LogField> fields) {
  emit(level, what, fields);
}

void log_burst(LogBurst& burst, LogLevel level, std::string_view what,
               std::initializer_list<LogField> fields) {
  int64_t now = steady_ms();
  if (burst.lines == 0 || now - burst.began > kBurstTime) {
    uint64_t left_out = burst.left_out;
    burst = {now, 0, 0};
    if (left_out > 0) emit(level, what, {{"left_out", left_out}});
  }
  if (burst.lines == kBurstLines) {
    ++burst.left_out;
    return;
  }
  ++burst.lines;
  emit(level, what, fields);
}

}  // namespace service
