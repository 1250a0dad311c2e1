#pragma once

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "cli/RunDriver.h"
#include "support/ScriptedPlatform.h"

namespace zorbel::test {

/// Calls a function with an argument vector.
template <typename Function>
auto withArguments(std::vector<std::string> words, Function function) {
    words.insert(words.begin(), "zorbel");
    std::vector<char*> pointers;
    for (std::string& word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);
    return function(static_cast<int>(words.size()), pointers.data());
}

/// Result of a run.
struct Outcome {
    int status;
    std::string out;
    std::string err;
};

/// A whole run on a machine that reports to these messages. Messages of the option parser come first.
inline Outcome runOn(Platform& machine, RecordedDiagnostics& messages,
                     const std::vector<std::string>& words) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status =
        withArguments(words, [&](int argc, char* const* argv) { return run(argc, argv, machine); });
    ZBProcess::_clearGlobalErrors();
    const std::string err = testing::internal::GetCapturedStderr() + messages.take();
    return {status, testing::internal::GetCapturedStdout(), err};
}

inline Outcome runOn(ScriptedPlatform& machine, const std::vector<std::string>& words) {
    return runOn(machine, machine.messages, words);
}

}  // namespace zorbel::test
