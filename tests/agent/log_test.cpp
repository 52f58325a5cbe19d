// SPDX-License-Identifier: Apache-2.0
//
// The log: what hostile text becomes in it, and that nobody can fill it or hold it up.
#include "platform/service/log.h"

#include <fcntl.h>
#include <unistd.h>

#include <regex>

#include "support.h"

namespace test {
namespace {

using service::LogLevel;
using service::LogTarget;

TEST(LogTest, TextsOfOthersStayInTheirFieldInEveryForm) {
  const std::string hostile = "a\x1b[2J\n2026 error: \"fake\" \\x\xc3\xa9\x7f";
  const struct {
    LogTarget target;
    const char* expected;
  } kCases[] = {
      {LogTarget::kSyslog,
       R"(commit done commit=7 user="a\x1b[2J\n2026 error: \"fake\" \\x\xc3\xa9\x7f" client=me)"},
      {LogTarget::kStderr,
       R"(TIME p[PID] info: commit done commit=7 user="a\x1b[2J\n2026 error: \"fake\" \\x\xc3\xa9\x7f" client=me)"},
      {LogTarget::kJson,
       R"({"time":"TIME","program":"p","pid":PID,"level":"info","what":"commit done","commit":7,"user":"a\\x1b[2J\\n2026 error: \"fake\" \\\\x\\xc3\\xa9\\x7f","client":"me"})"},
  };
  service::log_to(LogTarget::kOff, "p");
  for (const auto& [target, expected] : kCases) {
    std::string line =
        service::log_format(target, LogLevel::kInfo, "commit done",
                            {{"commit", 7}, {"user", hostile}, {"client", "me"}, {"source", ""}});
    line =
        std::regex_replace(line, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)"), "TIME");
    line =
        std::regex_replace(line, std::regex(R"(\b)" + std::to_string(getpid()) + R"(\b)"), "PID");
    EXPECT_EQ(line, expected);
  }
  std::string line = service::log_format(LogTarget::kJson, LogLevel::kInfo, "w",
                                         {{"user", std::string(1 << 20, '\n')}, {"client", "me"}});
  EXPECT_LT(line.size(), 4096u);
  EXPECT_TRUE(line.ends_with(R"(...","client":"me"})")) << line;
}

// Every line is either read or counted among those that are missing.
TEST(LogTest, AReaderThatStandsStillCostsLinesAndHoldsNobodyUp) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  int saved = dup(STDERR_FILENO);
  dup2(ends[1], STDERR_FILENO);
  service::log_to(LogTarget::kStderr, "p");
  int lines = 0;
  int missing = 0;
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < 2000; ++i) service::log_line(LogLevel::kInfo, "something happened");
    char block[1 << 16];
    std::string text(block, static_cast<size_t>(read(ends[0], block, sizeof block)));
    for (size_t at = 0; (at = text.find("something", at)) != std::string::npos; ++at) ++lines;
    size_t at = text.find("lines=");
    if (at != std::string::npos) missing += atoi(text.c_str() + at + 6);
  }
  service::log_line(LogLevel::kInfo, "last");
  char block[4096];
  std::string text(block, static_cast<size_t>(read(ends[0], block, sizeof block)));
  missing += atoi(text.c_str() + text.find("lines=") + 6);
  service::LogBurst burst;
  for (int i = 0; i < 500; ++i) service::log_burst(burst, LogLevel::kWarning, "refused");
  text.assign(block, static_cast<size_t>(read(ends[0], block, sizeof block)));
  dup2(saved, STDERR_FILENO);
  service::log_to(LogTarget::kOff, "p");
  for (int handle : {saved, ends[0], ends[1]}) close(handle);
  EXPECT_GT(lines, 0);
  EXPECT_EQ(lines + missing, 6000);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 20);
  EXPECT_EQ(burst.left_out, 480u);
}

}  // namespace
}  // namespace test
