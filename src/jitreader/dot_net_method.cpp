#include "jitreader/dot_net_method.h"

#include <cwchar>
#include <memory>
#include <vector>

#include "jitreader/signature_parser.h"
#include "platform/text.h"

namespace velmark_3_11 {
namespace {

constexpr ULONG kNameCapacity = 512;
constexpr ULONG32 kHiddenLineMarker = 0xFEEFED;

constexpr GUID kLanguages[] = {
    {0x63A08714, 0xFC37, 0x11D2, {0x90, 0x4C, 0x00, 0xC0, 0x4F, 0xA3, 0x02, 0xA1}}, // C
    {0x3A12D0B7, 0xC26C, 0x11D0, {0xB4, 0x42, 0x00, 0xA0, 0x24, 0x4A, 0x1D, 0xD2}}, // C++
    {0x3F5162F8, 0x07C6, 0x11D3, {0x90, 0x53, 0x00, 0xC0, 0x4F, 0xA3, 0x02, 0xA1}}, // C#
    {0x3A12D0B8, 0xC26C, 0x11D0, {0xB4, 0x42, 0x00, 0xA0, 0x24, 0x4A, 0x1D, 0xD2}}, // Basic
    {0x3A12D0B4, 0xC26C, 0x11D0, {0xB4, 0x42, 0x00, 0xA0, 0x24, 0x4A, 0x1D, 0xD2}}, // Java
    {0xAF046CD1, 0xD0E1, 0x11D2, {0x97, 0x7C, 0x00, 0xA0, 0xC9, 0xB4, 0xD5, 0x0C}}, // Cobol
    {0xAF046CD2, 0xD0E1, 0x11D2, {0x97, 0x7C, 0x00, 0xA0, 0xC9, 0xB4, 0xD5, 0x0C}}, // Pascal
    {0xAF046CD3, 0xD0E1, 0x11D2, {0x97, 0x7C, 0x00, 0xA0, 0xC9, 0xB4, 0xD5, 0x0C}}, // IL assembly
    {0x3A12D0B6, 0xC26C, 0x11D0, {0xB4, 0x42, 0x00, 0xA0, 0x24, 0x4A, 0x1D, 0xD2}}, // JScript
    {0x0D9B9F7B, 0x6611, 0x11D3, {0xBD, 0x2A, 0x00, 0x00, 0xF8, 0x08, 0x49, 0xBD}}, // SMC
    {0x4B35FDE8, 0x07C6, 0x11D3, {0x90, 0x53, 0x00, 0xC0, 0x4F, 0xA3, 0x02, 0xA1}}, // managed C++
};
constexpr GUID kChecksumMd5 = {0x406EA660, 0x64CF, 0x4C82, {0xB6, 0xF0, 0x42, 0xD4, 0x81, 0x72, 0xA7, 0x99}};
constexpr GUID kChecksumSha1 = {0xFF1816EC, 0xAA5E, 0x4D10, {0x87, 0xF7, 0x6F, 0x49, 0x63, 0x83, 0x34, 0x60}};

bool isZero(const GUID& guid)
{
    return guid == GUID{0, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0}};
}

unsigned int languageCode(const GUID& guid)
{
    for (unsigned int i = 0; i < sizeof kLanguages / sizeof kLanguages[0]; ++i)
        if (guid == kLanguages[i])
            return i + 1;
    return 0;
}

unsigned int checksumTypeCode(const GUID& guid)
{
    return guid == kChecksumMd5 ? 1 : guid == kChecksumSha1 ? 2 : 0;
}

/// The text of a buffer that the platform filled, up to its terminator or its end.
std::wstring textOf(const wchar_t* buffer, std::size_t capacity)
{
    return std::wstring(buffer, wcsnlen(buffer, capacity));
}

/// Releases every document of a sequence point array.
struct DocumentArray {
    explicit DocumentArray(std::size_t count) : documents(count, nullptr) {}
    ~DocumentArray()
    {
        for (ISymUnmanagedDocument* document : documents)
            if (document != nullptr)
                document->Release();
    }
    std::vector<ISymUnmanagedDocument*> documents;
};

} // namespace

DotNetMethod::DotNetMethod(unsigned int token) : m_token(token) {}

DotNetMethod::~DotNetMethod() = default;

void DotNetMethod::setCoreReader(boost::shared_ptr<CoreCLRSymbolReader> reader, boost::shared_ptr<std::mutex> fileLock)
{
    m_coreReader = std::move(reader);
    m_coreFileLock = std::move(fileLock);
}

void DotNetMethod::setSymbols(ISymUnmanagedMethod* method, IMetaDataImport2* import)
{
    if (method != nullptr)
        method->AddRef();
    m_symbolMethod = ComPtr<ISymUnmanagedMethod>(method);
    if (import != nullptr)
        import->AddRef();
    m_metadataImport = ComPtr<IMetaDataImport2>(import);
}

