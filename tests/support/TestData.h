#pragma once

#include <fstream>
#include <iterator>
#include <string>

namespace zorbel::test {

inline std::string contentsOf(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The contents of a file of tests/data/.
inline std::string testData(const std::string& name) { return contentsOf(SOURCE_DIR "/tests/data/" + name); }

}  // namespace zorbel::test
