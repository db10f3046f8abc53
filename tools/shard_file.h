// Shard files of the shader parameter search: one part of the grid's walk
// with its best results, written by "shader-search --shard I/N" and joined by
// "shader-merge".
//
//   {"format": "orbivane-shader-shard", "version": 1, "module": NAME,
//    "shard": [I, N], "gridSize": G,
//    "best": [{"error": E, "index": K, "parameters": {NAME: VALUE, ...}}, ...]}
//
// A shard file is user input: every value is checked, by name, against the
// grid the search walks.
#pragma once

#include <list>
#include <string>

#include "orbivane/geometry_calibration/matrix_based/shader_brute_forcer.h"

namespace Tool {

struct ShardFile {
  std::string module;
  int index = 0, count = 1;  // the index-th of count shards
  std::list<GeometryCalibration::MatrixBased::ShaderBruteForcer::Result> results;
};

// Throws CommandError naming `path`, the JSON place and the problem.
ShardFile parseShardFile(const std::string& text, const std::string& path,
                         const GeometryCalibration::MatrixBased::ShaderBruteForcer::ParameterList& grid);

}  // namespace Tool
