// "blur IMAGE [--rotation DEG] [--json]": prints the blur score as the last
// line (the variance of the Laplacian: larger is sharper).
#include <iostream>

#include <opencv2/core.hpp>

#include "command_line.h"
#include "json_output.h"
#include "orbivane/blur_detection/estimate_blur.h"
#include "orbivane/image/image_conversion.h"

namespace Tool {

void addBlurCommand(CLI::App& app) {
  CLI::App* blur = app.add_subcommand("blur", "Print the blur score of a picture (larger is sharper)");
  static std::string path;
  static int rotation = 0;
  static bool json = false;
  blur->add_option("IMAGE", path, "Picture file")->required();
  blur->add_option("--rotation", rotation, "Mounting rotation of the module in degrees")->capture_default_str();
  blur->add_flag("--json", json, "Print {\"picture\", \"rotation\", \"blur\"} as one JSON object");
  blur->callback([] {
    JsonOutput output(json);
    auto image = Image::loadImage(path);
    if (!image) throw CommandError(image.error());
    if (Image::turnFor(rotation) == Image::Turn::kNone) {
      throw CommandError("a rotation of " + std::to_string(rotation) +
                         " degrees is not within 45 degrees of a quarter turn (0, 90, 180, 270, 360, -90, -180 or "
                         "-270); give one nearer to one of them");
    }
    try {
      const int score = BlurDetection::estimateBlur(image.value(), rotation);
      std::cout << score << std::endl;
      output.print({{"picture", path}, {"rotation", rotation}, {"blur", score}});
    } catch (const cv::Exception& e) {
      throw CommandError("blur score of '" + path + "': " + e.err);
    }
  });
}

}  // namespace Tool
