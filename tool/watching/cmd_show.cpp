// SPDX-License-Identifier: Apache-2.0
//
// polctl show, polctl clear. Only a host that runs has what they are about.
#include "tool/commands.h"
#include "tool/live_client.h"

namespace polctl {

int run_show(const ShowOptions& options, Output* out) {
  return ask_live(options.source.live, {options}, out);
}

int run_clear(const ClearOptions& options, Output* out) {
  return ask_live(options.source.live, {options}, out);
}

}  // namespace polctl
