#include "utils/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

namespace Utils {

ReturnState<bool, std::string> writeFileAtomically(const std::string& path, const std::string& bytes) {
  const std::size_t slash = path.find_last_of('/');
  const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
  const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  std::string pattern = dir + "/." + base + ".tmp-XXXXXX";
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
  std::ifstream in(path, std::ios::binary);
  if (!in) return failure("cannot open '" + path + "': " + std::strerror(errno));
  std::ostringstream content;
  content << in.rdbuf();
  if (in.bad()) return failure("cannot read '" + path + "'");
  return content.str();
}

}  // namespace Utils
