// SPDX-License-Identifier: Apache-2.0
//
// The log of a process that runs as a service: one line an event, saying in words what happened, then
// its facts by name, such as
//   commit done commit=12 user=alice client=polctl changes=3
//
// Order   what happened is a fixed text, without the facts; names of facts are the same everywhere:
//         commit, user, client, context, source, port, path, peer, uid, limit, reason, file, offset.
// Texts   may come from anyone: bytes that are not printable ASCII, quotes and backslashes stand
//         escaped, a text is cut after kMaxLogText bytes. An empty text is left out with its name.
// Threads any: a line is one write. A reader that stands still costs lines, told once it reads again,
//         and never holds the process up.
#ifndef PLATFORM_SERVICE_LOG_H
#define PLATFORM_SERVICE_LOG_H

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

namespace service {

// Where the process's lines go. JSON is an object a line on stderr.
enum class LogTarget : uint8_t { kOff, kSyslog, kStderr, kJson };

// Syslog's numbers. Error: what was asked for is not done, and the operator must act. Warning:
// something was refused, cut off or given up, or a limit reached. Notice: start, end. Info: commits,
// rotation.
enum class LogLevel : uint8_t { kError = 3, kWarning = 4, kNotice = 5, kInfo = 6 };

constexpr size_t kMaxLogText = 1000;

struct LogField {
  const char* name;
  std::string value;
  bool is_number;

  LogField(const char* field, std::string_view text)
      : name(field), value(text.substr(0, kMaxLogText + 1)), is_number(false) {}
  template <std::integral Number>
  LogField(const char* field, Number number)
      : name(field), value(std::to_string(number)), is_number(true) {}
};

// Syslog until this is called. `program` stands in every line of stderr, and stays the caller's.
void log_to(LogTarget target, const char* program);

// False for a name that is none of "stderr", "syslog", "json" and "off".
bool log_target_of(std::string_view name, LogTarget* target);

void log_line(LogLevel level, std::string_view what, std::initializer_list<LogField> fields = {});

// What anybody may cause as often as he likes: at most 20 lines in 10 seconds, and one with the
// number of those left out before the next. One a kind of event; not shared between threads.
struct LogBurst {
  int64_t began = 0;  // milliseconds of the steady clock
  unsigned lines = 0;
  uint64_t left_out = 0;
};
void log_burst(LogBurst& burst, LogLevel level, std::string_view what,
               std::initializer_list<LogField> fields = {});

// Text that others wrote, in printable ASCII: a backslash begins what stands for another byte.
std::string visible_text(std::string_view text);

// One line in the target's form, without its end.
std::string log_format(LogTarget target, LogLevel level, std::string_view what,
                       std::initializer_list<LogField> fields);

}  // namespace service
#endif
