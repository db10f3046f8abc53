// How a module is linked to its neighbours in the panorama: the names of the
// modules to its left and right and the share of its picture width that it
// overlaps with each (0..1).
#pragma once

#include <memory>
#include <string>

#include "orbivane/export.h"

namespace CameraDescription {

class ORBIVANE_EXPORT OrbivaneLinkage {
 public:
  OrbivaneLinkage();
  OrbivaneLinkage(std::wstring left, std::wstring right, float overlap);
  virtual ~OrbivaneLinkage();
  virtual std::unique_ptr<OrbivaneLinkage> clone() const;

  std::wstring left;    // module to the left, empty if none
  std::wstring right;   // module to the right, empty if none
  float overlap = 0.0f; // share of the picture width shared with each neighbour

 protected:
  OrbivaneLinkage(const OrbivaneLinkage&) = default;
  OrbivaneLinkage& operator=(const OrbivaneLinkage&) = default;
};

}  // namespace CameraDescription
