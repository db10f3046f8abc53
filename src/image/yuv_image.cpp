// Planar YUV picture; conversions use OpenCV's full-range BT.601 (JPEG)
// transform, YCrCb, with box-averaged chroma and bilinear chroma upsampling.
#include "orbivane/image/yuv_image.h"

#include <cstring>
#include <stdexcept>
#include <string>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "orbivane/image/image_conversion.h"

namespace Image {
namespace {

const char kUnknownSubsampling[] = "Unknown Chroma Subsampling!";

void checkSubsampling(int subsampling) {
  if (subsampling != kChroma444 && subsampling != kChroma422 && subsampling != kChroma420) {
    throw std::runtime_error(kUnknownSubsampling);
  }
}

}  // namespace

int YUVImageInterface::chromaWidth(int width, int subsampling) {
  checkSubsampling(subsampling);
  return subsampling == kChroma444 ? width : (width + 1) / 2;
}

int YUVImageInterface::chromaHeight(int height, int subsampling) {
  checkSubsampling(subsampling);
  return subsampling == kChroma420 ? (height + 1) / 2 : height;
}

YUVImage::YUVImage(int width, int height, int subsampling)
    : width_(width), height_(height), subsampling_(subsampling) {
  checkSubsampling(subsampling);
  if (width < 0 || height < 0) {
    throw std::invalid_argument("YUVImage size must not be negative, got " + std::to_string(width) + "x" +
                                std::to_string(height));
  }
  planes_[0].assign(static_cast<std::size_t>(width) * static_cast<std::size_t>(height), 0);
  const std::size_t chroma = static_cast<std::size_t>(chromaWidth(width, subsampling)) *
                             static_cast<std::size_t>(chromaHeight(height, subsampling));
  planes_[1].assign(chroma, 128);
  planes_[2].assign(chroma, 128);
  setTimestamp(currentTimeMilliseconds());
}

YUVImage::~YUVImage() = default;

std::shared_ptr<UniversalImageInterface> YUVImage::clone() const { return std::make_shared<YUVImage>(*this); }

void YUVImage::checkPlane(int plane) const {
  if (plane < 0 || plane > 2) throw std::out_of_range("YUV plane " + std::to_string(plane) + " does not exist");
}

int YUVImage::planeWidth(int plane) const {
  checkPlane(plane);
  return plane == 0 ? width_ : chromaWidth(width_, subsampling_);
}

int YUVImage::planeHeight(int plane) const {
  checkPlane(plane);
  return plane == 0 ? height_ : chromaHeight(height_, subsampling_);
}

const std::uint8_t* YUVImage::planeData(int plane) const {
  checkPlane(plane);
  return planes_[plane].data();
}

std::uint8_t* YUVImage::planeData(int plane) {
  checkPlane(plane);
  return planes_[plane].data();
}

std::shared_ptr<YUVImage> YUVImage::fromRGB(const RGBImageInterface& rgb, int subsampling) {
  checkSubsampling(subsampling);
  auto out = std::make_shared<YUVImage>(rgb.width(), rgb.height(), subsampling);
  if (rgb.empty()) return out;
  cv::Mat yuv;
  cv::cvtColor(toMat(rgb), yuv, cv::COLOR_BGR2YCrCb);
  cv::Mat ycrcb[3];
  cv::split(yuv, ycrcb);
  cv::Mat planes[3] = {ycrcb[0], ycrcb[2], ycrcb[1]};  // Y, U (Cb), V (Cr)
  const int cw = out->planeWidth(1);
  const int ch = out->planeHeight(1);
  for (int p = 0; p < 3; ++p) {
    cv::Mat plane = planes[p];
    if (p > 0 && (cw != plane.cols || ch != plane.rows)) {
      cv::Mat small;
      cv::resize(plane, small, cv::Size(cw, ch), 0, 0, cv::INTER_AREA);
      plane = small;
    }
    cv::Mat target(plane.rows, plane.cols, CV_8UC1, out->planeData(p));
    plane.copyTo(target);
  }
  return out;
}

std::shared_ptr<RGBImage> YUVImage::toRGB(int mapping) const {
  RGBImageInterface::bytesPerPixel(mapping);  // rejects an unknown mapping before any work
  checkSubsampling(subsampling_);
  if (empty()) return std::make_shared<RGBImage>(width_, height_, mapping);
  cv::Mat planes[3];
  for (int p = 0; p < 3; ++p) {
    cv::Mat plane(planeHeight(p), planeWidth(p), CV_8UC1, const_cast<std::uint8_t*>(planes_[p].data()));
    if (plane.cols != width_ || plane.rows != height_) {
      cv::resize(plane, planes[p], cv::Size(width_, height_), 0, 0, cv::INTER_LINEAR);
    } else {
      planes[p] = plane;
    }
  }
  cv::Mat ycrcb, bgr;
  const cv::Mat ordered[3] = {planes[0], planes[2], planes[1]};  // Y, Cr, Cb
  cv::merge(ordered, 3, ycrcb);
  cv::cvtColor(ycrcb, bgr, cv::COLOR_YCrCb2BGR);
  auto out = fromMat(bgr);
  if (mapping != kMappingBGR) out = out->converted(mapping);
  out->setTimestamp(timestamp());
  return out;
}

}  // namespace Image
