/* SPDX-License-Identifier: Apache-2.0
 *
 * live_request.h - the commands that a running host answers, as they go over its socket.
 */
#ifndef TOOL_LIVE_REQUEST_H
#define TOOL_LIVE_REQUEST_H

#include <string>
#include <string_view>
#include <variant>

#include "commands.h"

namespace polctl {

struct LiveRequest {
  std::variant<EvalOptions, DumpOptions, GraphOptions, DocumentOptions, LabelsOptions, ShowOptions,
               ClearOptions, TestOptions, SearchOptions>
      options;
  std::string input = {};
};

std::string encode_options(const LiveRequest& request);
/* False when the text is none of a request: every option must be there and of its type. */
bool decode_options(std::string_view text, LiveRequest* request);

}  // namespace polctl

#endif
