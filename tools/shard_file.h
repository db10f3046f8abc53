// Shard files of the shader parameter search: one part of the grid's walk
// with its best results, written by "shader-search --shard I/N" and joined by
// "shader-merge".
//
//   {"format": "orbivane-shader-shard", "version": 1, "module": NAME,
//    "shard": [I, N], "gridSize": G,
//    "best": [{"error": E, "index": K, "parameters": {NAME: VALUE, ...}}, ...],
//    "searched": {"camera": D, "module": D, "reference": NAME, "referencePicture": D, "grid": D},
//    "check": D}
//
// "searched" holds fingerprints (digest.h) of what the search ran on: the
// camera file's bytes, the module's name and picture, the reference's
// picture and the grid; "check" is the fingerprint of everything else in
// the file, so a shard edited by hand (another module's name, another
// index) is told from one the search wrote. A shard file is user input:
// every value is checked, by name, against the grid the search walks.
#pragma once

#include <list>
#include <string>

#include <nlohmann/json.hpp>

#include "orbivane/geometry_calibration/matrix_based/shader_brute_forcer.h"

namespace Tool {

struct ShardFile {
  std::string module;
  int index = 0, count = 1;  // the index-th of count shards
  std::list<GeometryCalibration::MatrixBased::ShaderBruteForcer::Result> results;
  // What it was searched on (fingerprints), see above.
  std::string camera, modulePicture, reference, referencePicture, grid;
};

// The "check" fingerprint of a shard document (of all but its "check").
std::string shardCheck(const nlohmann::json& shard);

// Throws CommandError naming `path`, the JSON place and the problem.
ShardFile parseShardFile(const std::string& text, const std::string& path,
                         const GeometryCalibration::MatrixBased::ShaderBruteForcer::ParameterList& grid);

}  // namespace Tool