std::wstring DotNetMethod::getRawName(unsigned int token)
{
    if (!m_metadataImport || token == 0)
        return std::wstring();
    ULONG length = 0;
    if (m_metadataImport->GetMethodProps(token, nullptr, nullptr, 0, &length, nullptr, nullptr, nullptr, nullptr,
                                         nullptr) != S_OK ||
        length == 0)
        return std::wstring();
    std::vector<wchar_t> buffer(length + 1, L'\0');
    ULONG written = 0;
    if (m_metadataImport->GetMethodProps(token, nullptr, buffer.data(), length, &written, nullptr, nullptr, nullptr,
                                         nullptr, nullptr) != S_OK)
        return std::wstring();
    return textOf(buffer.data(), length);
}

std::wstring DotNetMethod::getMethodName()
{
    const std::wstring raw = getRawName(m_token);
    if (!raw.empty() && raw[0] == L'?') {
        const std::size_t at = raw.find(L'@');
        if (at != std::wstring::npos && at >= 2)
            return raw.substr(1, at - 1);
    }
    // An explicit interface implementation is stored as Ns.IFoo.Bar; constructors begin with
    // their only dot and stay whole.
    const std::size_t dot = raw.rfind(L'.');
    if (dot != std::wstring::npos && dot != 0)
        return raw.substr(dot + 1);
    return raw;
}

std::wstring DotNetMethod::getTokenName(unsigned int token)
{
    if (!m_metadataImport)
        return std::wstring();
    wchar_t buffer[kNameCapacity + 1] = {};
    ULONG length = 0;
    // Tokens of the TypeSpec table go to GetTypeRefProps too, which can't name them.
    const HRESULT result =
        TypeFromToken(token) == mdtTypeDef
            ? m_metadataImport->GetTypeDefProps(token, buffer, kNameCapacity, &length, nullptr, nullptr)
            : m_metadataImport->GetTypeRefProps(token, nullptr, buffer, kNameCapacity, &length);
    return result == S_OK ? textOf(buffer, kNameCapacity) : std::wstring();
}

std::wstring DotNetMethod::getTypeNameOfToken(unsigned int token)
{
    std::wstring name = getTokenName(token);
    if (!name.empty())
        return name;
    // Whatever the token was, the class part of this method's own stored name stands in.
    const std::wstring raw = getRawName(m_token);
    const std::size_t dot = raw.rfind(L'.');
    if (dot != std::wstring::npos && dot != 0)
        return raw.substr(0, dot);
    return std::wstring();
}

std::wstring DotNetMethod::getClassName()
{
    if (!m_metadataImport || m_token == 0 || TypeFromToken(m_token) != mdtMethodDef)
        return std::wstring();
    mdTypeDef owner = 0;
    if (m_metadataImport->GetMethodProps(m_token, &owner, nullptr, 0, nullptr, nullptr, nullptr, nullptr, nullptr,
                                         nullptr) != S_OK)
        return std::wstring();
    return getTypeNameOfToken(owner);
}

std::wstring DotNetMethod::getSignature()
{
    if (!m_metadataImport || m_token == 0)
        return std::wstring();
    std::wstring text = L"(";
    PCCOR_SIGNATURE blob = nullptr;
    ULONG size = 0;
    if (m_metadataImport->GetMethodProps(m_token, nullptr, nullptr, 0, nullptr, nullptr, &blob, &size, nullptr,
                                         nullptr) != S_OK ||
        size == 0 || blob == nullptr)
        return L"()";
    DotNetTypeResolver resolver(this);
    const boost::shared_ptr<ISignatureParser> parser = ISignatureParser::create(&resolver);
    unsigned int count = 0;
    if (parser && parser->parse(blob, size) == meSuccess && parser->getStatus() == 0 &&
        parser->getParameters(nullptr, &count) == meSuccess && count > 0) {
        std::vector<boost::shared_ptr<IParameter>> parameters(count);
        parser->getParameters(parameters.data(), &count);
        for (std::size_t i = 0; i < parameters.size(); ++i) {
            const wchar_t* name = parameters[i] ? parameters[i]->getTypeName() : nullptr;
            if (name != nullptr)
                text += name;
            if (i + 1 < parameters.size())
                text += L", ";
        }
    }
    text += L")";
    return text;
}

velmark_error_t DotNetMethod::getCoreSourceFile(SourceFile& file)
{
    std::string name;
    {
        // The reader reads document names through the one file position of its module.
        std::unique_lock<std::mutex> lock;
        if (m_coreFileLock)
            lock = std::unique_lock<std::mutex>(*m_coreFileLock);
        m_coreReader->getDocumentName(static_cast<int>(RidFromToken(m_token)), name);
    }
    file = SourceFile(toWide(name), std::wstring(), 0, 0);
    return meSuccess;
}

velmark_error_t DotNetMethod::getSequencePointCount(ULONG32& count)
{
    count = 0;
    if (!m_symbolMethod)
        return meFail;
    if (FAILED(m_symbolMethod->GetSequencePointCount(&count)) || count == 0)
        return meFail;
    return meSuccess;
}

