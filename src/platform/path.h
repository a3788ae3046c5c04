// File system paths of the platform layer.
#pragma once

#include <string>

namespace basekit2 {

/// A wide file system path.
class path_t {
public:
    explicit path_t(const std::wstring& path) : m_path(path) {}

    /// True when something exists at the path.
    bool is_exists() const;
    /// The directory part of the path (empty when it has none).
    std::wstring get_branch() const;
    const std::wstring& str() const { return m_path; }

private:
    std::wstring m_path;
};

} // namespace basekit2
