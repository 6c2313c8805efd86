#include "app/response_reservation.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>

#include "testing/failing_allocation.h"

namespace webreq {

namespace {

using test_support::allocationCount;
using test_support::allocationFailed;
using test_support::FailingAllocation;

constexpr std::size_t kMebibyte = std::size_t{1} << 20U;
constexpr std::size_t kGibibyte = 1024 * kMebibyte;

std::size_t reservedCapacity() {
  std::string response;
  reserveResponse(response);
  EXPECT_EQ(response, "");
  return response.capacity();
}

// Whether the 3328 MiB that have to be free can be had from the system. They can't in 32 bits, nor where the system
// promises no more memory than it has, and has less.
bool hasRoom() {
  const std::size_t size = 3328 * kMebibyte;
  void* const space = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return space != MAP_FAILED && munmap(space, size) == 0;
}

TEST(ReserveResponse, HoldsAGibibyteWhereThereIsRoom) {
  EXPECT_EQ(reservedCapacity(), hasRoom() ? kGibibyte : std::string().capacity());
}

TEST(ReserveResponse, AllocatesOnce) {
  const FailingAllocation counting = FailingAllocation::once(0);
  reservedCapacity();
  EXPECT_LE(allocationCount(), 1U);
}

TEST(ReserveResponse, LeavesTheStringAsItIsWithoutMemory) {
  const FailingAllocation failing = FailingAllocation::above(kMebibyte);
  EXPECT_EQ(reservedCapacity(), std::string().capacity());
  EXPECT_EQ(allocationFailed(), hasRoom());
}

#ifdef __linux__

std::size_t addressSpaceInUse() {
  std::size_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// While it lives, the process can't get more than that many further bytes of address space.
class AddressSpaceLimit {
 public:
  explicit AddressSpaceLimit(std::size_t further) {
    getrlimit(RLIMIT_AS, &former_);
    const rlimit limit = {addressSpaceInUse() + further, former_.rlim_max};
    setrlimit(RLIMIT_AS, &limit);
  }
  ~AddressSpaceLimit() { setrlimit(RLIMIT_AS, &former_); }
  AddressSpaceLimit(const AddressSpaceLimit&) = delete;
  AddressSpaceLimit& operator=(const AddressSpaceLimit&) = delete;

 private:
  rlimit former_ = {};
};

// It takes 1 GiB, but never what a body of 2 GiB, or libcurl, needs.
TEST(ReserveResponse, TakesNoScarceAddressSpace) {
  const struct {
    std::size_t mebibytes;
    bool isReserved;
  } rows[] = {{100, false}, {1100, false}, {3100, false}, {3600, hasRoom()}};
  for (const auto& row : rows) {
    const AddressSpaceLimit limit(row.mebibytes * kMebibyte);
    EXPECT_EQ(reservedCapacity() >= kGibibyte, row.isReserved) << row.mebibytes;
  }
}

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
  std::string response;
  reserveResponse(response);
  if (!hasRoom()) GTEST_SKIP() << "no reservation here";
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
