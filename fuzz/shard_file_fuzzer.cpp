// Shader-search shard files: parsed against the search's grid or refused
// with a message naming the file; what is taken in lies on the grid and says
// what it was searched on.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "command_line.h"
#include "shard_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using GeometryCalibration::MatrixBased::ShaderBruteForcer;
  static const auto grid = ShaderBruteForcer::defaultParameterList();
  const std::string text(reinterpret_cast<const char*>(data), size);
  try {
    const Tool::ShardFile shard = Tool::parseShardFile(text, "fuzz.json", grid);
    if (shard.index < 0 || shard.index >= shard.count) std::abort();
    if (shard.camera.empty() && shard.modulePicture.empty() && shard.grid.empty() && shard.reference.empty() &&
        shard.referencePicture.empty() && text.find("\"searched\"") == std::string::npos) {
      std::abort();  // accepted without saying what it was searched on
    }
    for (const auto& result : shard.results) {
      if (result.parameters.size() != grid.size() || result.gridIndex >= ShaderBruteForcer::gridSize(grid)) {
        std::abort();
      }
    }
  } catch (const Tool::CommandError& e) {
    if (std::string(e.what()).find("fuzz.json") == std::string::npos) std::abort();
  }
  return 0;
}
