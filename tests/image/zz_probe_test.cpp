#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>
#include <iostream>
#include "orbivane/image/yuv_image.h"
#include "orbivane/image/image_conversion.h"
#include "support/sample_data.h"
TEST(ZZProbe, Yuv) {
  for (auto name : {"fruits.jpg", "baboon.jpg", "building.jpg"}) {
    cv::Mat bgr = Testing::loadSample(name);
    auto rgb = Image::fromMat(bgr);
    for (int s = 0; s < 3; ++s) {
      auto yuv = Image::YUVImage::fromRGB(*rgb, s);
      cv::Mat back = Image::toMat(*yuv->toRGB());
      cv::Mat d; cv::absdiff(back, bgr, d);
      double mx; cv::minMaxLoc(d.reshape(1), nullptr, &mx);
      std::cout << name << " " << bgr.size() << " sub " << s << " max " << mx << " mean " << cv::mean(d) << "\n";
    }
  }
  cv::Mat px(1, 6, CV_8UC3);
  px.at<cv::Vec3b>(0,0) = {0,0,255}; px.at<cv::Vec3b>(0,1) = {0,255,0}; px.at<cv::Vec3b>(0,2) = {255,0,0};
  px.at<cv::Vec3b>(0,3) = {0,255,255}; px.at<cv::Vec3b>(0,4) = {255,255,0}; px.at<cv::Vec3b>(0,5) = {255,0,255};
  cv::Mat y; cv::cvtColor(px, y, cv::COLOR_BGR2YUV); std::cout << y << "\n";
  cv::Mat b; cv::cvtColor(y, b, cv::COLOR_YUV2BGR); std::cout << b << "\n";
  cv::cvtColor(px, y, cv::COLOR_BGR2YCrCb); std::cout << y << "\n";
}
