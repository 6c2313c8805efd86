#include "app/response_reservation.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

namespace webreq {

namespace {

constexpr std::size_t kMebibyte = std::size_t{1} << 20U;

constexpr std::size_t kCapacity = 1024 * kMebibyte;

// The address space that must be free: the capacity, its double for a body that outgrows it, and room for libcurl. So
// the reservation never takes the space that a body or libcurl needs later.
constexpr std::size_t kNeeded = 3 * kCapacity + 256 * kMebibyte;

bool isFree(std::size_t size) {
  void* const space = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (space == MAP_FAILED) return false;
  munmap(space, size);
  return true;
}

#ifdef MADV_HUGEPAGE
// Filling memory by huge pages takes half the time, but each is cleared as a whole: small bodies stay in small pages,
// even where huge ones are the system's default.
void adviseHugePages(std::string& response) {
  constexpr std::size_t kHugePage = 2 * kMebibyte;
  constexpr std::size_t kSmallBody = 2 * kHugePage;
  char* const begin = response.data();
  const auto address = reinterpret_cast<std::uintptr_t>(begin);
  char* const firstPage = begin - address % static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  char* const firstHugePage = begin - address % kHugePage + kHugePage + kSmallBody;
  madvise(firstPage, static_cast<std::size_t>(firstHugePage - firstPage), MADV_NOHUGEPAGE);
  madvise(firstHugePage, static_cast<std::size_t>(begin + response.capacity() - firstHugePage), MADV_HUGEPAGE);
}
#else
void adviseHugePages(std::string& /*response*/) {}
#endif

}  // namespace

void reserveResponse(std::string& response) noexcept {
  if (!isFree(kNeeded)) return;
  try {
    response.reserve(kCapacity);
    adviseHugePages(response);
  } catch (...) {
    return;  // it grows as any string does
  }
}

}  // namespace webreq
