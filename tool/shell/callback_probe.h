/* SPDX-License-Identifier: Apache-2.0
 *
 * callback_probe.h - whose policies a commit has called back.
 *
 * A process of its own follows the agent as a routing daemon does, with a user of each control and
 * membership policy: the library's context is one a process, and this one goes on connecting.
 */
#ifndef TOOL_SHELL_CALLBACK_PROBE_H
#define TOOL_SHELL_CALLBACK_PROBE_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "host/policy_source.h"

namespace polctl {

class CallbackProbe {
 public:
  /* Returns once the probe has walked what is running, or has failed to. To be made before the commit. */
  explicit CallbackProbe(const PolicyOptions& source);
  ~CallbackProbe();
  CallbackProbe(const CallbackProbe&) = delete;
  CallbackProbe& operator=(const CallbackProbe&) = delete;

  /* The policies whose users the next batch of changes called back; none where that is not known. */
  std::optional<std::vector<std::string>> called();

 private:
  bool wait_for(std::string* text, char end) const;

  int pipe_ = -1;
  pid_t child_ = -1;
  bool ready_ = false;
};

}  // namespace polctl

#endif
