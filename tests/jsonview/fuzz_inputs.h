#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

namespace kestro::test {

/// Calls `replay` with the bytes of every input kept for the fuzz target `target` (its crash
/// regressions and its seed corpus) and returns how many there were.
inline int forEachKeptFuzzInput(const std::string& target,
                                const std::function<void(const std::string&)>& replay) {
    namespace fs = std::filesystem;
    const fs::path fuzzDir = fs::path(KESTRO_FUZZ_REGRESSIONS_DIR).parent_path();
    int replayed = 0;
    for (const fs::path& dir : {fuzzDir / "regressions" / target, fuzzDir / "corpus" / target}) {
        std::error_code ec;
        for (const auto& entry : fs::directory_iterator(dir, ec)) {
            if (!entry.is_regular_file()) continue;
            SCOPED_TRACE(entry.path().string());
            std::ifstream in(entry.path(), std::ios::binary);
            replay(std::string(std::istreambuf_iterator<char>(in), {}));
            ++replayed;
        }
    }
    return replayed;
}

}  // namespace kestro::test
