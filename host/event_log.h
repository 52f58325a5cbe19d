/* SPDX-License-Identifier: Apache-2.0
 *
 * event_log.h - the lines that a running host tells on standard output. A reader that stands still
 * costs lines, told once it reads again, and never holds the host up.
 */
#ifndef HOST_EVENT_LOG_H
#define HOST_EVENT_LOG_H

#include <poll.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace polctl {

class EventLog {
 public:
  static constexpr size_t kMaxWaiting = size_t{256} * 1024; /* bytes that a reader may be behind */

  explicit EventLog(int fd = 1) : fd_(fd) {}

  /* One line, without its end; what a terminal must not have is taken out. */
  void line(std::string_view text);
  /* Writes what the reader takes now. */
  void flush();
  /* Appends what is to be polled, if anything waits. */
  void wants(std::vector<pollfd>* polls) const;

 private:
  int fd_;
  bool gone_ = false;
  std::string waiting_;
  uint64_t left_out_ = 0;
};

}  // namespace polctl

#endif
