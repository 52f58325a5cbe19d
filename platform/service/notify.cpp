// SPDX-License-Identifier: Apache-2.0
#include "platform/service/notify.h"

#include <systemd/sd-daemon.h>

#include <algorithm>

namespace service {

void notify_ready(const std::string& status) {
  std::string line = status;
  // A line end would begin a message of its own.
  std::replace_if(
      line.begin(), line.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }, '?');
  sd_notify(0, ("READY=1\nSTATUS=" + line).c_str());
}

void notify_stopping() { sd_notify(0, "STOPPING=1"); }

}  // namespace service
