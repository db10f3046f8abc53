// Shader files, UIDs and clip-matrix values: parsed or refused with the
// standard conversions' exceptions, never a crash. The first line of the
// input is used as a UID as well.
#include <cstdint>
#include <stdexcept>
#include <string>

#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/geometry/shader.h"
#include "orbivane/geometry/shader_directories.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto file = OrbivaneGeometry::parseShaderFile(text, "/nonexistent/00050007.shader");
  if (file) {
    try {
      (void)OrbivaneGeometry::clipMatrixFromShader(file.value().shader);
    } catch (const std::invalid_argument&) {
    } catch (const std::out_of_range&) {
    }
  }
  try {
    const OrbivaneGeometry::Shader shader(text.substr(0, text.find('\n')), {{"f_clipMatrix_m00", text}});
    (void)OrbivaneGeometry::clipMatrixFromShader(shader);
  } catch (const std::invalid_argument&) {
  } catch (const std::out_of_range&) {
  }
  return 0;
}
