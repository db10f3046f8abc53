// Reading shard files; see shard_file.h.
#include "shard_file.h"

#include <cmath>
#include <cstdint>

#include <nlohmann/json.hpp>

#include "command_line.h"
#include "orbivane/utils/json_text.h"
#include "digest.h"

namespace Tool {

using GeometryCalibration::MatrixBased::ShaderBruteForcer;

ShardFile parseShardFile(const std::string& text, const std::string& path, const ShaderBruteForcer::ParameterList& grid) {
  const std::uint64_t gridSize = ShaderBruteForcer::gridSize(grid);
  if (auto checked = Utils::checkJsonText(text, "shard file '" + path + "'"); !checked) {
    throw CommandError(checked.error());
  }
  const nlohmann::json shard = nlohmann::json::parse(text, nullptr, false);
  if (shard.is_discarded()) throw CommandError("shard file '" + path + "': not valid JSON");
  auto field = [&path](const nlohmann::json& object, const char* key, const std::string& where) -> const nlohmann::json& {
    if (!object.is_object() || !object.contains(key)) {
      throw CommandError("shard file '" + path + "': " + where + " has no \"" + key + "\"");
    }
    return object.at(key);
  };
  if (field(shard, "format", "the file") != "orbivane-shader-shard" || field(shard, "version", "the file") != 1) {
    throw CommandError("shard file '" + path + "': not a shader search shard file (format and version)");
  }
  const auto& moduleValue = field(shard, "module", "the file");
  const auto& shardValue = field(shard, "shard", "the file");
  if (!moduleValue.is_string()) throw CommandError("shard file '" + path + "': \"module\" is not a name");
  if (!shardValue.is_array() || shardValue.size() != 2 || !shardValue[0].is_number_integer() ||
      !shardValue[1].is_number_integer()) {
    throw CommandError("shard file '" + path + "': \"shard\" is not [index, count]");
  }
  ShardFile out;
  out.module = moduleValue.get<std::string>();
  const long long index = shardValue[0].get<long long>(), n = shardValue[1].get<long long>();
  if (n < 1 || n > 1000000 || index < 0 || index >= n) {
    throw CommandError("shard file '" + path + "': shard " + std::to_string(index) + "/" + std::to_string(n) +
                       " is not one of 1 to 1000000 shards");
  }
  out.index = int(index);
  out.count = int(n);
  const auto& bestValue = field(shard, "best", "the file");
  if (!bestValue.is_array()) throw CommandError("shard file '" + path + "': \"best\" is not a list");
  for (std::size_t k = 0; k < bestValue.size(); ++k) {
    const std::string where = "best/" + std::to_string(k);
    const auto& entry = bestValue[k];
    const auto& error = field(entry, "error", where);
    const auto& gridIndex = field(entry, "index", where);
    const auto& parameters = field(entry, "parameters", where);
    if (!error.is_number() || !std::isfinite(error.get<double>()) || error.get<double>() < 0 ||
        error.get<double>() > 1e30) {
      throw CommandError("shard file '" + path + "': " + where + "/error is not an error of 0 or more");
    }
    if (!gridIndex.is_number_unsigned() || gridIndex.get<std::uint64_t>() >= gridSize) {
      throw CommandError("shard file '" + path + "': " + where + "/index is not a point of the grid");
    }
    if (!parameters.is_object() || parameters.size() != grid.size()) {
      throw CommandError("shard file '" + path + "': " + where + "/parameters do not name the grid's " +
                         std::to_string(grid.size()) + " parameters");
    }
    ShaderBruteForcer::Result r;
    r.error = error.get<float>();
    r.gridIndex = gridIndex.get<std::uint64_t>();
    for (const auto& [parameter, range] : grid) {
      const auto it = parameters.find(parameter);
      if (it == parameters.end() || !it->is_number()) {
        throw CommandError("shard file '" + path + "': " + where + "/parameters has no value for " + parameter);
      }
      const double v = it->get<double>();
      if (!std::isfinite(v) || v < range.min - 1e-3 || v > range.max + 1e-3) {
        throw CommandError("shard file '" + path + "': " + where + "/parameters/" + parameter + " lies outside the grid");
      }
      r.parameters[parameter] = float(v);
    }
    out.results.push_back(std::move(r));
  }
  const auto& searched = field(shard, "searched", "the file");
  std::string* fingerprints[] = {&out.camera, &out.modulePicture, &out.reference, &out.referencePicture, &out.grid};
  const char* keys[] = {"camera", "module", "reference", "referencePicture", "grid"};
  for (int k = 0; k < 5; ++k) {
    const auto& value = field(searched, keys[k], "\"searched\"");
    if (!value.is_string()) throw CommandError("shard file '" + path + "': searched/" + keys[k] + " is not text");
    *fingerprints[k] = value.get<std::string>();
  }
  const auto& check = field(shard, "check", "the file");
  if (!check.is_string() || check.get<std::string>() != shardCheck(shard)) {
    throw CommandError("shard file '" + path + "' was changed after the search wrote it (its check does not match)");
  }
  return out;
}

std::string shardCheck(const nlohmann::json& shard) {
  nlohmann::json body = shard;
  body.erase("check");
  return Digest().add(body.dump()).hex();
}

}  // namespace Tool
