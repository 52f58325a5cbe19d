/* SPDX-License-Identifier: Apache-2.0
 *
 * source_file.h - a file that a command is given, or standard input ("-").
 *
 * Readers open what they read by its path, some of them twice. So what has no size, such as a pipe, is
 * read once and kept in memory; set-lines are made into XML at once. Nothing beyond kMaxSourceBytes is read, whatever it is.
 */
#ifndef HOST_SOURCE_FILE_H
#define HOST_SOURCE_FILE_H

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace polctl {

inline constexpr size_t kMaxSourceBytes = size_t{128} << 20;

/* A file in memory, to be opened by its path as long as this lives. */
class MemoryFile {
 public:
  /* Throws InputError when there is no memory. */
  explicit MemoryFile(std::string_view text);
  ~MemoryFile();
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;
  std::string path() const;
  /* For another process of the same user. */
  std::string path_outside() const;

 private:
  int fd_;
};

enum class SourceKind { kConfiguration, kSetLines, kJson, kPolicyFile };

struct SetDocument;

class SourceFile {
 public:
  /* `expected` says what it should be, for messages. Throws InputError when it cannot be read, is too
   * large, or by its first bytes is something else: compressed, routes. Messages call it `name` unless
   * that is "". */
  SourceFile(const std::string& given, const char* expected, const std::string& name = "");

  const std::string& name() const { return name_; } /* for messages: "<stdin>" for "-" */
  const std::string& path() const { return path_; } /* to be opened */
  SourceKind kind() const { return kind_; }         /* by its content */
  bool is_configuration() const { return kind_ == SourceKind::kConfiguration || set_lines_; }

  /* Configuration as XML, to be opened: the file, or what its set-lines were made into, which then
   * says where its lines stand. */
  const std::string& xml_path() const;
  const SetDocument* set_lines() const { return set_lines_.get(); } /* null: XML, or none at all */

 private:
  std::string name_;
  std::string path_;
  std::shared_ptr<MemoryFile>
      copy_; /* of what has no size; of standard input the process keeps it */
  std::shared_ptr<const SetDocument> set_lines_;
  std::shared_ptr<MemoryFile> xml_; /* of set-lines */
  std::string xml_path_;
  SourceKind kind_ = SourceKind::kPolicyFile;
};

using SourceFiles = std::vector<SourceFile>;

/* Files that must all be configuration, or one that must be a policy file. Throw InputError. */
void require_configuration(const SourceFiles& files);
SourceFiles open_configuration(const std::vector<std::string>& given);
SourceFile open_policy_file(const std::string& given);

/* A whole file, or standard input ("-"). Throws InputError when it cannot be read or has more than
 * `limit` bytes. */
std::string read_whole(const std::string& path, size_t limit, const char* expected);

}  // namespace polctl

#endif
