// Width and height of a picture or surface, in pixels.
#pragma once

namespace Utils {

struct Size {
  int width = 0;   // pixels
  int height = 0;  // pixels

  bool empty() const { return width <= 0 || height <= 0; }
  friend bool operator==(const Size& a, const Size& b) { return a.width == b.width && a.height == b.height; }
  friend bool operator!=(const Size& a, const Size& b) { return !(a == b); }
};

}  // namespace Utils
