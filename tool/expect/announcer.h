/* SPDX-License-Identifier: Apache-2.0
 *
 * announcer.h - what a commit changes for routes, told by a host before it takes the commit.
 *
 * The library holds one configuration: so the process is copied, the copy takes the commit and compares
 * what it held with what it holds then. Nothing that it does reaches the host, but that the library's
 * worker may be woken for nothing.
 */
#ifndef TOOL_EXPECT_ANNOUNCER_H
#define TOOL_EXPECT_ANNOUNCER_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace polctl {

class Announcer {
 public:
  /* `directions` are those in which policies are applied, inbound where none is given; they outlive this. */
  explicit Announcer(const std::map<std::string, uint32_t>& directions) : directions_(directions) {}

  /* Every kind of route that is answered otherwise once `take`, which the copy alone calls, has had the
   * library take the commit; in lines. Takes kSeconds a policy at most and as long for the commit, then
   * says that the answer is not known. */
  std::vector<std::string> changes(const std::function<void()>& take) const;

  static constexpr int kSeconds = 5;

 private:
  std::string told_by_copy(const std::function<void()>& take, int pipe) const;

  const std::map<std::string, uint32_t>& directions_;
};

}  // namespace polctl

#endif
