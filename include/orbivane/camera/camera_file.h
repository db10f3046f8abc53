// Camera description files: JSON that hosts read and write.
//
//   {"format": "orbivane-camera", "version": 1,
//    "name": "...", "panoramaSize": [W, H],
//    "modules": [{"name": "...", "image": "pictures/a.png", "rotation": 0,
//                 "channel": 0, "fisheye": false, "fisheyeThreshold": 97,
//                 "exposureGain": 1.0, "vignetting": {"r2": 0.0, "r4": 0.0},
//                 "neighbour": "B",
//                 "linkage": {"left": "", "right": "B", "overlap": 0.2},
//                 "geometry": {"type": "matrix", "matrix": [16 numbers, row-major],
//                              "uvGrid": {"cols": C, "rows": R, "points": [[u, v], ...]},
//                              "shaderId": "00050007"},
//                 "shaders": [{"uid": "00050007", "parameters": {"name": "text"}}],
//                 "connection": {"backend": "simulated", "address": "...", "port": 0,
//                                "user": "", "password": "", "device": "..."}}]}
//
// Every key but "format", "version", "modules" and a module's "name" is
// optional. A region geometry is {"type": "region", "region": [[x, y] x 4],
// "triangles": [[[x, y, u, v] x 3], ...]}. Picture paths are relative to the
// camera file. Errors name the file, the JSON path and what is wrong; unknown
// keys are errors.
#pragma once

#include <string>

#include "orbivane/camera/orbivane.h"
#include "orbivane/export.h"
#include "orbivane/utils/return_state.h"

namespace CameraDescription {

struct CameraFileOptions {
  // Load each module's picture; a picture that cannot be read is an error.
  bool loadImages = true;
};

ORBIVANE_EXPORT Utils::ReturnState<Orbivane, std::string> loadCameraFile(const std::string& path,
                                                                         const CameraFileOptions& options = {});
// Parses camera JSON; `baseDirectory` resolves picture paths and `source`
// names the text in errors.
ORBIVANE_EXPORT Utils::ReturnState<Orbivane, std::string> parseCameraJson(const std::string& text,
                                                                          const std::string& baseDirectory,
                                                                          const std::string& source,
                                                                          const CameraFileOptions& options = {});

// The JSON text of a camera; picture paths are written relative to `baseDirectory`.
ORBIVANE_EXPORT std::string cameraToJson(const Orbivane& camera, const std::string& baseDirectory);
// Writes the camera file atomically (beside, then renamed over the old one).
ORBIVANE_EXPORT Utils::ReturnState<bool, std::string> saveCameraFile(const Orbivane& camera, const std::string& path);

}  // namespace CameraDescription
