// SPDX-License-Identifier: Apache-2.0
#include "source_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "address_text.h"
#include "input_error.h"
#include "setlines/set_document.h"

namespace polctl {

namespace {

constexpr size_t kSniffed = 65536;  // bytes that tell what a file is
constexpr std::string_view kBlanks = " \t\r\n";
constexpr std::string_view kUtf8Mark = "\xef\xbb\xbf";

[[noreturn]] void fail(const std::string& name, const std::string& what, const char* expected) {
  throw InputError(fmt::format("{}: error: {} (expected {})", name, what, expected));
}

[[noreturn]] void fail_reading(const std::string& name, int error, const char* expected) {
  fail(name, fmt::format("cannot be read: {}", strerror(error)), expected);
}

struct Descriptor {
  explicit Descriptor(const std::string& given)
      : fd(given == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)
                        : open(given.c_str(), O_RDONLY | O_CLOEXEC)) {}
  ~Descriptor() {
    if (fd >= 0) close(fd);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int fd;
};

std::string name_of(const std::string& given) { return given == "-" ? "<stdin>" : given; }

// At most `limit` bytes.
std::string read_some(int fd, size_t limit, const std::string& name, const char* expected) {
  std::string content;
  char block[65536];
  while (content.size() < limit) {
    ssize_t got = read(fd, block, std::min(sizeof block, limit - content.size()));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) fail_reading(name, errno, expected);
    if (got == 0) break;
    content.append(block, static_cast<size_t>(got));
  }
  return content;
}

std::string too_large(size_t limit) {
  return fmt::format("more than {} MB, which is all that is read", limit >> 20);
}

// The first line that says something, without blanks around it.
std::string_view first_line(std::string_view content) {
  while (!content.empty()) {
    std::string_view line = content.substr(0, content.find('\n'));
    content.remove_prefix(std::min(content.size(), line.size() + 1));
    size_t begin = line.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos || line[begin] == '#') continue;
    return line.substr(begin, line.find_last_not_of(kBlanks) + 1 - begin);
  }
  return {};
}

bool is_set_line(std::string_view line) {
  return line.starts_with("set ") || line.starts_with("delete ") || line == "set" ||
         line == "delete";
}

// Names of the schema's modules stand before the top-level nodes.
bool is_json_configuration(std::string_view content) {
  return first_line(content).starts_with('{') &&
         content.find("\"zenodra-policy:") != std::string_view::npos;
}

// What a file is that is neither configuration nor a policy file; "" when it may be one.
std::string other_kind(std::string_view content) {
  constexpr struct {
    std::string_view begin;
    const char* what;
  } kKinds[] = {{"\x1f\x8b", "it is compressed (gzip)"},
                {"\xfd"
                 "7zXZ",
                 "it is compressed (xz)"},
                {"BZh", "it is compressed (bzip2)"},
                {"\x28\xb5\x2f\xfd", "it is compressed (zstd)"},
                {"PK\x03\x04", "it is an archive (zip)"},
                {kUtf8Mark, "it begins with a byte order mark"},
                {"\xff\xfe", "it begins with a byte order mark (UTF-16)"},
                {"\xfe\xff", "it begins with a byte order mark (UTF-16)"},
                {"\x7f"
                 "ELF",
                 "it is a program"}};
  for (const auto& kind : kKinds) {
    if (content.starts_with(kind.begin)) return kind.what;
  }
  std::string_view line = first_line(content);
  LineFault fault;
  t_ipprefix prefix = {};
  if (is_json_configuration(content)) return "";
  if (line.starts_with('{') || parse_prefix(line, &prefix, &fault)) {
    return "it holds routes or TLOCs, no policy";
  }
  return "";
}

}  // namespace

MemoryFile::MemoryFile(std::string_view text) : fd_(memfd_create("input", MFD_CLOEXEC)) {
  while (fd_ >= 0 && !text.empty()) {
    ssize_t wrote = write(fd_, text.data(), text.size());
    if (wrote <= 0) break;
    text.remove_prefix(static_cast<size_t>(wrote));
  }
  if (fd_ >= 0 && text.empty()) return;
  if (fd_ >= 0) close(fd_);
  throw InputError("polctl: error: no memory for the input (expected some)");
}

