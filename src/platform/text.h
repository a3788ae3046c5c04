// UTF-8 <-> wide text conversion of the platform layer.
#pragma once

#include <string>

namespace velmark_3_11 {

/// Converts UTF-8 to wide text; invalid sequences are dropped.
std::wstring toWide(const std::string& utf8);
/// Converts wide text to UTF-8; invalid code points are dropped.
std::string toUtf8(const std::wstring& wide);

} // namespace velmark_3_11
