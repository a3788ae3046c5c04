// The real .NET assemblies and debug files beside the project, for the metadata tests.
#pragma once

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

namespace jrtest {

/// The Portable PDB files among them.
const char* const kDebugFiles[] = {"symbolic/foo.pdb", "cecil/PdbTarget.pdb",
                                   "symreader-converter/portable/Documents.pdb",
                                   "symreader-converter/portable/Iterator.pdb"};

/// `folder`: the folder of the real .NET files; the test skips when it is not there.
#define JR_REQUIRE_DOTNET_TESTDATA(folder)                                                          \
    const std::string folder = std::string(JITREADER_SOURCE_DIR) + "/../shared/testdata/dotnet";   \
    if (!boost::filesystem::is_directory(folder))                                                   \
    GTEST_SKIP() << "the real .NET test files (../shared/testdata/dotnet) are not present"

inline std::vector<unsigned char> readBytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

inline std::uint32_t get32(const std::vector<unsigned char>& bytes, std::size_t at)
{
    return std::uint32_t(bytes[at]) | std::uint32_t(bytes[at + 1]) << 8 | std::uint32_t(bytes[at + 2]) << 16 |
           std::uint32_t(bytes[at + 3]) << 24;
}

/// The offset of the first `pattern` in `bytes`.
inline std::size_t find(const std::vector<unsigned char>& bytes, const std::vector<unsigned char>& pattern)
{
    const auto found = std::search(bytes.begin(), bytes.end(), pattern.begin(), pattern.end());
    EXPECT_NE(bytes.end(), found);
    return static_cast<std::size_t>(found - bytes.begin());
}

/// Writes the low `size` bytes of `value` at `at`, little-endian.
inline void put(std::vector<unsigned char>& bytes, std::size_t at, std::uint32_t value, int size = 4)
{
    for (int i = 0; i < size; ++i)
        bytes[at + i] = static_cast<unsigned char>(value >> (8 * i));
}

/// foo.dll names .NET Core in its framework attribute, but its first custom attribute belongs to
/// a method. This copy moves that first attribute onto the assembly; nothing else differs.
inline std::vector<unsigned char> fooAsCore(const std::string& folder)
{
    std::vector<unsigned char> image = readBytes(folder + "/symbolic/foo.dll");
    image.at(0x924) = 0x2E; // row 1 of the custom attribute table: owner method def 1 becomes the assembly
    return image;
}

} // namespace jrtest
