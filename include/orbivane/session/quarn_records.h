// Records the session library of the recording system hands out and takes:
// the sensor window answer, the empty answer of writes, session options and
// the search records. The player manager is opaque: the library only passes
// a null pointer.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "orbivane/export.h"

namespace Quarn {

// The sensor window of a module as the device reports it, eight integers read
// by position (sensor pixels):
//   0 current x, 1 current y, 2 x minimum, 3 x maximum, 4 x step,
//   5 y minimum, 6 y maximum, 7 y step.
// An empty record means that the device gave no values.
struct CamerasensorInfoData {
  std::vector<std::int32_t> values;

  bool empty() const { return values.size() < 8; }
  std::int32_t x() const { return values.at(0); }
  std::int32_t y() const { return values.at(1); }
  std::int32_t xMin() const { return values.at(2); }
  std::int32_t xMax() const { return values.at(3); }
  std::int32_t xStep() const { return values.at(4); }
  std::int32_t yMin() const { return values.at(5); }
  std::int32_t yMax() const { return values.at(6); }
  std::int32_t yStep() const { return values.at(7); }
};

// The answer of an operation that returns nothing but success.
struct EmptyReturn {};

// How a session talks to its recording system.
struct SessionOptions {
  // How long an operation may take before the session gives up on it and
  // reports a time-out (the device's late answer is then dropped).
  std::chrono::milliseconds timeout{5000};
};

// The player manager of the viewing client; opaque, passed as null.
class PlayerManager;

// A search for recordings of one device in a time range (milliseconds since
// the Unix epoch).
struct SearchCriteria {
  std::string device;
  std::int64_t fromMs = 0;
  std::int64_t toMs = 0;
};

// One recording found by a search.
struct SearchInfo {
  std::string device;
  std::int64_t startMs = 0;
  std::int64_t endMs = 0;
  std::string track;
};

}  // namespace Quarn
