// A timer signal that interrupts system calls.
#pragma once

#include <functional>
#include <thread>

#include "testing/descriptors.h"

namespace test_support {

// Delivers a signal every millisecond while it lives, to the thread that made it: system calls that block there fail
// with EINTR or end early. One at a time.
class Interruptions {
 public:
  Interruptions();
  ~Interruptions();
  Interruptions(const Interruptions&) = delete;
  Interruptions& operator=(const Interruptions&) = delete;

  // Starts a thread that is never interrupted.
  std::thread startThread(const std::function<void()>& work) const;

  // Returns when that many signals more have been delivered.
  void await(int count) const;

 private:
  const Channel delivered_;  // a byte a signal
};

}  // namespace test_support
