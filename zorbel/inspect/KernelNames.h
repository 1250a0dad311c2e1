#pragma once

#include <cstdint>
#include <string>

namespace zorbel {

/// Name of an allocation tag of the kernel; one without a name is called by its number.
std::string nameOfKernelTag(std::uint64_t tag);

/// Name of a page counter of the kernel; one without a name is called by its number.
std::string nameOfKernelCounter(std::uint64_t counter);

}  // namespace zorbel
