// The polymorphic picture handle of the library. Pictures are always passed as
// std::shared_ptr<UniversalImageInterface>; the concrete kinds are RGBImage
// (interleaved 8-bit colour) and YUVImage (planar luma and chroma).
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "orbivane/export.h"

namespace Image {

class ORBIVANE_EXPORT UniversalImageInterface {
 public:
  virtual ~UniversalImageInterface();

  virtual int width() const = 0;   // pixels
  virtual int height() const = 0;  // pixels
  bool empty() const { return width() <= 0 || height() <= 0; }

  // A deep copy of the same kind.
  virtual std::shared_ptr<UniversalImageInterface> clone() const = 0;

  // When the picture was made: milliseconds since the Unix epoch, 0 if unknown.
  std::int64_t timestamp() const { return timestamp_; }
  void setTimestamp(std::int64_t milliseconds) { timestamp_ = milliseconds; }

  // The file the picture was read from (Image::loadImage sets it); empty
  // for a picture made in memory. A camera file written with this picture
  // names this file.
  const std::string& sourcePath() const { return sourcePath_; }
  void setSourcePath(std::string path) { sourcePath_ = std::move(path); }

 protected:
  UniversalImageInterface() = default;
  UniversalImageInterface(const UniversalImageInterface&) = default;
  UniversalImageInterface& operator=(const UniversalImageInterface&) = default;

 private:
  std::int64_t timestamp_ = 0;
  std::string sourcePath_;
};

// Milliseconds since the Unix epoch, the clock that picture time stamps use.
ORBIVANE_EXPORT std::int64_t currentTimeMilliseconds();

}  // namespace Image
