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
#include <fstream>
#include <map>
#include <string>

#include <nlohmann/json.hpp>

#include "command_line.h"
#include "digest.h"

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

constexpr const char* kWrittenList = ".orbivane-written";

// A file's fingerprint; empty when it cannot be read.
std::string contentHash(const fs::path& file) {
  Digest digest;
  return digest.addFile(file.string()) ? digest.hex() : std::string();
}

// Every regular file under `folder` but the list itself, by relative path.
std::map<std::string, fs::path> filesUnder(const fs::path& folder) {
  std::map<std::string, fs::path> files;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(folder, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec)) {
    if (it->is_directory(ec)) continue;
    const std::string relative = fs::relative(it->path(), folder, ec).generic_string();
    if (relative != kWrittenList) files[relative] = it->path();
  }
  return files;
}

void writeWrittenList(const fs::path& folder) {
  nlohmann::json list = nlohmann::json::object();
  std::error_code ec;
  for (const auto& [relative, path] : filesUnder(folder)) {
    list[relative] = {{"size", fs::file_size(path, ec)}, {"hash", contentHash(path)}};
  }
  std::ofstream(folder / kWrittenList) << list.dump(1) << "\n";
}

}  // namespace

void StagedFolder::checkOwned(const std::string& folder, const std::string& what, const std::string& option) {
  std::error_code ec;
  if (!fs::exists(folder, ec)) return;
  if (!fs::is_directory(folder, ec)) throw CommandError(option + " '" + folder + "' is a file, not a folder");
  if (fs::is_empty(folder, ec)) return;
  nlohmann::json list;
  try {
    std::ifstream in(fs::path(folder) / kWrittenList);
    if (!in) {
      throw CommandError(option + " '" + folder + "' is not empty and holds no earlier " + what +
                         " (nothing says a run wrote it); give " + option + " a new folder");
    }
    in >> list;
  } catch (const nlohmann::json::exception&) {
    throw CommandError(option + " '" + folder + "': the list of what an earlier " + what +
                       " wrote cannot be read; give " + option + " a new folder");
  }
  for (const auto& [relative, path] : filesUnder(folder)) {
    const auto entry = list.find(relative);
    const bool same = entry != list.end() && entry->is_object() &&
                      entry->value("size", std::uintmax_t(0)) == fs::file_size(path, ec) &&
                      entry->value("hash", std::string()) == contentHash(path);
    if (!same) {
      throw CommandError(option + " '" + folder + "' holds '" + relative + "', which no earlier " + what + " wrote" +
                         (entry == list.end() ? "" : " as it is now") +
                         "; move it away or give " + option + " a new folder");
    }
  }
}

StagedFolder::StagedFolder(std::string target, bool keepExisting) : keepExisting_(keepExisting) {
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

void StagedFolder::removeStale(const std::string& target) {
  fs::path absolute = fs::absolute(target).lexically_normal();
  if (absolute.filename().empty()) absolute = absolute.parent_path();
  removeStaleStaging(absolute);
}

std::string StagedFolder::stagedFile(const std::string& target) {
  const fs::path absolute = fs::absolute(target).lexically_normal();
  return (absolute.parent_path() / ("." + absolute.filename().string() + ".staging-" + std::to_string(::getpid())))
      .string();
}

void StagedFolder::prepare() {
  if (prepared_) return;
  if (!keepExisting_) writeWrittenList(staging_);
  prepared_ = true;
}

void StagedFolder::commit() {
  std::error_code ec;
  prepare();
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
