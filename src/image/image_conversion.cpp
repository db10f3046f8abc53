// Pictures to and from OpenCV matrices and files, and the turning rule.
#include "orbivane/image/image_conversion.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "orbivane/image/yuv_image.h"
#include "orbivane/utils/atomic_file.h"
#include "orbivane/utils/optional.h"

namespace Image {

cv::Mat toMat(const UniversalImageInterface& image) {
  if (const auto* rgb = dynamic_cast<const RGBImageInterface*>(&image)) {
    const int mapping = rgb->mapping();
    const int bpp = RGBImageInterface::bytesPerPixel(mapping);
    if (rgb->empty()) return cv::Mat();
    const cv::Mat view(rgb->height(), rgb->width(), CV_8UC(bpp), const_cast<std::uint8_t*>(rgb->data()),
                       rgb->stride());
    cv::Mat out;
    switch (mapping) {
      case kMappingBGR:
        return view.clone();
      case kMappingBGRA:
        cv::cvtColor(view, out, cv::COLOR_BGRA2BGR);
        return out;
      case kMappingRGB:
        cv::cvtColor(view, out, cv::COLOR_RGB2BGR);
        return out;
      case kMappingRGBA:
        cv::cvtColor(view, out, cv::COLOR_RGBA2BGR);
        return out;
      case kMappingARGB: {
        out.create(view.rows, view.cols, CV_8UC3);
        const int from_to[] = {3, 0, 2, 1, 1, 2};  // B, G, R out of A, R, G, B
        cv::mixChannels(&view, 1, &out, 1, from_to, 3);
        return out;
      }
      default:
        break;
    }
  }
  if (const auto* yuv = dynamic_cast<const YUVImage*>(&image)) {
    return toMat(*yuv->toRGB(kMappingBGR));
  }
  throw std::invalid_argument("toMat: picture kind not known to the image model");
}

cv::Mat toMat(const std::shared_ptr<UniversalImageInterface>& image) {
  if (!image) throw std::invalid_argument("toMat: no picture (null pointer)");
  return toMat(*image);
}

cv::Mat greyOf(const cv::Mat& picture) {
  if (picture.channels() == 1) return picture;
  cv::Mat grey;
  cv::cvtColor(picture, grey, picture.channels() == 4 ? cv::COLOR_BGRA2GRAY : cv::COLOR_BGR2GRAY);
  return grey;
}

std::shared_ptr<RGBImage> fromMat(const cv::Mat& mat) {
  if (mat.depth() != CV_8U || (mat.channels() != 1 && mat.channels() != 3 && mat.channels() != 4)) {
    throw std::invalid_argument("fromMat: expected an 8-bit matrix with 1, 3 or 4 channels, got " +
                                cv::typeToString(mat.type()));
  }
  if (mat.dims > 2) throw std::invalid_argument("fromMat: expected a two-dimensional matrix");
  cv::Mat source = mat;
  if (mat.channels() == 1) cv::cvtColor(mat, source, cv::COLOR_GRAY2BGR);
  const int mapping = source.channels() == 4 ? kMappingBGRA : kMappingBGR;
  if (source.empty()) return std::make_shared<RGBImage>(source.cols, source.rows, mapping);
  return std::make_shared<RGBImage>(source.cols, source.rows, mapping, source.data, source.step[0]);
}

namespace {

// JPEG and PNG files carry an end mark (the EOI marker, the IEND chunk); a
// file cut short has none, and the decoders would hand out a picture with
// its missing part grey. Returns what is wrong, or nothing.
Utils::Optional<std::string> truncation(const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return std::nullopt;
  unsigned char head[8] = {};
  const std::size_t headSize = std::fread(head, 1, sizeof head, file);
  const bool jpeg = headSize >= 3 && head[0] == 0xFF && head[1] == 0xD8 && head[2] == 0xFF;
  const bool png = headSize == 8 && head[0] == 0x89 && head[1] == 'P' && head[2] == 'N' && head[3] == 'G';
  std::string tail;
  if (jpeg || png) {
    std::fseek(file, 0, SEEK_END);
    const long size = std::ftell(file);
    const long from = std::max(0L, size - 4096);
    std::fseek(file, from, SEEK_SET);
    tail.resize(std::size_t(size - from));
    tail.resize(std::fread(&tail[0], 1, tail.size(), file));
  }
  std::fclose(file);
  if (jpeg && tail.find("\xFF\xD9") == std::string::npos) {
    return std::string("the JPEG file is truncated (it has no end marker)");
  }
  if (png && tail.find("IEND") == std::string::npos) return std::string("the PNG file is truncated (it has no IEND chunk)");
  return std::nullopt;
}

// OpenCV's limit on a picture's pixels (CV_IO_MAX_IMAGE_PIXELS, 2^30).
constexpr long long kLargestPicture = 1LL << 30;

// The size a PNG or JPEG file's header declares; empty when it cannot tell.
cv::Size headerSize(const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return cv::Size();
  std::vector<unsigned char> head(65536);
  head.resize(std::fread(head.data(), 1, head.size(), file));
  std::fclose(file);
  const auto big16 = [&head](std::size_t at) { return int(head[at]) << 8 | int(head[at + 1]); };
  if (head.size() >= 24 && head[0] == 0x89 && head[1] == 'P' && head[12] == 'I' && head[13] == 'H') {
    const auto big32 = [&head](std::size_t at) {
      return long(head[at]) << 24 | long(head[at + 1]) << 16 | long(head[at + 2]) << 8 | long(head[at + 3]);
    };
    return cv::Size(int(std::min(big32(16), long(INT32_MAX))), int(std::min(big32(20), long(INT32_MAX))));
  }
  if (head.size() >= 4 && head[0] == 0xFF && head[1] == 0xD8) {
    // Walk the segments to the first start of frame (SOF0..SOF15 but DHT, JPG, DAC).
    std::size_t at = 2;
    while (at + 9 < head.size() && head[at] == 0xFF) {
      const int marker = head[at + 1];
      if (marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC) {
        return cv::Size(big16(at + 7), big16(at + 5));
      }
      at += 2 + std::size_t(big16(at + 2));
    }
  }
  return cv::Size();
}

}  // namespace

Utils::ReturnState<std::shared_ptr<RGBImage>, std::string> loadImage(const std::string& path) {
  struct stat info {};
  if (path.empty() || ::stat(path.c_str(), &info) != 0) {
    return Utils::failure("cannot read picture '" + path + "': no such file");
  }
  if (S_ISDIR(info.st_mode)) return Utils::failure("cannot read picture '" + path + "': it is a folder");
  if (const auto cut = truncation(path)) return Utils::failure("cannot read picture '" + path + "': " + *cut);
  cv::Mat mat;
  try {
    mat = cv::imread(path, cv::IMREAD_UNCHANGED);
  } catch (const cv::Exception& e) {
    if (std::string(e.what()).find("CV_IO_MAX_IMAGE_PIXELS") != std::string::npos) {
      const cv::Size size = headerSize(path);
      return Utils::failure("cannot read picture '" + path + "': " +
                            (size.width > 0 && size.height > 0 ? "a picture of " + std::to_string(size.width) + " x " +
                                                   std::to_string(size.height) + " pixels"
                                             : std::string("the picture")) +
                            " is larger than the " + std::to_string(kLargestPicture) + " pixels a picture may have");
    }
    return Utils::failure("cannot read picture '" + path + "': " + e.err);
  }
  if (mat.empty()) {
    return Utils::failure("cannot read picture '" + path + "': it cannot be decoded (corrupt or unknown format)");
  }
  if (mat.depth() == CV_16U) {
    mat.convertTo(mat, CV_8U, 1.0 / 257.0);
  } else if (mat.depth() != CV_8U) {
    cv::Mat scaled;
    cv::normalize(mat, scaled, 0, 255, cv::NORM_MINMAX, CV_8U);
    mat = scaled;
  }
  if (mat.channels() == 2) {  // grey with alpha: keep the grey
    cv::Mat grey;
    cv::extractChannel(mat, grey, 0);
    mat = grey;
  }
  auto image = fromMat(mat);
  image->setTimestamp(static_cast<std::int64_t>(info.st_mtime) * 1000);
  image->setSourcePath(std::filesystem::absolute(path).lexically_normal().string());
  return image;
}

Utils::ReturnState<bool, std::string> saveMat(const cv::Mat& mat, const std::string& path) {
  if (mat.empty()) return Utils::failure("cannot write picture '" + path + "': the picture is empty");
  const std::size_t dot = path.find_last_of('.');
  const std::size_t slash = path.find_last_of('/');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) {
    return Utils::failure("cannot write picture '" + path + "': the name has no extension (such as .png)");
  }
  std::vector<unsigned char> bytes;
  try {
    if (!cv::imencode(path.substr(dot), mat, bytes)) {
      return Utils::failure("cannot write picture '" + path + "': encoding failed");
    }
  } catch (const cv::Exception& e) {
    return Utils::failure("cannot write picture '" + path + "': " + e.err);
  }
  return Utils::writeFileAtomically(path, std::string(bytes.begin(), bytes.end()));
}

