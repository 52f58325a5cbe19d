// SPDX-License-Identifier: Apache-2.0
//
// The options of a service in a file, by the names that they have on its command line:
//   # where the configuration is kept
//   dir = /var/lib/yarrow
//   agent
//
// A line holds one option: its name, and after "=" its value, up to the end of the line without the
// blanks around it. Empty lines and lines that begin with # are passed over. What a name means, and
// which may stand there more than once, is its reader's to say.
#ifndef PLATFORM_SERVICE_OPTIONS_FILE_H
#define PLATFORM_SERVICE_OPTIONS_FILE_H

#include <optional>
#include <string>
#include <vector>

namespace service {

struct FileOption {
  std::string name;
  std::optional<std::string> value;  // never empty
  unsigned line;                     // from 1
};

// False with the reason, which begins with the file's name and, for what stands in it, the line.
bool options_file_read(const std::string& file, std::vector<FileOption>* options,
                       std::string* reason);

// "FILE:LINE: error: WHAT (expected EXPECTED)".
std::string options_file_fault(const std::string& file, unsigned line, const std::string& what,
                               const std::string& expected);

// A line of such a file, with its end. Without a value it is a comment, which says that there is such
// an option.
std::string options_file_line(const std::string& name, const std::optional<std::string>& value);

}  // namespace service
#endif
