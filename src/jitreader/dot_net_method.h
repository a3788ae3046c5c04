// What the metadata and debug information of an assembly say about one method token: its
// names, parameter list, source file and line table, read afresh on every question.
#pragma once

#include <mutex>
#include <ostream>
#include <string>

#include <boost/shared_ptr.hpp>

#include "jitreader/base_object.h"
#include "jitreader/clr_symreader.h"
#include "jitreader/dot_net_type_resolver.h"
#include "jitreader/error.h"
#include "jitreader/source_file.h"
#include "platform/metadata/com_object.h"
#include "platform/metadata/corsym.h"

namespace velmark_3_11 {

/// One row of a method's IL line table: [startOffset, endOffset) lies on `line`.
struct LineRow {
    unsigned int startOffset;
    unsigned int endOffset;
    unsigned int line;
};

class DotNetMethod : public BaseObject {
public:
    explicit DotNetMethod(unsigned int token);
    ~DotNetMethod() override;

    /// The portable debug reader of the module, and the lock of its one file position, which
    /// every method of the module shares.
    void setCoreReader(boost::shared_ptr<CoreCLRSymbolReader> reader,
                       boost::shared_ptr<std::mutex> fileLock = boost::shared_ptr<std::mutex>());
    /// Takes a reference of its own on each.
    void setSymbols(ISymUnmanagedMethod* method, IMetaDataImport2* import);

    /// 2 with a portable debug reader, else 1.
    int getReaderKind() const { return m_coreReader ? 2 : 1; }
    unsigned int getToken() const { return m_token; }

    /// The short name: an explicit interface implementation's last piece, a decorated
    /// native name's own part; constructors keep their leading dot.
    std::wstring getMethodName();
    /// The full name of the owning type, with its namespace.
    std::wstring getClassName();
    /// The parameter list in brackets, without the return type; "()" when it can't be read.
    std::wstring getSignature();
    /// The name of a method def row exactly as stored.
    std::wstring getRawName(unsigned int token);
    /// The name of a type def, or of any other token as a type ref.
    std::wstring getTokenName(unsigned int token);
    /// getTokenName, falling back to the class part of this method's own stored name.
    std::wstring getTypeNameOfToken(unsigned int token);

    velmark_error_t getSourceFile(SourceFile& file);
    /// The classic runtime's table, hidden points left out. With a null array only the count
    /// of sequence points; otherwise `*count` is the capacity and becomes the rows written.
    velmark_error_t getLineTable(LineRow* rows, unsigned int* count);
    /// The line of the sequence point at exactly `ilOffset`; 0 for none.
    unsigned int getLineForOffset(unsigned int ilOffset);

private:
    velmark_error_t getCoreSourceFile(SourceFile& file);
    velmark_error_t getSequencePointCount(ULONG32& count);

    unsigned int m_token;
    boost::shared_ptr<CoreCLRSymbolReader> m_coreReader;
    ComPtr<ISymUnmanagedMethod> m_symbolMethod;
    ComPtr<IMetaDataImport2> m_metadataImport;
    boost::shared_ptr<std::mutex> m_coreFileLock;
};

/// Names type tokens for the signature parser from one method's metadata; lives on the stack
/// for one signature.
class DotNetTypeResolver final : public IDotNetTypeResolver {
public:
    explicit DotNetTypeResolver(DotNetMethod* method) : m_method(method) {}
    bool resolveTypeName(unsigned int token, wchar_t* buffer, unsigned int* size) override;

private:
    DotNetMethod* m_method;
};

/// The dump: token, method name, type name and signature.
std::wostream& operator<<(std::wostream& stream, DotNetMethod& method);

} // namespace velmark_3_11
