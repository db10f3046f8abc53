// "camera validate FILE": loads a camera file and prints what it holds.
#include <iostream>

#include "command_line.h"
#include "orbivane/camera/camera_file.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/utils/wide_text.h"

namespace Tool {
namespace {

void validate(const std::string& path, bool skipImages) {
  CameraDescription::CameraFileOptions options;
  options.loadImages = !skipImages;
  auto loaded = CameraDescription::loadCameraFile(path, options);
  if (!loaded) throw CommandError(loaded.error());
  const CameraDescription::Orbivane& camera = loaded.value();
  std::cout << "camera '" << Utils::toUtf8(camera.name()) << "': " << camera.modules().size() << " module(s)";
  if (!camera.panoramaSize().empty()) {
    std::cout << ", panorama " << camera.panoramaSize().width << "x" << camera.panoramaSize().height;
  }
  std::cout << "\n";
  for (const auto& module : camera.modules()) {
    std::cout << "  " << Utils::toUtf8(module->name()) << ": ";
    if (const auto* g = module->matrixGeometry()) {
      const auto quad = OrbivaneGeometry::moduleSurfaceQuad(g->matrix());
      if (quad) {
        std::cout << "matrix geometry covering x " << quad->left() << ".." << quad->right() << ", y " << quad->top()
                  << ".." << quad->bottom();
      } else {
        std::cout << "matrix geometry that does not project its picture (check the matrix)";
      }
      if (g->uvGrid()) std::cout << ", UV grid " << g->uvGrid()->columns() << "x" << g->uvGrid()->rows();
    } else if (module->geometry()) {
      std::cout << module->geometry()->kind() << " geometry";
    } else {
      std::cout << "no geometry";
    }
    if (module->image()) {
      std::cout << ", picture " << module->image()->width() << "x" << module->image()->height();
    } else if (!module->imagePath().empty()) {
      std::cout << ", picture " << module->imagePath() << " (not loaded)";
    }
    if (!module->shaders().empty()) std::cout << ", " << module->shaders().size() << " shader(s)";
    if (module->connection()) std::cout << ", " << module->connection()->backend << " connection";
    std::cout << "\n";
  }
  std::cout << "ok" << std::endl;
}

}  // namespace

void addCameraCommands(CLI::App& app) {
  CLI::App* camera = app.add_subcommand("camera", "Camera description files");
  camera->require_subcommand(1);
  CLI::App* validateCommand = camera->add_subcommand("validate", "Load a camera file and print a summary or the error");
  static std::string path;
  static bool skipImages = false;
  validateCommand->add_option("FILE", path, "Camera file (JSON)")->required();
  validateCommand->add_flag("--no-images", skipImages, "Do not load the module pictures");
  validateCommand->callback([] { validate(path, skipImages); });
}

}  // namespace Tool
