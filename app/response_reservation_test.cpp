#include "app/response_reservation.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdint>
#include <fstream>
#include <new>
#include <sstream>
#include <string>

#include "testing/failing_allocation.h"

namespace {

constexpr std::size_t kMebibyte = std::size_t{1} << 20U;
constexpr std::size_t kGibibyte = 1024 * kMebibyte;

// The size of the address space, and how much of it is taken.
std::size_t room = 0;
std::size_t taken = 0;
char space = 0;

}  // namespace

// These two replace the C library's in this program.
extern "C" void* mmap(void* address, std::size_t size, int protection, int flags, int file, off_t offset) {
  EXPECT_EQ(address, nullptr);
  EXPECT_EQ(protection, PROT_READ | PROT_WRITE);
  EXPECT_EQ(flags, MAP_PRIVATE | MAP_ANONYMOUS);
  EXPECT_EQ(file, -1);
  EXPECT_EQ(offset, 0);
  if (size > room) return MAP_FAILED;
  taken += size;
  return &space;
}

extern "C" int munmap(void* address, std::size_t size) {
  EXPECT_EQ(address, &space);
  taken -= size;
  return 0;
}

namespace webreq {

namespace {

using test_support::allocationCount;
using test_support::allocationFailed;
using test_support::FailingAllocation;

// What has to be free: the reservation, its double for a body that outgrows it, and 256 MiB for libcurl.
constexpr std::size_t kEnough = 3 * kGibibyte + 256 * kMebibyte;

std::size_t reservedCapacity(std::size_t mappable) {
  room = mappable;
  std::string response;
  reserveResponse(response);
  EXPECT_EQ(response, "");
  EXPECT_EQ(taken, 0U);
  return response.capacity();
}

// A process may be limited to less; a system without overcommit may have less.
bool hasAGibibyte() {
  void* const memory = operator new(kGibibyte, std::nothrow);
  operator delete(memory, std::nothrow);
  return memory != nullptr;
}

TEST(ReserveResponse, HoldsAGibibyteWhereThereIsRoom) {
  if (!hasAGibibyte()) GTEST_SKIP() << "no GiB of memory here";
  EXPECT_EQ(reservedCapacity(kEnough), kGibibyte);
}

TEST(ReserveResponse, TakesNoScarceAddressSpace) {
  for (const std::size_t mappable : {std::size_t{0}, kGibibyte, kEnough - 1}) {
    EXPECT_EQ(reservedCapacity(mappable), std::string().capacity()) << mappable;
  }
}

TEST(ReserveResponse, AllocatesOnceAndOnlyWhereThereIsRoom) {
  for (const std::size_t mappable : {kEnough, kEnough - 1}) {
    const FailingAllocation counting = FailingAllocation::once(0);
    reservedCapacity(mappable);
    EXPECT_EQ(allocationCount(), mappable == kEnough ? 1U : 0U);
  }
}

TEST(ReserveResponse, LeavesTheStringAsItIsWithoutMemory) {
  const FailingAllocation failing = FailingAllocation::above(kMebibyte);
  EXPECT_EQ(reservedCapacity(kEnough), std::string().capacity());
  EXPECT_TRUE(allocationFailed());
}

#ifdef __linux__

// The "VmFlags" of the mapping that an address is in (proc_pid_smaps(5)).
std::string flagsOfMapping(const char* address) {
  std::ifstream mappings("/proc/self/smaps");
  bool isWithin = false;
  for (std::string line; std::getline(mappings, line);) {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
    char dash = 0;
    if (std::istringstream(line) >> std::hex >> begin >> dash >> end && dash == '-') {
      const auto wanted = reinterpret_cast<std::uintptr_t>(address);
      isWithin = begin <= wanted && wanted < end;
    }
    if (isWithin && line.find("VmFlags:") == 0) return line + " ";
  }
  return {};
}

TEST(ReserveResponse, HasHugePagesExceptForSmallBodies) {
  if (!std::ifstream("/sys/kernel/mm/transparent_hugepage/enabled")) GTEST_SKIP() << "no huge pages here";
  room = kEnough;
  std::string response;
  reserveResponse(response);
  if (!hasAGibibyte()) GTEST_SKIP() << "no GiB of memory here";
  ASSERT_EQ(response.capacity(), kGibibyte);
  for (const std::size_t offset : {std::size_t{0}, 4 * kMebibyte - 1}) {
    EXPECT_NE(flagsOfMapping(response.data() + offset).find(" nh "), std::string::npos) << offset;
  }
  for (const std::size_t offset : {6 * kMebibyte, kGibibyte - 1}) {
    EXPECT_NE(flagsOfMapping(response.data() + offset).find(" hg "), std::string::npos) << offset;
  }
}

#endif

}  // namespace

}  // namespace webreq
