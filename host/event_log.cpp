// SPDX-License-Identifier: Apache-2.0
#include "event_log.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "address_text.h"

namespace polctl {

void EventLog::line(std::string_view text) {
  if (waiting_.size() + text.size() > kMaxWaiting) {
    ++left_out_;
  } else {
    waiting_ += printable(text);
    waiting_ += '\n';
  }
  flush();
}

// The descriptor may be shared with others, so it stays blocking. What poll promises of a pipe is
// PIPE_BUF bytes; a terminal that is stopped is not ready.
void EventLog::flush() {
  while (!gone_ && (!waiting_.empty() || left_out_ > 0)) {
    pollfd ready = {fd_, POLLOUT, 0};
    if (poll(&ready, 1, 0) <= 0) return;
    if (waiting_.empty()) {
      waiting_ = fmt::format("{} lines were left out: their reader stood still\n", left_out_);
      left_out_ = 0;
    }
    ssize_t wrote = write(fd_, waiting_.data(), std::min<size_t>(waiting_.size(), PIPE_BUF));
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    gone_ = wrote < 0;  // who reads no more is not told any more
    waiting_.erase(0, static_cast<size_t>(std::max<ssize_t>(wrote, 0)));
  }
}

void EventLog::wants(std::vector<pollfd>* polls) const {
  if (!gone_ && !waiting_.empty()) polls->push_back({fd_, POLLOUT, 0});
}

}  // namespace polctl
