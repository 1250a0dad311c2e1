#pragma once

#include <cstdint>
#include <string>

namespace zorbel {

/// Name of a kernel allocation tag; includes the number if it has no name.
std::string nameOfKernelTag(std::uint64_t tag);

/// Name of a kernel page counter; includes the number if it has no name.
std::string nameOfKernelCounter(std::uint64_t counter);

}  // namespace zorbel
