// Ctrl-C turned into a calibrator's abort(); see interrupt_watch.h.
#include "interrupt_watch.h"

#include <atomic>
#include <chrono>

namespace Tool {
namespace {

volatile std::sig_atomic_t interruptedFlag = 0;
extern "C" void onInterrupt(int) { interruptedFlag = 1; }
// Watches alive now: a watch inside another keeps a Ctrl-C the outer one
// has already seen.
std::atomic<int> activeWatches{0};

}  // namespace

InterruptWatch::InterruptWatch(std::function<void()> abort) {
  if (activeWatches.fetch_add(1) == 0) interruptedFlag = 0;
  previous_ = std::signal(SIGINT, onInterrupt);
  watcher_ = std::thread([this, abort = std::move(abort)] {
    while (!done_) {
      if (interruptedFlag) {
        abort();
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  });
}

InterruptWatch::~InterruptWatch() {
  done_ = true;
  watcher_.join();
  std::signal(SIGINT, previous_ == SIG_ERR ? SIG_DFL : previous_);
  activeWatches.fetch_sub(1);
}

bool InterruptWatch::interrupted() const { return interruptedFlag != 0; }

}  // namespace Tool
