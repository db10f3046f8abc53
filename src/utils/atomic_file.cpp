// Atomic file writes, whole-file reads and file locks; see atomic_file.h.
#include "orbivane/utils/atomic_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

namespace Utils {
namespace {

struct PathParts {
  std::string dir, base;
};

PathParts split(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return {".", path};
  return {path.substr(0, slash == 0 ? 1 : slash), path.substr(slash + 1)};
}

// Removes ".BASE.tmp-PID-XXXXXX" files of processes that no longer run.
void removeStaleTemporaries(const PathParts& parts) {
  const std::string prefix = "." + parts.base + ".tmp-";
  DIR* dir = ::opendir(parts.dir.c_str());
  if (dir == nullptr) return;
  std::vector<std::string> stale;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    if (name.compare(0, prefix.size(), prefix) != 0) continue;
    char* end = nullptr;
    const long pid = std::strtol(name.c_str() + prefix.size(), &end, 10);
    if (end == nullptr || *end != '-' || pid <= 0) continue;
    if (pid == long(::getpid())) continue;
    if (::kill(pid_t(pid), 0) != 0 && errno == ESRCH) stale.push_back(parts.dir + "/" + name);
  }
  ::closedir(dir);
  for (const auto& file : stale) ::unlink(file.c_str());
}

}  // namespace

ReturnState<bool, std::string> writeFileAtomically(const std::string& path, const std::string& bytes) {
  const PathParts parts = split(path);
  removeStaleTemporaries(parts);
  std::string pattern = parts.dir + "/." + parts.base + ".tmp-" + std::to_string(::getpid()) + "-XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  const int fd = ::mkstemp(name.data());
  if (fd < 0) {
    return failure("cannot write '" + path + "': " + std::strerror(errno));
  }
  const std::string temporary(name.data());
  const char* p = bytes.data();
  std::size_t left = bytes.size();
  while (left > 0) {
    const ssize_t n = ::write(fd, p, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      const std::string why = std::strerror(errno);
      ::close(fd);
      ::unlink(temporary.c_str());
      return failure("cannot write '" + path + "': " + why);
    }
    p += n;
    left -= static_cast<std::size_t>(n);
  }
  // mkstemp creates 0600; give the file the usual permissions.
  ::fchmod(fd, 0644);
  if (::fsync(fd) != 0 || ::close(fd) != 0) {
    const std::string why = std::strerror(errno);
    ::unlink(temporary.c_str());
    return failure("cannot write '" + path + "': " + why);
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    const std::string why = std::strerror(errno);
    ::unlink(temporary.c_str());
    return failure("cannot replace '" + path + "': " + why);
  }
  return true;
}

ReturnState<std::string, std::string> readWholeFile(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    if (errno == ENOENT) return failure("'" + path + "' does not exist");
    return failure("cannot open '" + path + "': " + std::strerror(errno));
  }
  if (S_ISDIR(info.st_mode)) return failure("'" + path + "' is a folder, not a file");
  std::ifstream in(path, std::ios::binary);
  if (!in) return failure("cannot open '" + path + "': " + std::strerror(errno));
  std::ostringstream content;
  content << in.rdbuf();
  if (in.bad()) return failure("cannot read '" + path + "'");
  return content.str();
}

FileLock::FileLock(const std::string& path) {
  const PathParts parts = split(path);
  lockPath_ = parts.dir + "/." + parts.base + ".lock";
  // The lock file is removed when the lock is given up, so a lock taken on a
  // file that a releasing holder has just removed locks nothing: the file
  // locked must still be the one at the path, else the next one is tried.
  for (;;) {
    fd_ = ::open(lockPath_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ < 0) {
      error_ = "cannot lock '" + path + "': " + std::strerror(errno);
      return;
    }
    int locked;
    while ((locked = ::flock(fd_, LOCK_EX)) != 0 && errno == EINTR) {
    }
    if (locked != 0) {
      error_ = "cannot lock '" + path + "': " + std::strerror(errno);
      ::close(fd_);
      fd_ = -1;
      return;
    }
    struct stat held, current;
    if (::fstat(fd_, &held) == 0 && ::stat(lockPath_.c_str(), &current) == 0 && held.st_ino == current.st_ino &&
        held.st_dev == current.st_dev) {
      return;
    }
    ::close(fd_);
  }
}

FileLock::~FileLock() {
  if (fd_ >= 0) {
    // Removed while still held: nobody can lock this file after it is gone
    // from the path and before it is unlocked.
    ::unlink(lockPath_.c_str());
    ::flock(fd_, LOCK_UN);
    ::close(fd_);
  }
}

}  // namespace Utils
