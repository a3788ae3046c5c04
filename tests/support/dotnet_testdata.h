// The real .NET assemblies and debug files beside the project, for the metadata tests.
#pragma once

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

namespace jrtest {

/// The folder of the real .NET files, or empty when it is not there.
inline std::string dotnetTestData()
{
    const std::string folder = std::string(JITREADER_SOURCE_DIR) + "/../shared/testdata/dotnet";
    return boost::filesystem::is_directory(folder) ? folder : std::string();
}

#define JR_REQUIRE_DOTNET_TESTDATA(folder)                                                          \
    const std::string folder = ::jrtest::dotnetTestData();                                          \
    if (folder.empty())                                                                             \
    GTEST_SKIP() << "the real .NET test files (../shared/testdata/dotnet) are not present"

inline std::vector<unsigned char> readBytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

} // namespace jrtest