MemoryFile::~MemoryFile() { close(fd_); }

std::string MemoryFile::path() const { return fmt::format("/proc/self/fd/{}", fd_); }

std::string MemoryFile::path_outside() const {
  return fmt::format("/proc/{}/fd/{}", getpid(), fd_);
}

SourceFile::SourceFile(const std::string& given, const char* expected, const std::string& name)
    : name_(name.empty() ? name_of(given) : name), path_(given) {
  // Read once, however often it is named: a command that asks twice has seen to it that it may.
  static std::shared_ptr<MemoryFile> standard_input;
  if (given == "-" && standard_input) path_ = standard_input->path();
  Descriptor file(path_);
  struct stat status = {};
  if (file.fd < 0 || fstat(file.fd, &status) != 0) fail_reading(name_, errno, expected);
  if (S_ISDIR(status.st_mode)) fail_reading(name_, EISDIR, expected);
  bool keeps = S_ISREG(status.st_mode) && path_ != "-";
  if (keeps && static_cast<uint64_t>(status.st_size) > kMaxSourceBytes) {
    fail(name_, too_large(kMaxSourceBytes), expected);
  }
  std::string content = read_some(file.fd, keeps ? kSniffed : kMaxSourceBytes + 1, name_, expected);
  if (content.size() > kMaxSourceBytes) fail(name_, too_large(kMaxSourceBytes), expected);
  if (!keeps) {
    copy_ = std::make_shared<MemoryFile>(content);
    path_ = copy_->path();
    if (given == "-") standard_input = copy_;
  }
  std::string_view text = content;
  if (text.starts_with(kUtf8Mark)) text.remove_prefix(kUtf8Mark.size());
  size_t first = text.find_first_not_of(kBlanks);
  if (first != std::string_view::npos && text[first] == '<') {
    kind_ = SourceKind::kConfiguration;
    return;
  }
  if (is_set_line(first_line(text))) {
    kind_ = SourceKind::kSetLines;
    if (keeps) content = read_whole(path_, kMaxSourceBytes, expected);
    set_lines_ = std::make_shared<SetDocument>(read_set_lines(content));
    xml_ = std::make_shared<MemoryFile>(set_lines_->xml);
    xml_path_ = xml_->path();
    return;
  }
  std::string other = other_kind(content);
  if (!other.empty()) fail(name_, other, expected);
  if (is_json_configuration(text)) kind_ = SourceKind::kJson;
}

const std::string& SourceFile::xml_path() const { return xml_path_.empty() ? path_ : xml_path_; }

void require_configuration(const SourceFiles& files) {
  for (const SourceFile& file : files) {
    if (file.is_configuration()) continue;
    if (file.kind() == SourceKind::kJson) {
      fail(file.name(), "it is configuration as JSON",
           "XML or set-lines; \"polctl convert\" makes them of it");
    }
    fail(file.name(), "it does not begin with <, set or delete",
         "configuration; --policy-file takes a policy file");
  }
}

SourceFiles open_configuration(const std::vector<std::string>& given) {
  SourceFiles files;
  for (const std::string& each : given) files.emplace_back(each, "a configuration file");
  require_configuration(files);
  return files;
}

SourceFile open_policy_file(const std::string& given) {
  SourceFile file(given, "a policy file");
  if (file.kind() != SourceKind::kPolicyFile) {
    fail(file.name(), "it is configuration", "a policy file; --config takes configuration");
  }
  return file;
}

std::string read_whole(const std::string& path, size_t limit, const char* expected) {
  std::string name = name_of(path);
  Descriptor file(path);
  if (file.fd < 0) fail_reading(name, errno, expected);
  std::string content = read_some(file.fd, limit + 1, name, expected);
  if (content.size() > limit) fail(name, too_large(limit), expected);
  return content;
}

}  // namespace polctl
