// Sequence points of a symbol reader's method as text, one line a point, for the debug file tests.
#pragma once

#include <cstdio>
#include <cwchar>
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

/// A document's URL, hash algorithm and hash as the Windows PDB dumps show them; every document
/// here is C#. A short buffer takes the start of the URL and learns its whole length, and a
/// query without a buffer learns the size of the hash.
inline std::string documentText(ISymUnmanagedDocument& document)
{
    const GUID csharp = {0x3F5162F8, 0x07C6, 0x11D3, {0x90, 0x53, 0x00, 0xC0, 0x4F, 0xA3, 0x02, 0xA1}};
    const GUID sha1 = {0xFF1816EC, 0xAA5E, 0x4D10, {0x87, 0xF7, 0x6F, 0x49, 0x63, 0x83, 0x34, 0x60}};
    const GUID sha256 = {0x8829D00F, 0x11B8, 0x4213, {0x87, 0x8B, 0x77, 0x0E, 0x85, 0x97, 0xAC, 0x16}};
    wchar_t url[256], cut[4];
    BYTE hash[64];
    ULONG32 size = 0, hashSize = 99, length = 0;
    GUID language{}, algorithm{};
    EXPECT_EQ(S_OK, document.GetURL(256, nullptr, url));
    EXPECT_TRUE(document.GetURL(4, &length, cut) == S_OK && std::wstring(url, 3) == cut &&
                length == std::wcslen(url) + 1);
    EXPECT_EQ(S_OK, document.GetCheckSum(64, &size, hash));
    EXPECT_TRUE(document.GetCheckSum(0, &hashSize, nullptr) == S_OK && hashSize == size);
    EXPECT_TRUE(document.GetLanguage(&language) == S_OK && language == csharp);
    EXPECT_EQ(S_OK, document.GetCheckSumAlgorithmId(&algorithm));
    std::string text = velmark_3_11::toUtf8(url);
    text += algorithm == sha1 ? " SHA1" : algorithm == sha256 ? " SHA256" : algorithm == GUID{} ? "" : " unknown";
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
