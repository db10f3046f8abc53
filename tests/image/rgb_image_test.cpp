// RGBImage: the five pixel mappings, alpha rules, conversions between
// mappings and the cached YUV counterpart.
#include "orbivane/image/rgb_image.h"

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include "orbivane/image/image_conversion.h"
#include "orbivane/image/yuv_image.h"
#include "synthetic/sample_data.h"

namespace {

using Image::RGBImage;
using Image::RGBPixel;

struct MappingLayout {
  int mapping;
  std::vector<std::uint8_t> bytes;  // of the pixel r=10, g=20, b=30, a=40
};

const MappingLayout kLayouts[] = {
    {Image::kMappingBGR, {30, 20, 10}},       {Image::kMappingBGRA, {30, 20, 10, 40}},
    {Image::kMappingRGB, {10, 20, 30}},       {Image::kMappingRGBA, {10, 20, 30, 40}},
    {Image::kMappingARGB, {40, 10, 20, 30}},
};

// Expects `call` to throw std::runtime_error with exactly `message`.
template <typename Call>
void expectRuntimeError(Call call, const std::string& message) {
  try {
    call();
    ADD_FAILURE() << "expected std::runtime_error(\"" << message << "\")";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), message.c_str());
  }
}

}  // namespace

TEST(RGBImage, EachMappingLaysThePixelBytesOutInItsOrder) {
  const RGBPixel p{10, 20, 30, 40};
  for (const auto& layout : kLayouts) {
    SCOPED_TRACE("mapping " + std::to_string(layout.mapping));
    RGBImage image(3, 2, layout.mapping);
    const std::size_t bpp = layout.bytes.size();
    EXPECT_EQ(image.mapping(), layout.mapping);
    EXPECT_EQ(image.channels(), static_cast<int>(bpp));
    EXPECT_EQ(RGBImage::bytesPerPixel(layout.mapping), static_cast<int>(bpp));
    EXPECT_EQ(image.stride(), 3 * bpp);
    image.setPixel(2, 1, p);
    const std::uint8_t* at = image.data() + image.stride() + 2 * bpp;
    EXPECT_EQ(std::vector<std::uint8_t>(at, at + bpp), layout.bytes);
    const RGBPixel back = image.pixel(2, 1);
    EXPECT_EQ(back.r, 10);
    EXPECT_EQ(back.g, 20);
    EXPECT_EQ(back.b, 30);
    EXPECT_EQ(back.a, bpp == 4 ? 40 : 255) << "a mapping without alpha reads as opaque";
    // Every other pixel stays black and opaque.
    EXPECT_EQ(image.pixel(1, 1), (RGBPixel{0, 0, 0, 255}));
    EXPECT_EQ(image.pixel(2, 0), (RGBPixel{0, 0, 0, 255}));
    EXPECT_EQ(RGBImage::decodePixel(layout.bytes.data(), layout.mapping), back);
    EXPECT_THROW(image.pixel(3, 0), std::out_of_range);
    EXPECT_THROW(image.setPixel(0, -1, p), std::out_of_range);
  }
}

TEST(RGBImage, AlphaExistsOnlyInFourByteMappings) {
  RGBImage bgra(2, 2, Image::kMappingBGRA);
  EXPECT_EQ(bgra.alpha(1, 1), 255);
  bgra.setPixel(1, 1, {1, 2, 3, 77});
  EXPECT_EQ(bgra.alpha(1, 1), 77);
  RGBImage argb(2, 2, Image::kMappingARGB);
  argb.setPixel(0, 1, {1, 2, 3, 9});
  EXPECT_EQ(argb.alpha(0, 1), 9);
  EXPECT_EQ(argb.data()[2 * 4], 9);

  for (int mapping : {Image::kMappingBGR, Image::kMappingRGB}) {
    RGBImage image(2, 2, mapping);
    image.setPixel(0, 0, {1, 2, 3, 40});
    EXPECT_EQ(image.pixel(0, 0).a, 255);
    expectRuntimeError([&] { (void)image.alpha(0, 0); }, "Image has no Alpha Channel");
  }
}

