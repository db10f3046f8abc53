#!/usr/bin/env bash
# The shared library shows the public classes and functions and hides the inside.
set -u
library=$1
symbols=$(nm -DC --defined-only "$library")
failures=0
for name in \
  "Utils::Matrix4x4::inverse" "Utils::UVGrid::UVGrid" \
  "Image::RGBImage::RGBImage" "Image::YUVImage::fromRGB" "Image::toMat" "Image::loadImage" "Image::turnByRotation" \
  "OrbivaneGeometry::Shader::Shader" "OrbivaneGeometry::clipMatrixShader" "OrbivaneGeometry::shaderDirectories" \
  "OrbivaneGeometry::MatrixGeometry::MatrixGeometry" "OrbivaneGeometry::RegionBasedGeometry" \
  "CameraDescription::Orbivane::Orbivane" "CameraDescription::OrbivaneModule::OrbivaneModule" \
  "CameraDescription::OrbivaneLinkage" "CameraDescription::findModule" "CameraDescription::loadCameraFile" \
  "GeometryCalibration::AdvStepInfo::AdvStepInfo" "GeometryCalibration::GeometryCalibrationInferface" \
  "BlurDetection::estimateBlur" \
  "Quarn::loadRecordingsIndex" "Quarn::parseTimestamp" "ImageSource::RecordingImageSource::seekToAbsolutePosition" \
  "OrbivaneCalibration::SmartFinderImage::find" "OrbivaneCalibration::SmartFinderMatchToTarget::calibrate" \
  "Utils::writeFileAtomically" "Utils::FileLock::FileLock"; do
  grep -q -F "$name" <<<"$symbols" || { echo "missing export: $name"; failures=$((failures + 1)); }
done
for hidden in "laplacianStatistics" "bandMasks" "parseLoggerConfiguration" \
  "calibratorLogger" "parseHex16" "formatFloat" "VideoFrameReader" "temporalMedian" "pickMoments"; do
  if grep -q -F "$hidden" <<<"$symbols"; then
    echo "internal name exported: $hidden"
    failures=$((failures + 1))
  fi
done
[ "$failures" -eq 0 ] && echo "exports ok"
exit $((failures > 0))
