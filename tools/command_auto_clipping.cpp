// "autoclip CAMERA.json": the largest well-covered rectangle of a camera's
// panorama, as a rectangle on the coverage map, offsets for clipping and the
// holes left inside it. With --values it runs value mode (a map of what each
// part of the panorama is worth), otherwise geometry mode (the camera alone).
//
// The values FILE is either
// - a picture (.png, .jpg, .jpeg, .bmp, .tif, .tiff, .pgm, .ppm): its grey
//   levels, white worth 1, mid grey 0 and black -1 (a ground mask is drawn
//   black); its size gives --cols and --rows, which must match it if given;
// - or text: cols x rows numbers, row by row from the top, separated by white
//   space or commas; '#' starts a comment that runs to the end of the line.
//   --cols and --rows are required.
//
// --apply --out OUT.json writes the camera with the rectangle applied: the
// crop is composed into every module's matrix (AutoClipping::clippedCamera),
// so the rectangle becomes the whole panorama for `panorama` and any viewer.
// --no-holes (geometry mode) takes the largest rectangle without any badly
// covered element.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <fstream>
#include <iostream>
#include <sstream>

#include <nlohmann/json.hpp>
#include <opencv2/imgproc.hpp>

#include "command_line.h"
#include "json_output.h"
#include "orbivane/camera/camera_file.h"
#include "orbivane/geometry_calibration/calibrator_options.h"
#include "orbivane/geometry_calibration/matrix_based/auto_clipping.h"
#include "orbivane/image/image_conversion.h"