velmark_error_t DotNetMethod::getSourceFile(SourceFile& file)
{
    if (m_coreReader)
        return getCoreSourceFile(file);
    ULONG32 count = 0;
    if (getSequencePointCount(count) != meSuccess)
        return meFail;
    DocumentArray array(count);
    ULONG32 written = 0;
    if (FAILED(m_symbolMethod->GetSequencePoints(count, &written, nullptr, array.documents.data(), nullptr, nullptr,
                                                 nullptr, nullptr)))
        return meFail;
    std::wstring name;
    std::wstring checksum;
    unsigned int checksumType = 0;
    unsigned int language = 0;
    // Every point of the method is taken to lie in the first document.
    if (ISymUnmanagedDocument* document = array.documents[0]) {
        wchar_t url[kNameCapacity + 1] = {};
        ULONG32 length = 0;
        if (SUCCEEDED(document->GetURL(kNameCapacity, &length, url)) && length >= 1 && length <= kNameCapacity - 1)
            name = textOf(url, length);
        GUID guid{};
        if (SUCCEEDED(document->GetLanguage(&guid)) && !isZero(guid))
            language = languageCode(guid);
        guid = GUID{};
        ULONG32 size = 0;
        if (SUCCEEDED(document->GetCheckSumAlgorithmId(&guid)) && !isZero(guid) &&
            SUCCEEDED(document->GetCheckSum(0, &size, nullptr)) && size > 0) {
            std::vector<BYTE> bytes(size);
            ULONG32 got = 0;
            if (SUCCEEDED(document->GetCheckSum(size, &got, bytes.data()))) {
                static const wchar_t digits[] = L"0123456789abcdef";
                for (ULONG32 i = 0; i < got && i < size; ++i) {
                    checksum += digits[bytes[i] >> 4];
                    checksum += digits[bytes[i] & 0xF];
                }
                checksumType = checksumTypeCode(guid);
            }
        }
    }
    file = SourceFile(std::move(name), std::move(checksum), checksumType, language);
    return meSuccess;
}

velmark_error_t DotNetMethod::getLineTable(LineRow* rows, unsigned int* count)
{
    ULONG32 pointCount = 0;
    if (count == nullptr || getSequencePointCount(pointCount) != meSuccess)
        return meFail;
    if (rows == nullptr) {
        *count = pointCount;
        return meSuccess;
    }
    if (*count < pointCount)
        return meBufferTooSmall;
    std::vector<ULONG32> offsets(pointCount, 0);
    std::vector<ULONG32> lines(pointCount, 0);
    ULONG32 written = 0;
    if (FAILED(m_symbolMethod->GetSequencePoints(pointCount, &written, offsets.data(), nullptr, lines.data(), nullptr,
                                                 nullptr, nullptr)))
        return meFail;
    const ULONG32 points = written < pointCount ? written : pointCount;
    unsigned int rowCount = 0;
    for (ULONG32 i = 0; i < points; ++i) {
        if (lines[i] == kHiddenLineMarker || lines[i] == kHiddenLine)
            continue;
        if (rowCount > 0)
            rows[rowCount - 1].endOffset = offsets[i];
        rows[rowCount++] = LineRow{offsets[i], offsets[i], lines[i]};
    }
    if (rowCount == 0)
        return meFail;
    // The last row runs to the method's last point, hidden or not.
    rows[rowCount - 1].endOffset = offsets[points - 1];
    *count = rowCount;
    return meSuccess;
}

unsigned int DotNetMethod::getLineForOffset(unsigned int ilOffset)
{
    if (!m_coreReader)
        return 0;
    unsigned int line = 0;
    m_coreReader->getLineNumber(static_cast<int>(RidFromToken(m_token)), ilOffset, &line);
    return line;
}

bool DotNetTypeResolver::resolveTypeName(unsigned int token, wchar_t* buffer, unsigned int* size)
{
    if (token == 0 || m_method == nullptr || size == nullptr)
        return false;
    const std::wstring name = m_method->getTypeNameOfToken(token);
    if (name.empty())
        return false;
    const std::size_t needed = name.size() + 1;
    if (buffer != nullptr) {
        if (*size < needed)
            return false;
        std::wmemcpy(buffer, name.c_str(), needed);
    }
    *size = static_cast<unsigned int>(needed);
    return true;
}

std::wostream& operator<<(std::wostream& stream, DotNetMethod& method)
{
    const std::ios_base::fmtflags flags = stream.flags();
    stream << L"Method (" << std::hex << method.getToken() << L")" << std::endl;
    stream << L"-------------------------------------------------------" << std::endl << std::flush;
    stream << L"     MethodName:      " << method.getMethodName() << std::endl;
    stream << L"     TypeDefName:     " << method.getClassName() << std::endl;
    stream << L"     MethodSignature: " << method.getSignature() << std::endl << std::endl;
    stream.flags(flags);
    return stream;
}

} // namespace velmark_3_11
