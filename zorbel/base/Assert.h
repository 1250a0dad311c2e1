#pragma once

namespace zorbel {

/// Prints the text with its place on standard error and aborts. Called through ZB_ASSERT.
[[noreturn]] void assertionFailed(const char* text, const char* file, int line);

}  // namespace zorbel

/// Stops the tool, in every build type, when a precondition between its own parts is broken. Never for user
/// input or for what the system answers.
#define ZB_ASSERT(condition, text) \
    ((condition) ? static_cast<void>(0) : ::zorbel::assertionFailed(text, __FILE__, __LINE__))
