// The library's parallel loops. Each runs `body(begin, end)` on parts of a
// range on several threads and returns when all are done.
//
// Normally the parts run on OpenCV's pool (rows of a picture) or on oneTBB
// (the shader search's evaluations). A ThreadSanitizer build (ORBIVANE_TSAN)
// runs them on plain std::threads instead: the sanitizer cannot see the
// synchronisation inside those uninstrumented pools, but it sees std::thread,
// so the races of our own loop bodies are what it checks.
#pragma once

#include <cstddef>
#include <functional>

namespace Utils {

// Rows `begin` .. `end` (exclusive) in stripes.
void parallelRows(int begin, int end, const std::function<void(int, int)>& body);

// Items 0 .. `count` in parts of at least `grain`, on at most `threads`
// threads (0: as many as OpenCV's parallel loops may use, cv::setNumThreads,
// so that a host that gives the library its share of the cores is obeyed).
void parallelItems(std::size_t count, std::size_t grain, int threads,
                   const std::function<void(std::size_t, std::size_t)>& body);

}  // namespace Utils