namespace Tool {
namespace {

struct AutoclipOptions {
  std::string camera;
  std::string values;
  unsigned cols = 0;
  unsigned rows = 0;
  float weight = 1.0f;
  long long maxIterations = 10000;
  bool requireOverlap = false;
  bool keepAspect = false;
  bool noHoles = false;
  float threshold = 0.5f;
  std::string picture;
  bool apply = false;
  std::string out;
  bool json = false;
};

bool isPictureFile(const std::string& path) {
  const std::size_t dot = path.find_last_of('.');
  if (dot == std::string::npos) return false;
  std::string extension = path.substr(dot + 1);
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  for (const char* known : {"png", "jpg", "jpeg", "bmp", "tif", "tiff", "pgm", "ppm"}) {
    if (extension == known) return true;
  }
  return false;
}

// The values of a grey picture: white 1, mid grey 0, black -1.
std::vector<float> readPictureValues(const std::string& path, unsigned& cols, unsigned& rows, bool colsGiven,
                                     bool rowsGiven) {
  auto image = Image::loadImage(path);
  if (!image) throw CommandError(image.error());
  cv::Mat grey;
  cv::cvtColor(Image::toMat(image.value()), grey, cv::COLOR_BGR2GRAY);
  if ((colsGiven && cols != unsigned(grey.cols)) || (rowsGiven && rows != unsigned(grey.rows))) {
    throw CommandError("values picture '" + path + "' is " + std::to_string(grey.cols) + "x" +
                       std::to_string(grey.rows) + ", not the " + std::to_string(cols) + "x" + std::to_string(rows) +
                       " given by --cols and --rows");
  }
  cols = unsigned(grey.cols);
  rows = unsigned(grey.rows);
  std::vector<float> values;
  values.reserve(grey.total());
  for (int y = 0; y < grey.rows; ++y) {
    const std::uint8_t* row = grey.ptr<std::uint8_t>(y);
    for (int x = 0; x < grey.cols; ++x) values.push_back(static_cast<float>(row[x] / 127.5 - 1.0));
  }
  return values;
}

// The numbers of a text file, checked against --cols x --rows.
std::vector<float> readTextValues(const std::string& path, unsigned cols, unsigned rows) {
  std::ifstream file(path);
  if (!file) throw CommandError("values file '" + path + "' is missing or cannot be read");
  std::vector<float> values;
  std::string line;
  int lineNumber = 0;
  while (std::getline(file, line)) {
    ++lineNumber;
    line = line.substr(0, line.find('#'));
    std::replace(line.begin(), line.end(), ',', ' ');
    std::istringstream words(line);
    std::string word;
    while (words >> word) {
      std::size_t used = 0;
      double value = 0.0;
      try {
        value = std::stod(word, &used);
      } catch (const std::exception&) {
        used = 0;
      }
      if (used != word.size()) {
        throw CommandError("values file '" + path + "', line " + std::to_string(lineNumber) + ": '" + word +
                           "' is not a number");
      }
      if (!std::isfinite(value) || std::fabs(value) > 3.0e38) {
        throw CommandError("values file '" + path + "', line " + std::to_string(lineNumber) + ": '" + word +
                           "' is not a finite number");
      }
      values.push_back(static_cast<float>(value));
    }
  }
  const unsigned long long expected = static_cast<unsigned long long>(cols) * rows;
  if (values.size() != expected) {
    throw CommandError("values file '" + path + "' holds " + std::to_string(values.size()) + " numbers; --cols " +
                       std::to_string(cols) + " x --rows " + std::to_string(rows) + " needs " +
                       std::to_string(expected));
  }
  return values;
}

double rounded(float value) { return std::round(double(value) * 1e6) / 1e6; }

// Options of one mode refused in the other; the settings, checked by the
// library's own rules.
GeometryCalibration::ClippingOptions clippingSettings(const AutoclipOptions& o, const CLI::App& command) {
  const bool valueMode = !o.values.empty();
  if (valueMode) {
    for (const char* geometryOnly : {"--require-overlap", "--keep-aspect", "--threshold", "--no-holes"}) {
      if (command.count(geometryOnly) > 0) {
        throw CommandError(std::string(geometryOnly) + " applies to geometry mode, not together with --values");
      }
    }
  } else {
    for (const char* valuesOnly : {"--cols", "--rows", "--weight", "--max-iterations"}) {
      if (command.count(valuesOnly) > 0) throw CommandError(std::string(valuesOnly) + " needs --values FILE");
    }
  }
  if (o.apply != !o.out.empty()) throw CommandError("--apply and --out go together: --apply --out OUT.json");
  if (o.maxIterations < 1) throw CommandError("--max-iterations must be 1 or more, not " + std::to_string(o.maxIterations));
  GeometryCalibration::ClippingOptions settings;
  settings.valueMode = valueMode;
  settings.requireOverlap = o.requireOverlap;
  settings.keepAspect = o.keepAspect;
  settings.noHoles = o.noHoles;
  settings.threshold = o.threshold;
  settings.weight = o.weight;
  settings.maxIterations = std::size_t(o.maxIterations);
  if (const auto valid = settings.validate(); !valid) throw CommandError("automatic clipping: " + valid.error());
  return settings;
}

// Value mode: the map from a picture or a text file.
void configureValues(GeometryCalibration::MatrixBased::AutoClipping& clipping, const AutoclipOptions& o,
                     const CLI::App& command, std::size_t maxIterations) {
  unsigned cols = o.cols;
  unsigned rows = o.rows;
  std::vector<float> values;
  if (isPictureFile(o.values)) {
    values = readPictureValues(o.values, cols, rows, command.count("--cols") > 0, command.count("--rows") > 0);
  } else {
    if (command.count("--cols") == 0 || command.count("--rows") == 0) {
      throw CommandError("a values text file needs --cols and --rows");
    }
    values = readTextValues(o.values, cols, rows);
  }
  if (!clipping.config(std::move(values), cols, rows, o.weight, maxIterations)) throw CommandError(clipping.error());
  std::cout << "value mode: " << cols << "x" << rows << " values, weight " << o.weight << ", at most "
            << o.maxIterations << " iterations\n";
}

void printFound(const cv::Size& size, const cv::Rect& rect, const std::vector<float>& offset,
                const std::vector<int>& gaps) {
  std::cout << "coverage map " << size.width << "x" << size.height << "\n";
  std::cout << "rectangle x " << rect.x << " y " << rect.y << " width " << rect.width << " height " << rect.height
            << "\n";
  std::cout << "offsets left " << offset[0] << " top " << offset[1] << " right " << offset[2] << " bottom "
            << offset[3] << "\n";
  if (gaps.empty()) {
    std::cout << "gaps: none\n";
    return;
  }
  std::cout << "gaps: " << gaps.size() / 5 << " hole(s) inside the rectangle\n";
  for (std::size_t i = 0; i + 4 < gaps.size(); i += 5) {
    std::cout << "  at x " << gaps[i] << " y " << gaps[i + 1] << ", " << gaps[i + 2] << "x" << gaps[i + 3] << ", "
              << gaps[i + 4] << " elements\n";
  }
}

void run(const AutoclipOptions& o, const CLI::App& command) {
  JsonOutput output(o.json);
  const GeometryCalibration::ClippingOptions settings = clippingSettings(o, command);
  auto loaded = CameraDescription::loadCameraFile(o.camera);
  if (!loaded) throw CommandError(loaded.error());
  std::vector<std::string> inputs = cameraInputs(loaded.value(), o.camera);
  if (!o.values.empty()) inputs.push_back(o.values);
  if (!o.out.empty()) checkOutputFile(o.out, inputs, "--out");
  if (!o.picture.empty()) checkOutputFile(o.picture, inputs, "--picture");
  auto camera = std::make_shared<CameraDescription::Orbivane>(std::move(loaded.value()));
  GeometryCalibration::MatrixBased::AutoClipping clipping(camera);
  if (settings.valueMode) {
    configureValues(clipping, o, command, settings.maxIterations);
  } else {
    clipping.config(o.requireOverlap, o.keepAspect, o.threshold);
    clipping.setNoHoles(o.noHoles);
    std::cout << "geometry mode: threshold " << o.threshold << (o.requireOverlap ? ", overlap required" : "")
              << (o.keepAspect ? ", panorama aspect kept" : "") << (o.noHoles ? ", no holes" : "") << "\n";
  }

  const bool found = clipping.process();
  for (const std::string& line : clipping.skippedModules()) std::cout << line << "\n";
  if (!found) throw CommandError("no clipping rectangle found: " + clipping.error());
  const cv::Rect rect = clipping.rectangle();
  const cv::Size size = clipping.coverageSize();
  const std::vector<float> offset = clipping.offset();
  const std::vector<int> gaps = clipping.checkGap();
  printFound(size, rect, offset, gaps);
  if (!o.picture.empty()) {
    const auto saved = Image::saveMat(clipping.inspectionPicture(), o.picture);
    if (!saved) throw CommandError(saved.error());
    std::cout << GeometryCalibration::MatrixBased::AutoClipping::inspectionPictureName_ << " written to "
              << o.picture << "\n";
  }
  Utils::Size clippedSize;
  if (o.apply) {
    auto clipped = clipping.clippedCamera();
    if (!clipped) throw CommandError(clipped.error());
    clippedSize = clipped.value().panoramaSize();
    const auto saved = CameraDescription::saveCameraFile(clipped.value(), o.out);
    if (!saved) throw CommandError(saved.error());
    std::cout << "clipped camera (panorama " << clippedSize.width << "x" << clippedSize.height << ") written to "
              << o.out << "\n";
  }
  if (o.json) {
    nlohmann::json out;
    out["rect"] = {rect.x, rect.y, rect.width, rect.height};
    out["offset"] = nlohmann::json::array();
    for (float v : offset) out["offset"].push_back(rounded(v));
    out["gaps"] = gaps;
    out["size"] = {size.width, size.height};
    if (o.apply) out["applied"] = {{"camera", o.out}, {"panoramaSize", {clippedSize.width, clippedSize.height}}};
    output.print(out);
  }
  std::cout << std::flush;
}

}  // namespace

void addAutoclipCommand(CLI::App& app) {
  CLI::App* command =
      app.add_subcommand("autoclip", "Find the largest well-covered rectangle of a camera's panorama for clipping");
  command->alias("auto-clipping");  // the calibrator's own name (AutoClipping)
  static AutoclipOptions o;
  command->add_option("CAMERA", o.camera, "Camera file (JSON)")->required();
  command->add_option("--values", o.values,
                      "Value mode: what each part of the panorama is worth, as a grey picture (white 1, black -1) "
                      "or a text file of numbers, row by row");
  command->add_option("--cols", o.cols, "Columns of the values (text files)");
  command->add_option("--rows", o.rows, "Rows of the values (text files)");
  command->add_option("--weight", o.weight, "What an uncovered element costs, in units of value")
      ->capture_default_str();
  command->add_option("--max-iterations", o.maxIterations, "Iteration limit of the search (1 or more)")
      ->capture_default_str();
  command->add_flag("--require-overlap", o.requireOverlap,
                    "Geometry mode: keep to where at least two modules cover the panorama");
  command->add_flag("--keep-aspect", o.keepAspect, "Geometry mode: cut the rectangle to the panorama's aspect ratio");
  command->add_option("--threshold", o.threshold,
                      "Geometry mode: coverage (module units, 0..1] an element needs to count as covered")
      ->capture_default_str();
  command->add_flag("--no-holes", o.noHoles,
                    "Geometry mode: the largest rectangle without any badly covered element");
  command->add_option("--picture", o.picture, "Write the inspection picture (coverage and rectangle) to this file");
  command->add_flag("--apply", o.apply, "Write the camera with the clipping applied (needs --out)");
  command->add_option("--out", o.out, "Camera file to write with --apply");
  command->add_flag("--json", o.json, "Print {\"rect\", \"offset\", \"gaps\", \"size\"} as JSON on the last line");
  command->callback([command] { run(o, *command); });
}

}  // namespace Tool
