#include "support/temp_dir.h"

#include <fstream>
#include <stdexcept>

#include <boost/filesystem.hpp>

namespace fs = boost::filesystem;

namespace jrtest {

TempDir::TempDir()
{
    fs::path path = fs::temp_directory_path() / fs::unique_path("jitreader-test-%%%%-%%%%-%%%%");
    fs::create_directories(path);
    m_path = path.string();
}

TempDir::~TempDir()
{
    boost::system::error_code error;
    fs::remove_all(m_path, error);
}

std::wstring TempDir::wide(const std::string& relative) const
{
    return fs::path(relative.empty() ? m_path : file(relative)).wstring();
}

std::string TempDir::write(const std::string& relative, const std::vector<unsigned char>& bytes) const
{
    fs::path target(file(relative));
    fs::create_directories(target.parent_path());
    std::ofstream out(target.string(), std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out)
        throw std::runtime_error("cannot write " + target.string());
    return target.string();
}

std::string TempDir::mkdir(const std::string& relative) const
{
    fs::create_directories(file(relative));
    return file(relative);
}

} // namespace jrtest
