// SPDX-License-Identifier: Apache-2.0
//
// What became of a request: an error number of the client's contract, and reasons in words.
#ifndef AGENT_RESULT_H
#define AGENT_RESULT_H

#include <string>
#include <utility>

#include "yarrow/yarrow_types.h"

namespace agent {

struct [[nodiscard]] Result {
  t_yarrow_error error = YARROW_ERR_NONE;
  std::string reason;  // one a line

  bool ok() const { return error == YARROW_ERR_NONE; }
};

inline Result failed(t_yarrow_error error, std::string reason) {
  return {error, std::move(reason)};
}

}  // namespace agent
#endif
