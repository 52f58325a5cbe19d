// SPDX-License-Identifier: Apache-2.0
#include "agent/state_dir.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <system_error>

namespace agent {

namespace {

constexpr mode_t kPrivateFile = 0600;
constexpr mode_t kPrivateDirectory = 0700;
constexpr mode_t kWritableByOthers = S_IWGRP | S_IWOTH;
constexpr int kMaxKept = 1000;

constexpr char kLock[] = "lock";

// O_NONBLOCK: a pipe in a file's place is to be refused, not waited for.
constexpr int kCareful = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;

// Whether what is open is of the kind, this user's, and his alone to write.
Result check_owner(int handle, mode_t kind, const std::string& name) {
  struct stat info = {};
  if (fstat(handle, &info) != 0) return os_failure(name);
  std::string fault;
  if ((info.st_mode & S_IFMT) != kind) {
    fault = kind == S_IFDIR ? "is not a directory" : "is not a plain file";
  } else if (info.st_uid != geteuid()) {
    fault =
        "belongs to user " + std::to_string(info.st_uid) + ", not to " + std::to_string(geteuid());
  } else if ((info.st_mode & kWritableByOthers) != 0) {
    char mode[16];
    snprintf(mode, sizeof mode, "%04o", unsigned{info.st_mode} & 07777);
    fault = std::string("others may write to it (mode ") + mode + ")";
  }
  return fault.empty() ? Result{} : failed(YARROW_ERR_ACCESS, name + ": " + fault);
}

Result open_lock(StateDir& dir) {
  Result result = state_file_open(dir, kLock, O_RDWR, &dir.lock);
  if (!result.ok() || dir.lock >= 0) return result;
  dir.lock = openat(dir.handle, kLock, O_RDWR | O_CREAT | O_EXCL | kCareful, kPrivateFile);
  // Another agent may have made it just now.
  if (dir.lock < 0 && errno == EEXIST) return state_file_open(dir, kLock, O_RDWR, &dir.lock);
  return dir.lock >= 0 ? Result{} : os_failure(dir.path(kLock));
}

}  // namespace

StateDir::~StateDir() {
  if (lock >= 0) close(lock);
  if (handle >= 0) close(handle);
}

Result os_failure(const std::string& what) {
  return failed(YARROW_ERR_OS, what + ": " + std::generic_category().message(errno));
}

Result state_dir_open(StateDir& dir, const std::string& name, bool make) {
  // With a slash at its end a link would be followed.
  dir.name = name.substr(0, std::max(name.find_last_not_of('/') + 1, size_t{1}));
  if (name.empty()) return failed(YARROW_ERR_NOEXISTS, "an empty directory name");
  bool is_new = make && mkdir(dir.name.c_str(), kPrivateDirectory) == 0;
  if (make && !is_new && errno != EEXIST) return os_failure(dir.name);
  dir.handle = open(dir.name.c_str(), O_RDONLY | O_DIRECTORY | kCareful);
  if (dir.handle < 0 && (errno == ELOOP || errno == ENOTDIR)) {
    return failed(YARROW_ERR_ACCESS, dir.name + ": is a link or not a directory");
  }
  if (dir.handle < 0) return os_failure(dir.name);
  Result result = check_owner(dir.handle, S_IFDIR, dir.name);
  if (!result.ok() || !is_new) return result;
  // What will be synced in it is only found again if its own name is.
  int parent = openat(dir.handle, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (parent < 0 || fsync(parent) != 0) result = os_failure(dir.path(".."));
  if (parent >= 0) close(parent);
  return result;
}

Result state_dir_lock(StateDir& dir) {
  Result result = open_lock(dir);
  if (!result.ok()) return result;
  if (flock(dir.lock, LOCK_EX | LOCK_NB) == 0) return {};
  if (errno != EWOULDBLOCK) return os_failure(dir.path(kLock));
  return failed(YARROW_ERR_LOCKED, dir.name + ": another agent uses it");
}

bool state_dir_is_locked(const StateDir& dir) {
  int lock = -1;
  if (!state_file_open(dir, kLock, O_RDONLY, &lock).ok() || lock < 0) return false;
  bool locked = flock(lock, LOCK_SH | LOCK_NB) != 0;
  close(lock);
  return locked;
}

Result state_file_open(const StateDir& dir, const std::string& name, int flags, int* file) {
  *file = openat(dir.handle, name.c_str(), flags | kCareful);
  if (*file < 0 && errno == ENOENT) return {};
  if (*file < 0 && errno == ELOOP) {
    return failed(YARROW_ERR_ACCESS, dir.path(name) + ": is a link");
  }
  if (*file < 0) return os_failure(dir.path(name));
  Result result = check_owner(*file, S_IFREG, dir.path(name));
  if (!result.ok()) {
    close(*file);
    *file = -1;
  }
  return result;
}

Result state_file_replace(const StateDir& dir, const std::string& name, std::string_view bytes,
                          int* file) {
  const std::string aside = name + ".new";
  // A leftover of a crash; its removal failing shows below.
  unlinkat(dir.handle, aside.c_str(), 0);
  *file = openat(dir.handle, aside.c_str(), O_RDWR | O_CREAT | O_EXCL | O_APPEND | kCareful,
                 kPrivateFile);
  if (*file < 0) return os_failure(dir.path(aside));
  bool done = file_write(*file, bytes) && fsync(*file) == 0 &&
              renameat(dir.handle, aside.c_str(), dir.handle, name.c_str()) == 0;
  if (done) return {};
  Result result = os_failure(dir.path(aside));
  close(*file);
  *file = -1;
  unlinkat(dir.handle, aside.c_str(), 0);
  return result;
}

Result state_file_keep(const StateDir& dir, const std::string& name, const std::string& why,
                       std::string* kept) {
  for (int i = 1; i <= kMaxKept; ++i) {
    std::string other = name;
    other.append(".").append(why).append(".").append(std::to_string(i));
    *kept = dir.path(other);
    if (linkat(dir.handle, name.c_str(), dir.handle, other.c_str(), 0) == 0) {
      return state_dir_sync(dir);
    }
    if (errno != EEXIST) break;
  }
  return os_failure(*kept);
}

Result state_dir_sync(const StateDir& dir) {
  return fsync(dir.handle) == 0 ? Result{} : os_failure(dir.name);
}

Result file_read(int file, const std::string& name, uint64_t limit, std::string* bytes) {
  struct stat info = {};
  if (fstat(file, &info) != 0) return os_failure(name);
  if (!S_ISREG(info.st_mode)) return failed(YARROW_ERR_ACCESS, name + ": is not a plain file");
  auto size = static_cast<uint64_t>(info.st_size);
  if (size > limit) {
    return failed(YARROW_ERR_TOOBIG, name + ": its " + std::to_string(size) +
                                         " bytes are more than " + std::to_string(limit));
  }
  bytes->resize(size);
  size_t have = 0;
  while (have < bytes->size()) {
    ssize_t got = pread(file, bytes->data() + have, bytes->size() - have, static_cast<off_t>(have));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return os_failure(name);
    if (got == 0) break;  // a running agent took back a record that it could not write
    have += static_cast<size_t>(got);
  }
  bytes->resize(have);
  return {};
}

bool file_write(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t written = write(file, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written == 0) errno = ENOSPC;
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

}  // namespace agent
