/* SPDX-License-Identifier: Apache-2.0
 *
 * line_editor.h - lines from a terminal, with editing, history and completion.
 */
#ifndef TOOL_SHELL_LINE_EDITOR_H
#define TOOL_SHELL_LINE_EDITOR_H

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "shell.h"

namespace polctl {

class LineEditor {
 public:
  using Complete =
      std::function<std::vector<Candidate>(const Words& before, const std::string& last)>;

  /* Tab completes, `?` outside quotes tells what may come next. */
  explicit LineEditor(Complete complete);
  ~LineEditor();
  LineEditor(const LineEditor&) = delete;
  LineEditor& operator=(const LineEditor&) = delete;

  /* The next line without its end; none at the end of the input. What stands before the last line of
   * the prompt is printed above it. An interrupted line is an empty one. */
  std::optional<std::string> next(const std::string& prompt);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace polctl

#endif
