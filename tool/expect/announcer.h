/* SPDX-License-Identifier: Apache-2.0
 *
 * announcer.h - what a commit changes for routes, told by a host before it answers by the new policy.
 */
#ifndef TOOL_EXPECT_ANNOUNCER_H
#define TOOL_EXPECT_ANNOUNCER_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tool/proof/policy_model.h"

namespace polctl {

class Announcer {
 public:
  /* `directions` are those in which policies are applied, inbound where none is given; they outlive this.
   * Reads the process's context. */
  explicit Announcer(const std::map<std::string, uint32_t>& directions);

  /* After a batch was walked: every kind of route that is answered otherwise than before it, in lines.
   * Takes kSeconds a policy at most, then says that the answer is not known. */
  std::vector<std::string> changes();

  static constexpr int kSeconds = 5;

 private:
  const std::map<std::string, uint32_t>& directions_;
  std::unique_ptr<Model> last_;
};

}  // namespace polctl

#endif
