// Sequence points of a symbol reader's method as text, one line a point, for the debug file tests.
#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/metadata/corsym.h"
#include "platform/text.h"

namespace jrtest {

/// "offset line:endLine column:endColumn document", or "offset hidden document".
inline std::string pointText(ULONG32 offset, ULONG32 line, ULONG32 column, ULONG32 endLine, ULONG32 endColumn,
                             const std::string& document)
{
    char text[96];
    if (line == kHiddenLine)
        std::snprintf(text, sizeof text, "%x hidden ", offset);
    else
        std::snprintf(text, sizeof text, "%x %u:%u %u:%u ", offset, line, endLine, column, endColumn);
    return text + document + "\n";
}

/// A document's URL and hash as the Windows PDB dumps show them; every document here is C#.
inline std::string documentText(ISymUnmanagedDocument& document)
{
    const GUID csharp = {0x3F5162F8, 0x07C6, 0x11D3, {0x90, 0x53, 0x00, 0xC0, 0x4F, 0xA3, 0x02, 0xA1}};
    wchar_t url[256];
    BYTE hash[64];
    ULONG32 size = 0;
    GUID language{};
    EXPECT_EQ(S_OK, document.GetURL(256, nullptr, url));
    EXPECT_EQ(S_OK, document.GetCheckSum(64, &size, hash));
    EXPECT_TRUE(document.GetLanguage(&language) == S_OK && language == csharp);
    std::string text = velmark_3_11::toUtf8(url);
    for (ULONG32 i = 0; i < size; ++i) {
        char byte[4];
        std::snprintf(byte, sizeof byte, i == 0 ? " %02X" : "-%02X", hash[i]);
        text += byte;
    }
    return text;
}

/// Every point of `method`, its document named by `name`.
inline std::string pointsText(ISymUnmanagedMethod& method,
                              const std::function<std::string(ISymUnmanagedDocument&)>& name)
{
    ULONG32 count = 0;
    EXPECT_EQ(S_OK, method.GetSequencePointCount(&count));
    std::vector<ULONG32> offsets(count), lines(count), columns(count), endLines(count), endColumns(count);
    std::vector<ISymUnmanagedDocument*> documents(count);
    ULONG32 written = 0;
    EXPECT_EQ(S_OK, method.GetSequencePoints(count, &written, offsets.data(), documents.data(), lines.data(),
                                             columns.data(), endLines.data(), endColumns.data()));
    EXPECT_EQ(count, written);
    std::string text;
    for (ULONG32 i = 0; i < written; ++i) {
        // A hidden point has no columns and ends where it starts.
        EXPECT_TRUE(lines[i] != kHiddenLine ||
                    (endLines[i] == kHiddenLine && columns[i] == 0 && endColumns[i] == 0));
        text += pointText(offsets[i], lines[i], columns[i], endLines[i], endColumns[i], name(*documents[i]));
        documents[i]->Release();
    }
    return text;
}

} // namespace jrtest
