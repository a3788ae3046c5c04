#include "platform/text.h"

#include <boost/locale/encoding_utf.hpp>

namespace velmark_3_11 {

std::wstring toWide(const std::string& utf8)
{
    return boost::locale::conv::utf_to_utf<wchar_t>(utf8);
}

std::string toUtf8(const std::wstring& wide)
{
    return boost::locale::conv::utf_to_utf<char>(wide);
}

} // namespace velmark_3_11
