// SPDX-License-Identifier: Apache-2.0
//
// The YANG modules as text, in the order in which they are loaded. Their source is agent/yang.
#ifndef AGENT_MODULES_H
#define AGENT_MODULES_H

namespace agent {

struct Module {
  const char* name;
  const char* text;
};

extern const Module kModules[3];

}  // namespace agent
#endif
