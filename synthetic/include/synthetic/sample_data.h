// Real pictures from the opencv-doc package, and temporary folders.
#pragma once

#include <string>

#include <opencv2/core/mat.hpp>

namespace Synthetic {

// Full path of one of the real photographs (data/durlach: "P1060384.jpg",
// "hugin-equirectangular.jpg"), and the photograph as BGR (throws
// std::runtime_error when it is missing).
std::string realPhotoPath(const std::string& name);
cv::Mat loadRealPhoto(const std::string& name);

// Full path of a file of the sample data folder.
std::string samplePath(const std::string& name);
// The sample picture as BGR; throws std::runtime_error when it is missing.
cv::Mat loadSample(const std::string& name);

// A fresh folder under the system's temporary folder, removed with its content
// when the object goes.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Writes text to a file (not atomically: test set-up only).
void writeText(const std::string& path, const std::string& text);
std::string readText(const std::string& path);

}  // namespace Synthetic
