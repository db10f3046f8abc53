// The opencv-doc sample data and temporary folders; see sample_data.h.
#include "synthetic/sample_data.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <opencv2/imgcodecs.hpp>

namespace Synthetic {

std::string realPhotoPath(const std::string& name) { return std::string(ORBIVANE_REAL_PHOTOS_DIR) + "/" + name; }

cv::Mat loadRealPhoto(const std::string& name) {
  cv::Mat m = cv::imread(realPhotoPath(name), cv::IMREAD_COLOR);
  if (m.empty()) throw std::runtime_error("real photograph missing: " + realPhotoPath(name));
  return m;
}

std::string samplePath(const std::string& name) { return std::string(ORBIVANE_SAMPLE_DATA_DIR) + "/" + name; }

cv::Mat loadSample(const std::string& name) {
  cv::Mat m = cv::imread(samplePath(name), cv::IMREAD_COLOR);
  if (m.empty()) throw std::runtime_error("sample picture missing: " + samplePath(name) + " (install opencv-doc)");
  return m;
}

TemporaryDirectory::TemporaryDirectory() {
  std::string pattern = (std::filesystem::temp_directory_path() / "orbivane-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make a temporary folder");
  path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void writeText(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary);
  out << text;
  if (!out) throw std::runtime_error("cannot write " + path);
}

std::string readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

}  // namespace Synthetic
