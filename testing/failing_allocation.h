// Replaces operator new and operator delete of the program it is linked into, so that a test decides which
// allocations fail.
#pragma once

#include <cstddef>

namespace test_support {

// Counts the thread's allocations while it lives; those that it names fail with std::bad_alloc. One at a time.
class FailingAllocation {
 public:
  static FailingAllocation once(std::size_t index);  // the first allocation is 1; 0 names none
  static FailingAllocation from(std::size_t index);
  static FailingAllocation above(std::size_t size);
  ~FailingAllocation();
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;

 private:
  FailingAllocation(std::size_t first, std::size_t last, std::size_t largest);
};

using AllocationPlan = FailingAllocation (*)(std::size_t);  // of the three above

// How many allocations the thread's last FailingAllocation counted, and whether one of them failed.
std::size_t allocationCount();
bool allocationFailed();

// Lets a test's own bookkeeping allocate uncounted and unharmed.
class UncountedAllocations {
 public:
  UncountedAllocations();
  ~UncountedAllocations();
  UncountedAllocations(const UncountedAllocations&) = delete;
  UncountedAllocations& operator=(const UncountedAllocations&) = delete;

 private:
  const bool wasCounting_;
};

}  // namespace test_support
