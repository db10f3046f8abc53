// "blur IMAGE [--rotation DEG]": prints the blur score as the last line.
#include <iostream>

#include <opencv2/core.hpp>

#include "command_line.h"
#include "orbivane/blur_detection/estimate_blur.h"
#include "orbivane/image/image_conversion.h"

namespace Tool {

void addBlurCommand(CLI::App& app) {
  CLI::App* blur = app.add_subcommand("blur", "Print the blur score of a picture (larger is sharper)");
  static std::string path;
  static int rotation = 0;
  blur->add_option("IMAGE", path, "Picture file")->required();
  blur->add_option("--rotation", rotation, "Mounting rotation of the module in degrees")->capture_default_str();
  blur->callback([] {
    auto image = Image::loadImage(path);
    if (!image) throw CommandError(image.error());
    if (Image::turnFor(rotation) == Image::Turn::kNone) {
      throw CommandError("a rotation of " + std::to_string(rotation) +
                         " degrees lies exactly between two quarter turns; give a rotation nearer to one");
    }
    try {
      const int score = BlurDetection::estimateBlur(image.value(), rotation);
      std::cout << score << std::endl;
    } catch (const cv::Exception& e) {
      throw CommandError("blur score of '" + path + "': " + e.err);
    }
  });
}

}  // namespace Tool
