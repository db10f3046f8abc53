// Multi-file outputs replaced as a whole; see staged_folder.h.
#include "staged_folder.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "command_line.h"

namespace Tool {
namespace {

namespace fs = std::filesystem;

// Removes ".NAME.staging-PID" folders beside `target` whose process is gone.
void removeStaleStaging(const fs::path& target) {
  const std::string prefix = "." + target.filename().string() + ".staging-";
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(target.parent_path(), ec)) {
    const std::string name = entry.path().filename().string();
    if (name.compare(0, prefix.size(), prefix) != 0) continue;
    char* end = nullptr;
    const long pid = std::strtol(name.c_str() + prefix.size(), &end, 10);
    if (end == nullptr || *end != '\0' || pid <= 0 || pid == long(::getpid())) continue;
    if (::kill(pid_t(pid), 0) != 0 && errno == ESRCH) fs::remove_all(entry.path(), ec);
  }
}

}  // namespace

StagedFolder::StagedFolder(std::string target, bool keepExisting) {
  fs::path absolute = fs::absolute(target).lexically_normal();
  if (absolute.filename().empty()) absolute = absolute.parent_path();  // "dir/" names dir
  target_ = absolute.string();
  std::error_code ec;
  if (fs::exists(absolute, ec) && !fs::is_directory(absolute, ec)) {
    throw CommandError("'" + target + "' is a file, not a folder");
  }
  fs::create_directories(absolute.parent_path(), ec);
  if (ec) throw CommandError("cannot make the folder '" + absolute.parent_path().string() + "': " + ec.message());
  removeStaleStaging(absolute);
  staging_ = (absolute.parent_path() / ("." + absolute.filename().string() + ".staging-" +
                                        std::to_string(::getpid())))
                 .string();
  fs::remove_all(staging_, ec);
  if (keepExisting && fs::is_directory(absolute, ec)) {
    fs::copy(absolute, staging_, fs::copy_options::recursive | fs::copy_options::create_hard_links, ec);
    if (ec) {
      fs::remove_all(staging_, ec);
      throw CommandError("cannot prepare the new content of '" + target + "': " + ec.message());
    }
  } else {
    fs::create_directory(staging_, ec);
    if (ec) throw CommandError("cannot write into '" + absolute.parent_path().string() + "': " + ec.message());
  }
}

StagedFolder::~StagedFolder() {
  if (committed_) return;
  std::error_code ec;
  fs::remove_all(staging_, ec);
}

void StagedFolder::commit() {
  std::error_code ec;
  if (!fs::exists(target_, ec)) {
    if (std::rename(staging_.c_str(), target_.c_str()) != 0) {
      throw CommandError("cannot put '" + target_ + "' in place: " + std::strerror(errno));
    }
  } else {
    // Both folders exist: exchange them in one step, then drop the old one.
    if (::renameat2(AT_FDCWD, staging_.c_str(), AT_FDCWD, target_.c_str(), RENAME_EXCHANGE) != 0) {
      throw CommandError("cannot put the new content of '" + target_ + "' in place: " + std::strerror(errno));
    }
    fs::remove_all(staging_, ec);
  }
  committed_ = true;
}

}  // namespace Tool