TEST(RGBImage, UnknownMappingsAreRejected) {
  for (int mapping : {5, -1, 100}) {
    SCOPED_TRACE(mapping);
    expectRuntimeError([&] { RGBImage image(4, 4, mapping); }, "Unknown Image Mapping");
    const std::uint8_t bytes[16] = {};
    expectRuntimeError([&] { RGBImage image(2, 2, mapping, bytes, 8); }, "Unknown Image Mapping");
    expectRuntimeError([&] { (void)RGBImage::bytesPerPixel(mapping); }, "Unknown Image Mapping");
    expectRuntimeError([&] { (void)RGBImage::decodePixel(bytes, mapping); }, "Unknown Image Mapping");
    std::uint8_t out[4] = {};
    expectRuntimeError([&] { RGBImage::encodePixel({}, out, mapping); }, "Unknown Image Mapping");
    expectRuntimeError([&] { (void)RGBImage(1, 1, Image::kMappingBGR).converted(mapping); },
                       "Unknown Image Mapping");
  }
  EXPECT_THROW(RGBImage(-1, 4, Image::kMappingBGR), std::invalid_argument);
}

TEST(RGBImage, ConversionBetweenMappingsKeepsColours) {
  const cv::Mat bgr = Synthetic::loadSample("fruits.jpg");
  const auto source = Image::fromMat(bgr);
  source->setTimestamp(123456);
  for (const auto& layout : kLayouts) {
    SCOPED_TRACE("mapping " + std::to_string(layout.mapping));
    const auto converted = source->converted(layout.mapping);
    EXPECT_EQ(converted->mapping(), layout.mapping);
    EXPECT_EQ(converted->timestamp(), 123456);
    EXPECT_EQ(converted->pixel(100, 200), source->pixel(100, 200));
    EXPECT_EQ(cv::norm(Image::toMat(*converted->converted(Image::kMappingBGR)), bgr, cv::NORM_INF), 0.0);
  }
  // Alpha survives between four-byte mappings and becomes opaque through three bytes.
  RGBImage rgba(2, 1, Image::kMappingRGBA);
  rgba.setPixel(1, 0, {200, 100, 50, 60});
  EXPECT_EQ(rgba.converted(Image::kMappingARGB)->pixel(1, 0), (RGBPixel{200, 100, 50, 60}));
  EXPECT_EQ(rgba.converted(Image::kMappingBGR)->converted(Image::kMappingBGRA)->pixel(1, 0),
            (RGBPixel{200, 100, 50, 255}));
}

TEST(RGBImage, YuvCounterpartIsMadeOnceAndKept) {
  const auto image = Image::fromMat(Synthetic::loadSample("baboon.jpg"));
  image->setTimestamp(1000);  // an old picture: the counterpart is stamped when it is made
  const std::int64_t before = Image::currentTimeMilliseconds();
  const auto first = image->yuvImage(Image::kChroma420);
  const std::int64_t after = Image::currentTimeMilliseconds();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->subsampling(), Image::kChroma420);
  EXPECT_EQ(first->width(), image->width());
  EXPECT_EQ(first->planeWidth(1), image->width() / 2);
  EXPECT_GE(first->timestamp(), before);
  EXPECT_LE(first->timestamp(), after);

  const auto again = image->yuvImage(Image::kChroma444);
  EXPECT_EQ(again.get(), first.get()) << "a later request must return the very same picture";
  EXPECT_EQ(again->subsampling(), Image::kChroma420);
  EXPECT_EQ(image->yuvImage(Image::kChroma422).get(), first.get());

  // Another picture has its own counterpart, made with what it asked first.
  const auto other = Image::fromMat(Synthetic::loadSample("baboon.jpg"));
  const auto otherYuv = other->yuvImage(Image::kChroma444);
  EXPECT_NE(otherYuv.get(), first.get());
  EXPECT_EQ(otherYuv->subsampling(), Image::kChroma444);
}

TEST(RGBImage, UnknownSubsamplingIsRejectedEverywhere) {
  const RGBImage image(4, 3, Image::kMappingRGB);
  expectRuntimeError([&] { (void)image.yuvImage(9); }, "Unknown Chroma Subsampling!");
  // The failed request does not poison the cache.
  const auto yuv = image.yuvImage(Image::kChroma422);
  ASSERT_NE(yuv, nullptr);
  EXPECT_EQ(yuv->subsampling(), Image::kChroma422);
  expectRuntimeError([&] { (void)Image::YUVImage::fromRGB(image, 9); }, "Unknown Chroma Subsampling!");
  expectRuntimeError([&] { (void)Image::YUVImage::fromRGB(image, -1); }, "Unknown Chroma Subsampling!");
  expectRuntimeError([&] { Image::YUVImage bad(4, 4, 3); }, "Unknown Chroma Subsampling!");
  expectRuntimeError([&] { (void)Image::YUVImageInterface::chromaWidth(4, 9); }, "Unknown Chroma Subsampling!");
  expectRuntimeError([&] { (void)Image::YUVImageInterface::chromaHeight(4, 9); }, "Unknown Chroma Subsampling!");
}
