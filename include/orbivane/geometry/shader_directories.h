// Where shader files are looked for, and our shader file format.
//
// The five directories, in this order: "./", "./Shaders/",
// %ProgramData%"\Hollbrink\Shaders\", %ProgramData%"\Hollbrink\TREVOS-ViewingClient\Shaders\"
// and %ProgramFiles%"\Hollbrink\Trimlane\bin\". An unset variable leaves the
// bare suffix. On POSIX systems a backslash in these paths is a separator.
//
// A shader file is named after its UID, "<UID>.shader" (for example
// "00050007.shader"), and is plain text, one item a line:
//   # comment
//   uid = 00050007
//   name = Clip matrix
//   param f_clipMatrix_m00 = 1.000000
// "uid" must match the file name; "param" lines give the default value of
// each parameter the shader reads.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "orbivane/export.h"
#include "orbivane/geometry/shader.h"
#include "orbivane/utils/optional.h"
#include "orbivane/utils/return_state.h"

namespace OrbivaneGeometry {

ORBIVANE_EXPORT std::vector<std::string> shaderDirectories();

struct ShaderFile {
  std::string path;
  std::string name;
  Shader shader;  // UID and default parameters
};

// Parses a shader file; the error names the file and line.
ORBIVANE_EXPORT Utils::ReturnState<ShaderFile, std::string> loadShaderFile(const std::string& path);
// The same from the file's text; `path` names it in errors and must end in
// "<UID>.shader".
ORBIVANE_EXPORT Utils::ReturnState<ShaderFile, std::string> parseShaderFile(const std::string& text,
                                                                            const std::string& path);

// The first file "<UID>.shader" in the five directories, in order.
ORBIVANE_EXPORT Utils::Optional<std::string> findShaderFile(const std::string& uid);

// Every readable shader file of the five directories, by UID; a UID found in
// several directories is taken from the first.
ORBIVANE_EXPORT std::map<std::string, ShaderFile> knownShaders();

}  // namespace OrbivaneGeometry
