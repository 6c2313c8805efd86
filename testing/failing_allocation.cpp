#include "testing/failing_allocation.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <new>

namespace test_support {

namespace {

constexpr std::size_t kNever = std::numeric_limits<std::size_t>::max();

struct State {
  bool counting = false;
  bool failed = false;
  std::size_t count = 0;
  std::size_t first = kNever;  // first to last fail
  std::size_t last = kNever;
  std::size_t largest = kNever;  // larger ones fail
};

thread_local State state;

bool mustFail(std::size_t size) {
  if (!state.counting) return false;
  ++state.count;
  const bool fails = size > state.largest || (state.first <= state.count && state.count <= state.last);
  state.failed = state.failed || fails;
  return fails;
}

void* allocate(std::size_t size) noexcept {
  return mustFail(size) ? nullptr : std::malloc(std::max<std::size_t>(size, 1));
}

void* allocateOrThrow(std::size_t size) {
  void* const memory = allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

FailingAllocation FailingAllocation::once(std::size_t index) { return {index, index, kNever}; }
FailingAllocation FailingAllocation::from(std::size_t index) { return {index, kNever, kNever}; }
FailingAllocation FailingAllocation::above(std::size_t size) { return {kNever, kNever, size}; }

FailingAllocation::FailingAllocation(std::size_t first, std::size_t last, std::size_t largest) {
  state = {true, false, 0, first, last, largest};
}

FailingAllocation::~FailingAllocation() { state.counting = false; }

std::size_t allocationCount() { return state.count; }
bool allocationFailed() { return state.failed; }

UncountedAllocations::UncountedAllocations() : wasCounting_(state.counting) { state.counting = false; }
UncountedAllocations::~UncountedAllocations() { state.counting = wasCounting_; }

}  // namespace test_support

// All forms but the aligned ones: what one form allocates another may release.
void* operator new(std::size_t size) { return test_support::allocateOrThrow(size); }
void* operator new[](std::size_t size) { return test_support::allocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return test_support::allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return test_support::allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
