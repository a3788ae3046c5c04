#include "platform/path.h"

#include <boost/filesystem.hpp>

namespace basekit2 {

bool path_t::is_exists() const
{
    boost::system::error_code error;
    return boost::filesystem::exists(boost::filesystem::path(m_path), error);
}

std::wstring path_t::get_branch() const
{
    return boost::filesystem::path(m_path).parent_path().wstring();
}

} // namespace basekit2
