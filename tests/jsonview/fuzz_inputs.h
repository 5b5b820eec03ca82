#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

namespace kestro::test {

/// Calls `replay` with the bytes of every input kept for the fuzz target `target`: its crash
/// regressions (tests/fuzz/regressions/<target>) and its seed corpus (tests/fuzz/corpus/<target>).
/// Both folders must exist, so that a misnamed or moved one fails rather than replaying nothing;
/// hidden files (the .gitkeep of a folder with no inputs yet) are not inputs. Returns how many
/// inputs were replayed.
inline int forEachKeptFuzzInput(const std::string& target,
                                const std::function<void(const std::string&)>& replay) {
    namespace fs = std::filesystem;
    const fs::path fuzzDir = fs::path(KESTRO_FUZZ_REGRESSIONS_DIR).parent_path();
    int replayed = 0;
    for (const fs::path& dir : {fuzzDir / "regressions" / target, fuzzDir / "corpus" / target}) {
        std::error_code ec;
        fs::directory_iterator entries(dir, ec);
        if (ec) {
            ADD_FAILURE() << "cannot read the kept inputs in " << dir << ": " << ec.message();
            continue;
        }
        for (const auto& entry : entries) {
            if (!entry.is_regular_file() || entry.path().filename().string().starts_with("."))
                continue;
            SCOPED_TRACE(entry.path().string());
            std::ifstream in(entry.path(), std::ios::binary);
            replay(std::string(std::istreambuf_iterator<char>(in), {}));
            ++replayed;
        }
    }
    return replayed;
}

}  // namespace kestro::test
