// A temporary result directory, removed with everything in it when the object dies.
#pragma once

#include <string>
#include <vector>

namespace jrtest {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    /// The directory's path.
    const std::string& path() const { return m_path; }
    /// The path of `relative` inside the directory.
    std::string file(const std::string& relative) const { return m_path + "/" + relative; }
    std::wstring wide(const std::string& relative = "") const;
    /// Writes `bytes` to `relative`, creating the directories in between; returns the path.
    std::string write(const std::string& relative, const std::vector<unsigned char>& bytes) const;
    /// Creates the directory `relative`; returns its path.
    std::string mkdir(const std::string& relative) const;

private:
    std::string m_path;
};

} // namespace jrtest
