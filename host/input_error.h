/* SPDX-License-Identifier: Apache-2.0
 *
 * input_error.h - what is wrong with the user's input, and where.
 */
#ifndef HOST_INPUT_ERROR_H
#define HOST_INPUT_ERROR_H

#include <cstddef>
#include <stdexcept>
#include <string>
#include <utility>

namespace polctl {

/* Exit statuses of every command. */
enum ExitStatus {
  kDone = 0,
  kFindings = 1,
  kBadInput = 2,
  kInternal = 3, /* the tool contradicts the library */
  kNotKnown = 4  /* a bound was met, or the answer is not the policy's alone */
};

/* Ends a command with kBadInput; what() is the whole line for stderr. */
struct InputError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/* Ends a command with kInternal; what() is the whole line. */
struct InternalError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/* A fault within one line; who knows the file and the line makes an InputError of it. */
struct LineFault {
  size_t column = 1; /* from 1, in bytes */
  std::string what;
  std::string expected; /* empty when nothing else fits */
};

/* Carries a LineFault out of a parser. */
struct LineFaultError : std::runtime_error {
  explicit LineFaultError(LineFault f) : std::runtime_error(f.what), fault(std::move(f)) {}
  LineFault fault;
};

}  // namespace polctl

#endif
