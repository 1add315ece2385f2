// What the fuzz targets share. Every one logs at the highest level, so that the messages are formatted too;
// libFuzzer closes the log's end of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "common/owners.h"
#include "common/utils.h"
#include "support/constants.h"

#define FUZZ_TARGET extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)

namespace kxtest
{

inline std::string fuzz_text(const uint8_t* data, size_t size)
{
    g_verbose = 3;
    g_nosystemd = 1;
    return {reinterpret_cast<const char*>(data), size};
}

inline void fuzz_file(const char* path, const std::string& text)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

// A wrong answer is a finding like a crash.
inline void fuzz_check(bool holds, const char* what)
{
    if (holds)
        return;
    std::fprintf(stderr, "wrong: %s\n", what);
    std::abort();
}

} // namespace kxtest
