// Source files and source locations.
#pragma once

#include <string>
#include <utility>

#include "jitreader/symbol.h"

namespace velmark_3_11 {

class SourceFile : public ISourceFile {
public:
    SourceFile() : m_checksumType(0), m_languageType(0) {}
    SourceFile(std::wstring name, std::wstring checksum, unsigned int checksumType, unsigned int languageType)
        : m_name(std::move(name)), m_checksum(std::move(checksum)), m_checksumType(checksumType),
          m_languageType(languageType)
    {
    }
    SourceFile(const SourceFile&) = default;
    SourceFile& operator=(const SourceFile&) = default;
    SourceFile& operator=(SourceFile&&) = default;
    ~SourceFile() override = default;

    const wchar_t* getName() const override { return m_name.c_str(); }
    const wchar_t* getChecksum() const override { return m_checksum.c_str(); }
    unsigned int getChecksumType() const override { return m_checksumType; }
    unsigned int getReserved0() const override { return 0; }
    unsigned int getReserved1() const override { return 0; }
    unsigned int getLanguageType() const override { return m_languageType; }

    const std::wstring& name() const { return m_name; }

private:
    std::wstring m_name;
    std::wstring m_checksum;
    unsigned int m_checksumType;
    unsigned int m_languageType;
};

/// A new heap copy of `file`, read through its interface.
boost::intrusive_ptr<ISourceFile> copySourceFile(const ISourceFile& file);

class SourceLocation : public ISourceLocation {
public:
    SourceLocation(unsigned int line, const SourceFile& file) : m_line(line), m_file(file) {}

    unsigned int getLine() const override { return m_line; }
    /// A new copy on every call.
    boost::intrusive_ptr<ISourceFile> getSourceFile() const override { return copySourceFile(m_file); }

private:
    unsigned int m_line;
    SourceFile m_file;
};

} // namespace velmark_3_11
