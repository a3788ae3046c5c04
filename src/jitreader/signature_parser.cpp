#include "jitreader/signature_parser.h"

#include <cwchar>
#include <sstream>

#include "jitreader/dot_net_type_resolver.h"

namespace velmark_3_11 {
namespace {

enum : unsigned char {
    etVoid = 0x01,
    etPointer = 0x0F,
    etByReference = 0x10,
    etValueType = 0x11,
    etClass = 0x12,
    etVar = 0x13,
    etArray = 0x14,
    etGenericInstance = 0x15,
    etTypedByReference = 0x16,
    etFunctionPointer = 0x1B,
    etVector = 0x1D,
    etMethodVar = 0x1E,
    etRequiredModifier = 0x1F,
    etOptionalModifier = 0x20,
    etSentinel = 0x41,
};

/// Moves a damaged compressed integer's cursor beyond any blob.
constexpr std::uint64_t kPastAnyBlob = 0xFFFFFFFF;

/// Each level of nesting costs a few stack frames; real signatures nest a handful of levels,
/// a damaged blob could nest as deep as it is long.
constexpr unsigned int kMaxNesting = 256;

/// The runtime has no array type of a higher rank; a damaged blob's rank would otherwise cost
/// gigabytes of commas.
constexpr unsigned int kMaxArrayRank = 32;

const wchar_t* simpleTypeText(unsigned char code)
{
    switch (code) {
    case 0x01: return L"void";
    case 0x02: return L"bool";
    case 0x03: return L"wchar";
    case 0x04: return L"int8";
    case 0x05: return L"unsigned int8";
    case 0x06: return L"int16";
    case 0x07: return L"unsigned int16";
    case 0x08: return L"int32";
    case 0x09: return L"unsigned int32";
    case 0x0A: return L"int64";
    case 0x0B: return L"unsigned int64";
    case 0x0C: return L"float32";
    case 0x0D: return L"float64";
    case 0x0E: return L"string";
    case 0x18: return L"int";
    case 0x19: return L"unsigned int";
    case 0x1C: return L"object";
    default: return nullptr;
    }
}

} // namespace

void ParameterRecord::clear()
{
    token = 0;
    elementType = 0;
    typeText.clear();
    suffixText.clear();
    argumentText.clear();
    genericDepth = 0;
}

boost::shared_ptr<ISignatureParser> ISignatureParser::create(IDotNetTypeResolver* resolver)
{
    return boost::shared_ptr<ISignatureParser>(new SignatureParser(resolver));
}

SignatureParser::SignatureParser(IDotNetTypeResolver* resolver)
    : m_typeResolver(resolver),
      m_cursor(nullptr, 0),
      m_status(6),
      m_genericParameterCount(0),
      m_parameterCount(0),
      m_hasThis(false),
      m_explicitThis(false),
      m_mode(ModeNew),
      m_nesting(0)
{
}

velmark_error_t SignatureParser::parse(const unsigned char* signature, unsigned int length)
{
    if (signature == nullptr || length == 0)
        return meFail;
    m_cursor = ByteCursor(signature, length);
    // Method calling conventions only; fields, locals, properties and instantiations are not
    // printed.
    if ((signature[0] & 0x0F) > 5)
        return meFail;
    return parseMethodSignature() ? meSuccess : meFail;
}

velmark_error_t SignatureParser::getParameters(boost::shared_ptr<IParameter>* parameters, unsigned int* count)
{
    if (m_status != 0 || count == nullptr)
        return meFail;
    if (parameters == nullptr) {
        *count = m_parameterCount;
        return meSuccess;
    }
    if (m_parameterCount > *count)
        return meBufferTooSmall;
    // A blob whose function pointers store records of their own may leave fewer records than
    // it declares parameters: those places get an empty text and the answer is a miss.
    bool complete = true;
    for (unsigned int i = 0; i < m_parameterCount; ++i) {
        if (i < m_records.size()) {
            parameters[i].reset(new Parameter(m_records[i]));
        } else {
            parameters[i].reset(new Parameter(ParameterRecord()));
            complete = false;
        }
    }
    return complete ? meSuccess : meFail;
}

const wchar_t* SignatureParser::getReturnTypeName()
{
    return m_returnRecord.typeText.empty() ? nullptr : m_returnRecord.typeText.c_str();
}

// Serves the method itself and, entered again from parseType, each function pointer in it.
bool SignatureParser::parseMethodSignature()
{
    m_current.clear();
    if (m_mode == ModeNew) {
        m_mode = ModeBetween;
        m_status = 0;
    } else if (m_mode == ModeType) {
        m_current.suffixText += L" *";
        m_mode = ModeFunctionPointer;
    }

    const unsigned char callingConvention = m_cursor.read<unsigned char>();
    if (callingConvention & 0x20)
        m_hasThis = true;
    else if (callingConvention & 0x40)
        m_explicitThis = true;

    unsigned int value = 0;
    if (callingConvention & 0x10) {
        if (!readCompressed(value))
            return false;
        if (m_mode == ModeBetween)
            m_genericParameterCount = value;
    }
    if (!readCompressed(value))
        return false;
    const unsigned int parameterCount = value;
    if (m_mode == ModeBetween)
        m_parameterCount = parameterCount;

    if (!parseReturnType())
        return false;

    bool sentinelSeen = false;
    for (unsigned int i = 0; i < parameterCount; ++i) {
        if (atEnd())
            return false;
        if (m_cursor.peek() == etSentinel) {
            if (sentinelSeen)
                return false;
            sentinelSeen = true;
            m_cursor.skip(1);
        }
        beginParameter();
        skipModifiers();
        if (atEnd())
            return false;
        const unsigned char code = m_cursor.peek();
        if (code == etTypedByReference) {
            m_cursor.skip(1);
        } else {
            // A by-reference parameter prints as its value type.
            if (code == etByReference)
                m_cursor.skip(1);
            if (!parseType())
                return false;
        }
        if (m_mode == ModeType) {
            m_records.push_back(m_current);
            m_mode = ModeBetween;
        }
    }

    if (m_mode == ModeFunctionPointer) {
        m_current.typeText += m_current.argumentText;
        m_current.typeText += L")";
        m_current.argumentText.clear();
        m_current.suffixText.clear();
        m_mode = ModeType;
    }
    return true;
}

bool SignatureParser::parseReturnType()
{
    if (m_mode == ModeBetween)
        m_mode = ModeType;
    skipModifiers();
    if (atEnd())
        return false;
    switch (m_cursor.peek()) {
    case etVoid:
        m_cursor.skip(1);
        printVoid();
        break;
    case etTypedByReference:
        m_cursor.skip(1);
        break;
    case etByReference:
        m_cursor.skip(1);
        skipModifiers();
        if (!parseType())
            return false;
        break;
    default:
        if (!parseType())
            return false;
    }
    finishReturnType();
    return true;
}

void SignatureParser::finishReturnType()
{
    if (m_mode == ModeType) {
        m_returnRecord = m_current;
        m_mode = ModeBetween;
    } else if (m_mode == ModeFunctionPointer) {
        m_current.argumentText += m_current.suffixText;
        m_current.argumentText += L"(";
    }
}

void SignatureParser::beginParameter()
{
    if (m_mode == ModeBetween) {
        m_current.clear();
        m_mode = ModeType;
    } else if (m_mode == ModeFunctionPointer) {
        const std::wstring& text = m_current.argumentText;
        if (!text.empty() && text.back() != L'(')
            m_current.argumentText += L", ";
    }
}

void SignatureParser::printType(const wchar_t* text, unsigned int elementType)
{
    if (m_mode == ModeType) {
        m_current.typeText = text;
        m_current.elementType = elementType;
    } else if (m_mode == ModeFunctionPointer || m_mode == ModeGeneric || m_mode == ModeNestedGeneric) {
        m_current.argumentText += text;
    }
}

bool SignatureParser::parseType()
{
    if (atEnd() || m_nesting >= kMaxNesting)
        return false;
    struct Nesting {
        explicit Nesting(unsigned int& depth) : m_depth(depth) { ++m_depth; }
        ~Nesting() { --m_depth; }
        unsigned int& m_depth;
    } nesting(m_nesting);

    const unsigned char code = m_cursor.read<unsigned char>();
    if (code == 0 || code > etMethodVar)
        return false;
    if (const wchar_t* text = simpleTypeText(code)) {
        printType(text, code);
        return true;
    }

    ParameterRecord& current = m_current;
    switch (code) {
    case etPointer:
        skipModifiers();
        if (atEnd())
            return false;
        if (m_cursor.peek() == etVoid) {
            m_cursor.skip(1);
            printVoid();
        } else if (!parseType()) {
            return false;
        }
        if (m_mode == ModeType) {
            if (!current.typeText.empty())
                current.typeText += L"*";
        } else if (m_mode == ModeFunctionPointer || m_mode == ModeNestedGeneric) {
            current.argumentText += L"*";
        }
        return true;

    case etValueType:
    case etClass: {
        // In a top-level generic's arguments the class replaces the generic's name.
        const unsigned int token = readTypeToken();
        if (m_mode == ModeType || m_mode == ModeGeneric) {
            current.token = token;
            current.typeText = tokenText(token);
        } else if (m_mode == ModeFunctionPointer || m_mode == ModeNestedGeneric) {
            current.argumentText += tokenText(token);
        }
        return true;
    }

    case etVar: {
        unsigned int number = 0;
        if (!readCompressed(number))
            return false;
        const std::wstring text = L"!" + std::to_wstring(number);
        if (m_mode == ModeType)
            current.typeText += text;
        else if (m_mode == ModeGeneric || m_mode == ModeNestedGeneric)
            current.argumentText += text;
        return true;
    }

    case etArray: {
        unsigned int rank = 0;
        if (!parseType() || !readArrayShape(rank))
            return false;
        // The brackets join typeText whatever the mode.
        current.typeText += L"[";
        if (rank > 1)
            current.typeText.append(rank - 1, L',');
        current.typeText += L"]";
        return true;
    }

    case etGenericInstance:
        return parseGenericInstance();

    case etFunctionPointer:
        return parseMethodSignature();

    case etVector:
        skipModifiers();
        if (!parseType())
            return false;
        current.typeText += L"[]";
        return true;

    case etMethodVar: {
        // A method's own generic parameter prints as nothing.
        unsigned int number = 0;
        return readCompressed(number);
    }

    default:
        return false;
    }
}

bool SignatureParser::parseGenericInstance()
{
    if (atEnd())
        return false;
    const unsigned char kind = m_cursor.read<unsigned char>();
    if (kind != etClass && kind != etValueType)
        return false;
    const unsigned int token = readTypeToken();
    unsigned int count = 0;
    if (!readCompressed(count))
        return false;

    if (m_mode == ModeType) {
        m_mode = ModeGeneric;
        m_current.token = token;
        m_current.typeText = tokenText(token);
    } else if (m_mode == ModeGeneric || m_mode == ModeNestedGeneric) {
        m_mode = ModeNestedGeneric;
        m_current.argumentText += tokenText(token);
        m_current.argumentText += L"<";
        ++m_current.genericDepth;
    }
    // In a function pointer the generic's name is dropped and its arguments run together.

    for (unsigned int i = 0; i < count; ++i) {
        if (!parseType())
            return false;
        if (i + 1 < count && (m_mode == ModeGeneric || m_mode == ModeNestedGeneric))
            m_current.argumentText += L", ";
    }
    closeGeneric();
    return true;
}

void SignatureParser::closeGeneric()
{
    if (m_mode == ModeGeneric) {
        m_current.typeText += m_current.suffixText;
        m_current.typeText += L"<";
        m_current.typeText += m_current.argumentText;
        m_current.typeText += L">";
        m_mode = ModeType;
    } else if (m_mode == ModeNestedGeneric) {
        m_current.argumentText += L">";
        if (m_current.genericDepth-- == 1)
            m_mode = ModeGeneric;
    }
}

bool SignatureParser::readArrayShape(unsigned int& rank)
{
    unsigned int count = 0;
    unsigned int value = 0;
    if (!readCompressed(rank) || rank > kMaxArrayRank)
        return false;
    if (!readCompressed(count))
        return false;
    for (unsigned int i = 0; i < count; ++i)
        if (!readCompressed(value))
            return false;
    if (!readCompressed(count))
        return false;
    // Lower bounds are signed, but take as many bytes as the unsigned form says.
    for (unsigned int i = 0; i < count; ++i)
        if (!readCompressed(value))
            return false;
    return true;
}

bool SignatureParser::readCompressed(unsigned int& value)
{
    if (atEnd())
        return false;
    const unsigned int first = m_cursor.read<unsigned char>();
    unsigned int following = 0;
    if ((first & 0x80) == 0) {
        value = first;
        return true;
    }
    if ((first & 0xC0) == 0x80) {
        value = first & 0x3F;
        following = 1;
    } else if ((first & 0xE0) == 0xC0) {
        value = first & 0x1F;
        following = 3;
    } else {
        return false;
    }
    for (unsigned int i = 0; i < following; ++i) {
        if (atEnd())
            return false;
        value = (value << 8) | m_cursor.read<unsigned char>();
    }
    return true;
}

// Reads on without looking for the end: the cursor yields zeros there, and the caller's next
// test of the end stops the parse.
bool SignatureParser::decodeCompressed(unsigned int& value)
{
    const unsigned int first = m_cursor.read<unsigned char>();
    if ((first & 0x80) == 0) {
        value = first;
    } else if ((first & 0xC0) == 0x80) {
        value = ((first & 0x3F) << 8) | m_cursor.read<unsigned char>();
    } else if ((first & 0xE0) == 0xC0) {
        value = first & 0x1F;
        for (int i = 0; i < 3; ++i)
            value = (value << 8) | m_cursor.read<unsigned char>();
    } else {
        value = 0;
        return false;
    }
    return true;
}

void SignatureParser::skipCompressed()
{
    const unsigned char first = m_cursor.peek();
    if ((first & 0x80) == 0)
        m_cursor.skip(1);
    else if ((first & 0xC0) == 0x80)
        m_cursor.skip(2);
    else if ((first & 0xE0) == 0xC0)
        m_cursor.skip(4);
    else
        m_cursor.skip(kPastAnyBlob);
}

unsigned int SignatureParser::readTypeToken()
{
    static const unsigned int tables[4] = {0x02000000, 0x01000000, 0x1B000000, 0x72000000};
    unsigned int value = 0;
    if (!decodeCompressed(value)) {
        // The damaged token still prints, as a type def of row 0, and the parse ends at the
        // next test of the end.
        value = 0;
        m_cursor.skip(kPastAnyBlob);
    }
    return (value >> 2) | tables[value & 3];
}

void SignatureParser::skipModifiers()
{
    while (!atEnd() && (m_cursor.peek() == etRequiredModifier || m_cursor.peek() == etOptionalModifier)) {
        m_cursor.skip(1);
        skipCompressed();
    }
}

std::wstring SignatureParser::tokenText(unsigned int token) const
{
    if (m_typeResolver != nullptr && token != 0) {
        wchar_t buffer[512] = {};
        unsigned int size = 512;
        if (m_typeResolver->resolveTypeName(token, buffer, &size))
            return std::wstring(buffer, wcsnlen(buffer, 512));
    }
    std::wostringstream text;
    text << L"/*" << std::showbase << std::hex << token << L"*/";
    return text.str();
}

} // namespace velmark_3_11
