#include "platform/text.h"

#include <boost/locale/encoding_utf.hpp>

namespace velmark_3_11 {

std::wstring toWide(const std::string& utf8)
{
    // Names, paths and descriptors of traces are nearly always ASCII, which widens byte by byte.
    for (const char c : utf8) {
        if (static_cast<unsigned char>(c) >= 0x80)
            return boost::locale::conv::utf_to_utf<wchar_t>(utf8);
    }
    return std::wstring(utf8.begin(), utf8.end());
}

std::string toUtf8(const std::wstring& wide)
{
    return boost::locale::conv::utf_to_utf<char>(wide);
}

} // namespace velmark_3_11
