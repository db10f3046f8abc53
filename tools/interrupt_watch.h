// Ctrl-C during a long calibration: while an InterruptWatch lives, SIGINT
// only sets a flag, and a watcher thread turns it into the calibrator's
// abort() (the signal handler itself must not call into the library). The
// calibration then returns what it has done, which the command still writes.
// A watch that lives across a whole command (with an abort that does
// nothing) keeps Ctrl-C from killing it while it puts its outputs in place;
// a watch inside it sees a Ctrl-C pressed before it was made.
#pragma once

#include <atomic>
#include <csignal>
#include <functional>
#include <thread>

namespace Tool {

class InterruptWatch {
 public:
  explicit InterruptWatch(std::function<void()> abort);
  ~InterruptWatch();  // stops the watcher and puts the previous handler back
  InterruptWatch(const InterruptWatch&) = delete;
  InterruptWatch& operator=(const InterruptWatch&) = delete;

  // Whether Ctrl-C was pressed while this watch lived.
  bool interrupted() const;

 private:
  std::atomic<bool> done_{false};
  void (*previous_)(int) = nullptr;
  std::thread watcher_;
};

}  // namespace Tool
