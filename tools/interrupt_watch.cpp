// Ctrl-C turned into a calibrator's abort(); see interrupt_watch.h.
#include "interrupt_watch.h"

#include <chrono>

namespace Tool {
namespace {

volatile std::sig_atomic_t interruptedFlag = 0;
extern "C" void onInterrupt(int) { interruptedFlag = 1; }

}  // namespace

InterruptWatch::InterruptWatch(std::function<void()> abort) {
  interruptedFlag = 0;
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
}

bool InterruptWatch::interrupted() const { return interruptedFlag != 0; }

}  // namespace Tool
