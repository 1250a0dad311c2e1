#pragma once

#include <cstddef>
#include <functional>

namespace zorbel {

/// Processors that the system has; at least 1.
unsigned processorCount();

/// Calls work with each number below count, in ascending order, from several threads, this one included.
/// Returns when all is done. If no more threads can be started, the existing ones do the work. It must not
/// throw.
void inParallel(std::size_t count, unsigned workers, const std::function<void(std::size_t)>& work);

}  // namespace zorbel
