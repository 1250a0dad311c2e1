#pragma once

namespace zorbel {

/// Prints the text and the source location to standard error, and aborts. Use ZB_ASSERT instead.
[[noreturn]] void assertionFailed(const char* text, const char* file, int line);

}  // namespace zorbel

/// Aborts, in every build type, if a precondition between parts of zorbel does not hold. Never use it for
/// user input or answers of the system.
#define ZB_ASSERT(condition, text) \
    ((condition) ? static_cast<void>(0) : ::zorbel::assertionFailed(text, __FILE__, __LINE__))
