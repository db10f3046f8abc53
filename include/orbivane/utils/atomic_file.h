// Files that appear whole or not at all, and writers of one file that take
// turns.
//
// writeFileAtomically: the bytes go to a hidden temporary file beside the
// target (".NAME.tmp-PID-XXXXXX"), are flushed to disk, and the temporary is
// renamed over the target; an existing target stays untouched on failure.
// Temporaries that a killed run left beside the same target (their process
// is gone) are removed first, so they never pile up.
//
// FileLock: an exclusive lock, across processes, on a file's companion lock
// file (".NAME.lock" beside it, removed again when the lock is given up);
// read-modify-write of a shared file (a simulated camera's state, restore
// points) happens under it, so two writers never lose each other's update.
#pragma once

#include <string>

#include "orbivane/export.h"
#include "orbivane/utils/return_state.h"

namespace Utils {

ORBIVANE_EXPORT ReturnState<bool, std::string> writeFileAtomically(const std::string& path, const std::string& bytes);

// Reads a whole file; the error names the file and says whether it is
// missing, a folder or unreadable.
ORBIVANE_EXPORT ReturnState<std::string, std::string> readWholeFile(const std::string& path);

class ORBIVANE_EXPORT FileLock {
 public:
  // Blocks until the lock on `path`'s lock file is held; `error()` says why
  // when the lock file cannot be made (then nothing is held).
  explicit FileLock(const std::string& path);
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  bool held() const { return fd_ >= 0; }
  const std::string& error() const { return error_; }

 private:
  int fd_ = -1;
  std::string lockPath_;
  std::string error_;
};

}  // namespace Utils
