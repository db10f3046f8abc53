// Shader search directories and our shader file format.
#include "orbivane/geometry/shader_directories.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace OrbivaneGeometry {
namespace {

// Characters of the buffer a variable's value is read into, its terminating
// NUL included.
constexpr std::size_t kEnvironmentBuffer = 65535;

// The variable's value, read into a buffer of kEnvironmentBuffer characters;
// empty when it is not set or its value (with its terminating NUL) does not
// fit, as such a value cannot be read.
std::string environmentValue(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr) return std::string();
  const std::size_t length = strnlen(value, kEnvironmentBuffer);
  if (length + 1 > kEnvironmentBuffer) return std::string();
  return std::string(value, length);
}

// On POSIX a backslash in a shader path is a separator.
std::string nativePath(std::string path) {
#ifndef _WIN32
  std::replace(path.begin(), path.end(), '\\', '/');
#endif
  return path;
}

bool isRegularFile(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

std::string trim(const std::string& s) {
  const std::size_t first = s.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return std::string();
  return s.substr(first, s.find_last_not_of(" \t\r\n") - first + 1);
}

}  // namespace

std::vector<std::string> shaderDirectories() {
  const std::string programData = environmentValue("ProgramData");
  const std::string programFiles = environmentValue("ProgramFiles");
  return {
      "./",
      "./Shaders/",
      programData + "\\Hollbrink\\Shaders\\",
      programData + "\\Hollbrink\\TREVOS-ViewingClient\\Shaders\\",
      programFiles + "\\Hollbrink\\Trimlane\\bin\\",
  };
}

Utils::ReturnState<ShaderFile, std::string> loadShaderFile(const std::string& path) {
  std::ifstream file(path);
  if (!file) return Utils::failure("cannot read shader file '" + path + "'");
  std::ostringstream text;
  text << file.rdbuf();
  return parseShaderFile(text.str(), path);
}

Utils::ReturnState<ShaderFile, std::string> parseShaderFile(const std::string& content, const std::string& path) {
  std::istringstream in(content);
  std::string uid;
  std::string name;
  std::map<std::string, std::string> parameters;
  std::string line;
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    const std::string text = trim(line);
    if (text.empty() || text[0] == '#') continue;
    const std::size_t eq = text.find('=');
    const auto where = [&] { return "shader file '" + path + "' line " + std::to_string(number) + ": "; };
    if (eq == std::string::npos) return Utils::failure(where() + "expected 'key = value'");
    const std::string key = trim(text.substr(0, eq));
    const std::string value = trim(text.substr(eq + 1));
    if (key == "uid") {
      uid = value;
    } else if (key == "name") {
      name = value;
    } else if (key.rfind("param ", 0) == 0) {
      const std::string parameter = trim(key.substr(6));
      if (parameter.size() < 3 || (parameter.rfind("i_", 0) != 0 && parameter.rfind("f_", 0) != 0)) {
        return Utils::failure(where() + "parameter '" + parameter + "' must start with i_ or f_");
      }
      parameters[parameter] = value;
    } else {
      return Utils::failure(where() + "unknown key '" + key + "'");
    }
  }
  if (uid.empty()) return Utils::failure("shader file '" + path + "' has no uid line");
  try {
    Shader shader(uid, parameters);
    const std::size_t slash = path.find_last_of("/\\");
    const std::string file = slash == std::string::npos ? path : path.substr(slash + 1);
    if (file != shader.uid() + ".shader") {
      return Utils::failure("shader file '" + path + "' declares uid " + shader.uid() + " but is not named " +
                            shader.uid() + ".shader");
    }
    return ShaderFile{path, name, shader};
  } catch (const std::exception& e) {
    return Utils::failure("shader file '" + path + "': uid '" + uid + "': " + e.what());
  }
}

Utils::Optional<std::string> findShaderFile(const std::string& uid) {
  for (const std::string& dir : shaderDirectories()) {
    const std::string path = nativePath(dir + uid + ".shader");
    if (isRegularFile(path)) return path;
  }
  return std::nullopt;
}

std::map<std::string, ShaderFile> knownShaders() {
  std::map<std::string, ShaderFile> shaders;
  for (const std::string& dir : shaderDirectories()) {
    const std::string native = nativePath(dir);
    DIR* d = ::opendir(native.c_str());
    if (d == nullptr) continue;
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(d)) {
      const std::string file = entry->d_name;
      if (file.size() == 15 && file.compare(8, 7, ".shader") == 0) names.push_back(file);
    }
    ::closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string& file : names) {
      auto loaded = loadShaderFile(native + file);
      if (!loaded) continue;
      const std::string uid = loaded.value().shader.uid();
      if (shaders.count(uid) == 0) shaders.emplace(uid, std::move(loaded).value());
    }
  }
  return shaders;
}

}  // namespace OrbivaneGeometry
