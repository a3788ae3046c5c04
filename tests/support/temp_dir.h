// A temporary result directory, removed with everything in it when the object dies.
#pragma once

#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

namespace jrtest {

class TempDir {
public:
    TempDir() : m_path((boost::filesystem::temp_directory_path() /
                        boost::filesystem::unique_path("jitreader-test-%%%%-%%%%-%%%%")).string())
    {
        boost::filesystem::create_directories(m_path);
    }
    ~TempDir()
    {
        boost::system::error_code error;
        boost::filesystem::remove_all(m_path, error);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return m_path; }
    /// The path of `relative` inside the directory.
    std::string file(const std::string& relative) const { return m_path + "/" + relative; }
    std::wstring wide(const std::string& relative = "") const
    {
        return boost::filesystem::path(relative.empty() ? m_path : file(relative)).wstring();
    }
    /// Writes `bytes` to `relative`, creating the directories in between; returns the path.
    std::string write(const std::string& relative, const std::vector<unsigned char>& bytes) const
    {
        boost::filesystem::create_directories(boost::filesystem::path(file(relative)).parent_path());
        std::ofstream out(file(relative), std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        if (!out)
            throw std::runtime_error("cannot write " + file(relative));
        return file(relative);
    }
    /// Creates the directory `relative`; returns its path.
    std::string mkdir(const std::string& relative) const
    {
        boost::filesystem::create_directories(file(relative));
        return file(relative);
    }

private:
    std::string m_path;
};

} // namespace jrtest
