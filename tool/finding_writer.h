/* SPDX-License-Identifier: Apache-2.0
 *
 * finding_writer.h - what a check found, for people and for programs.
 */
#ifndef TOOL_FINDING_WRITER_H
#define TOOL_FINDING_WRITER_H

#include <cstdint>
#include <memory>
#include <string>

#include "host/output.h"
#include "host/source_file.h"
#include "line_reader.h"
#include "terminal.h"

namespace polctl {

struct Finding {
  uint32_t line = 0;   /* 0: not known, as column 0 */
  uint32_t column = 0; /* in bytes */
  bool is_error = false;
  bool has_path = false; /* in configuration */
  std::string path;
  std::string what;
  std::string expected;   /* empty: nothing else fits */
  std::string route = {}; /* that shows it, in JSON; empty: none */
};

struct FindingOptions {
  bool json = false;
  bool all = false; /* beyond kFindingsShown of a file too */
};

inline constexpr uint64_t kFindingsShown = 100;

class FindingWriter {
 public:
  FindingWriter(const FindingOptions& options, Output* out)
      : options_(options), out_(*out), palette_(out->fd()) {}

  /* What follows was found in this file, in the order of its lines; null: in none of those given. The
   * file must live as long. Throws InputError. */
  void begin_file(const SourceFile* file);
  void add(const Finding& finding);
  /* The counts, in a line of their own unless programs read. */
  void finish(const std::string& files);

  uint64_t errors() const { return errors_; }
  uint64_t warnings() const { return warnings_; }

 private:
  void write_json(const Finding& finding);
  void write_text(const Finding& finding);
  void write_source(const Finding& finding);

  FindingOptions options_;
  Output& out_;
  Palette palette_;
  const SourceFile* file_ = nullptr;
  std::unique_ptr<LineReader>
      lines_; /* findings come in the order of lines: one pass serves them */
  std::string_view line_;
  uint64_t in_file_ = 0;
  uint64_t left_out_ = 0;
  uint64_t errors_ = 0;
  uint64_t warnings_ = 0;
};

}  // namespace polctl

#endif