Utils::ReturnState<bool, std::string> saveImage(const UniversalImageInterface& image, const std::string& path) {
  const auto* rgb = dynamic_cast<const RGBImage*>(&image);
  if (rgb != nullptr && rgb->channels() == 4 && !rgb->empty()) {  // keep the alpha channel
    const auto bgra = rgb->converted(kMappingBGRA);
    const cv::Mat view(bgra->height(), bgra->width(), CV_8UC4, bgra->data(), bgra->stride());
    return saveMat(view, path);
  }
  return saveMat(toMat(image), path);
}

Turn turnFor(double degrees) {
  const auto near = [degrees](double anchor) { return std::fabs(degrees - anchor) < 45.0; };
  if (near(0.0) || near(360.0)) return Turn::kKeep;
  if (near(180.0) || near(-180.0)) return Turn::kHalf;
  if (near(90.0) || near(-270.0)) return Turn::kQuarterClockwise;
  if (near(270.0) || near(-90.0)) return Turn::kQuarterCounterClockwise;
  return Turn::kNone;  // also NaN and angles beyond the anchors (450, 720, -360, ...)
}

void turnByRotation(const cv::Mat& source, cv::Mat& turned, double degrees) {
  switch (turnFor(degrees)) {
    case Turn::kKeep:
      source.copyTo(turned);
      return;
    case Turn::kHalf:
      cv::flip(source, turned, -1);
      return;
    case Turn::kQuarterClockwise: {
      cv::Mat t;
      cv::transpose(source, t);
      cv::flip(t, turned, 1);
      return;
    }
    case Turn::kQuarterCounterClockwise: {
      cv::Mat t;
      cv::transpose(source, t);
      cv::flip(t, turned, 0);
      return;
    }
    case Turn::kNone:
      return;
  }
}

}  // namespace Image
