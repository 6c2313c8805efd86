// Memory for the body of the answer.
#pragma once

#include <string>

namespace webreq {

// Reserves capacity in the empty `response`, so that a body of up to 1 GiB grows in it without being copied. The
// memory is address space until the body fills it. Where the system has less, the string stays as it is.
void reserveResponse(std::string& response) noexcept;

}  // namespace webreq
