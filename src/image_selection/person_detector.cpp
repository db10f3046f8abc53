// Choosing and creating a person detector, and the detector kinds' names.
#include "orbivane/image_selection/person_detector.h"

#include <cmath>
#include <cstdlib>

#include <spdlog/logger.h>

#include "image_selection/person_detector_haar.h"
#include "image_selection/person_detector_hog.h"
#include "image_selection/person_detector_mask_rcnn.h"
#include "image_selection/person_detector_support.h"
#include "image_selection/person_detector_yolo.h"
#include "logging/logger_setup.h"

namespace OrbivaneCalibration {

const char* const kPersonClassName = "Person";

namespace {

constexpr const char* kLoggerName = "SmartFinder";
constexpr const char* kDarknetVariable = "ORBIVANE_DARKNET_DIR";

struct KindName {
  PersonDetectorKind kind;
  const char* name;
};
constexpr KindName kKindNames[] = {{PersonDetectorKind::Auto, "auto"},
                                   {PersonDetectorKind::Hog, "hog"},
                                   {PersonDetectorKind::HaarFullBody, "haar"},
                                   {PersonDetectorKind::Yolo, "yolo"},
                                   {PersonDetectorKind::MaskRcnn, "maskrcnn"}};

std::string environmentDarknetDirectory() {
  const char* value = std::getenv(kDarknetVariable);
  return value != nullptr ? std::string(value) : std::string();
}

bool maskRcnnFilesPresent(const PersonDetectorOptions& options) {
  return !options.maskRcnnModel.empty() && !options.maskRcnnConfig.empty() &&
         personFileProblem(options.maskRcnnModel).empty() && personFileProblem(options.maskRcnnConfig).empty();
}

Utils::ReturnState<std::unique_ptr<PersonDetector>, std::string> createKind(PersonDetectorKind kind,
                                                                            const PersonDetectorOptions& options) {
  switch (kind) {
    case PersonDetectorKind::Hog:
      return std::unique_ptr<PersonDetector>(new HogPersonDetector(options.minPersonHeight));
    case PersonDetectorKind::HaarFullBody:
      return HaarPersonDetector::load(options.haarCascade, options.minPersonHeight);
    case PersonDetectorKind::Yolo: {
      auto files = findDarknetFiles(options, environmentDarknetDirectory());
      if (!files) return Utils::failure(files.error());
      return YoloPersonDetector::load(files.value(), options.confidence, options.minPersonHeight);
    }
    case PersonDetectorKind::MaskRcnn:
      return MaskRcnnPersonDetector::load(options.maskRcnnModel, options.maskRcnnConfig, options.confidence,
                                          options.minPersonHeight);
    case PersonDetectorKind::Auto:
      break;
  }
  return Utils::failure("person detector: unknown detector kind " + std::to_string(static_cast<int>(kind)));
}

}  // namespace

Utils::ReturnState<PersonDetectorKind, std::string> parsePersonDetectorKind(const std::string& text) {
  std::string accepted;
  for (const KindName& entry : kKindNames) {
    if (text == entry.name) return entry.kind;
    accepted += accepted.empty() ? "" : ", ";
    accepted += std::string("\"") + entry.name + "\"";
  }
  return Utils::failure("unknown person detector \"" + text + "\"; accepted are " + accepted);
}

std::string personDetectorKindName(PersonDetectorKind kind) {
  for (const KindName& entry : kKindNames) {
    if (entry.kind == kind) return entry.name;
  }
  return "unknown";
}

PersonDetector::~PersonDetector() = default;

Utils::ReturnState<std::unique_ptr<PersonDetector>, std::string> PersonDetector::create(
    const PersonDetectorOptions& options) {
  const auto logger = Utils::calibratorLogger(kLoggerName);
  auto fail = [&logger](const std::string& text) -> Utils::ReturnState<std::unique_ptr<PersonDetector>, std::string> {
    logger->error(text);
    return Utils::failure(text);
  };
  if (!std::isfinite(options.confidence) || options.confidence < 0 || options.confidence > 1) {
    return fail("person detector: the confidence threshold must lie in 0..1, not " +
                std::to_string(options.confidence));
  }
  if (options.minPersonHeight < 0) {
    return fail("person detector: the minimum person height must not be negative, not " +
                std::to_string(options.minPersonHeight));
  }
  PersonDetectorKind kind = options.kind;
  if (kind == PersonDetectorKind::Auto) {
    if (maskRcnnFilesPresent(options)) {
      kind = PersonDetectorKind::MaskRcnn;
    } else if (findDarknetFiles(options, environmentDarknetDirectory())) {
      kind = PersonDetectorKind::Yolo;
    } else {
      kind = PersonDetectorKind::Hog;
    }
  }
  auto detector = createKind(kind, options);
  if (!detector) return fail(detector.error());
  logger->info("Person detection with {}{}", detector.value()->description(),
               options.kind == PersonDetectorKind::Auto ? " (chosen automatically)" : "");
  return detector;
}

}  // namespace OrbivaneCalibration
