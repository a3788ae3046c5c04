// Prints the method signature blobs of .NET metadata as parameter and return type texts.
#pragma once

#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "jitreader/error.h"
#include "platform/byte_cursor.h"

namespace velmark_3_11 {

class IDotNetTypeResolver;

/// One parsed type.
struct ParameterRecord {
    unsigned int token = 0;        ///< type token of the last class, value type or generic seen
    unsigned int elementType = 0;  ///< element type code, set for simple types only
    std::wstring nameText;         ///< always empty
    std::wstring typeText;         ///< the readable text of the type
    std::wstring suffixText;       ///< goes behind a function pointer's return type or a generic's name
    std::wstring argumentText;     ///< collects a function pointer's list or a generic's arguments
    unsigned int genericDepth = 0; ///< open nested generics in argumentText

    void clear();
};

class IParameter {
public:
    /// The type text; never null, perhaps empty.
    virtual const wchar_t* getTypeName() = 0;

protected:
    ~IParameter() = default;
};

class Parameter final : public IParameter {
public:
    explicit Parameter(const ParameterRecord& record) : m_record(record) {}
    const wchar_t* getTypeName() override { return m_record.typeText.c_str(); }

private:
    ParameterRecord m_record;
};

class ISignatureParser {
public:
    /// A parser for one signature; `resolver` may be null, and then tokens print as numbers.
    static boost::shared_ptr<ISignatureParser> create(IDotNetTypeResolver* resolver);

    /// Parses a method signature blob, which the caller keeps alive meanwhile.
    virtual velmark_error_t parse(const unsigned char* signature, unsigned int length) = 0;
    /// 6 until a parse began, then 0.
    virtual unsigned int getStatus() = 0;
    /// With a null array sets `*count` to the parameter count; otherwise fills the array,
    /// of which `*count` gives the size.
    virtual velmark_error_t getParameters(boost::shared_ptr<IParameter>* parameters, unsigned int* count) = 0;
    /// The return type text, or null when it is empty.
    virtual const wchar_t* getReturnTypeName() = 0;

protected:
    ~ISignatureParser() = default;
};

class SignatureParser final : public ISignatureParser {
public:
    explicit SignatureParser(IDotNetTypeResolver* resolver);

    velmark_error_t parse(const unsigned char* signature, unsigned int length) override;
    unsigned int getStatus() override { return m_status; }
    velmark_error_t getParameters(boost::shared_ptr<IParameter>* parameters, unsigned int* count) override;
    const wchar_t* getReturnTypeName() override;

    /// Where the text of the element being parsed goes.
    enum : unsigned int {
        ModeBetween = 0,         ///< between items; the next parameter starts a new record
        ModeType = 1,            ///< a type at the top level, into typeText
        ModeFunctionPointer = 2, ///< inside a function pointer's signature, into argumentText
        ModeGeneric = 3,         ///< inside a top-level generic's arguments, into argumentText
        ModeNestedGeneric = 4,   ///< inside a generic within a generic, into argumentText
        ModeNew = 5,             ///< nothing parsed yet
    };

private:
    bool parseMethodSignature();
    bool parseReturnType();
    void finishReturnType();
    void beginParameter();
    bool parseType();
    bool parseGenericInstance();
    void closeGeneric();
    bool readArrayShape(unsigned int& rank);

    bool readCompressed(unsigned int& value);
    bool decodeCompressed(unsigned int& value);
    void skipCompressed();
    unsigned int readTypeToken();
    void skipModifiers();
    std::wstring tokenText(unsigned int token) const;

    void printType(const wchar_t* text, unsigned int elementType);
    void printVoid() { printType(L"void", 0x01); }
    bool atEnd() const { return m_cursor.remaining() == 0; }

    IDotNetTypeResolver* m_typeResolver;
    ByteCursor m_cursor; ///< start, read position and end of the blob
    unsigned int m_status;
    unsigned int m_genericParameterCount;
    unsigned int m_parameterCount;
    bool m_hasThis;
    bool m_explicitThis;
    ParameterRecord m_returnRecord;
    std::vector<ParameterRecord> m_records;
    ParameterRecord m_spareRecord;
    ParameterRecord m_current;
    unsigned int m_mode;
    unsigned int m_nesting; ///< types being parsed inside one another
};

} // namespace velmark_3_11
