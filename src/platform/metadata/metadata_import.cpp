#include "platform/metadata/metadata_import.h"

#include <algorithm>

#include "platform/byte_cursor.h"
#include "platform/text.h"

namespace velmark_3_11 {
namespace {

// Columns used here.
constexpr std::uint32_t kTypeDefFlags = 0, kTypeDefName = 1, kTypeDefNamespace = 2, kTypeDefExtends = 3,
                        kTypeDefMethodList = 5;
constexpr std::uint32_t kTypeRefScope = 0, kTypeRefName = 1, kTypeRefNamespace = 2;
constexpr std::uint32_t kMethodRva = 0, kMethodImplFlags = 1, kMethodFlags = 2, kMethodName = 3,
                        kMethodSignature = 4;
constexpr std::uint32_t kAttributeParent = 0, kAttributeType = 1, kAttributeValue = 2;
constexpr std::uint32_t kMemberRefClass = 0;

/// Writes `text` with its terminator into a buffer of `capacity` characters; the length
/// given back counts the terminator.
HRESULT copyText(const std::wstring& text, LPWSTR buffer, ULONG capacity, ULONG* length)
{
    if (length)
        *length = static_cast<ULONG>(text.size() + 1);
    if (buffer == nullptr)
        return S_OK;
    if (capacity == 0)
        return CLDB_S_TRUNCATION;
    const std::size_t written = std::min<std::size_t>(text.size(), capacity - 1);
    std::copy_n(text.begin(), written, buffer);
    buffer[written] = L'\0';
    return written < text.size() ? CLDB_S_TRUNCATION : S_OK;
}

} // namespace

/// The tokens of one enumeration and the caller's place in them.
struct MetadataImport::Enumerator {
    std::vector<mdToken> tokens;
    std::size_t position = 0;
};

MetadataImport::~MetadataImport()
{
    for (Enumerator* enumerator : m_enumerators)
        delete enumerator;
}

template <class Fill>
HRESULT MetadataImport::page(HCORENUM* phEnum, mdToken out[], ULONG cMax, ULONG* pcCount, Fill fill)
{
    if (phEnum == nullptr || (out == nullptr && cMax != 0))
        return E_INVALIDARG;
    if (pcCount)
        *pcCount = 0;
    if (*phEnum == nullptr) {
        std::unique_ptr<Enumerator> fresh(new Enumerator);
        const HRESULT filled = fill(fresh->tokens);
        if (FAILED(filled))
            return filled;
        const std::lock_guard<std::mutex> lock(m_enumeratorsMutex);
        m_enumerators.insert(fresh.get());
        *phEnum = fresh.release();
    }
    Enumerator& enumerator = *static_cast<Enumerator*>(*phEnum);
    const std::size_t left = enumerator.tokens.size() - std::min(enumerator.position, enumerator.tokens.size());
    const std::size_t count = std::min<std::size_t>(left, cMax);
    std::copy_n(enumerator.tokens.begin() + static_cast<std::ptrdiff_t>(enumerator.position), count, out);
    enumerator.position += count;
    if (pcCount)
        *pcCount = static_cast<ULONG>(count);
    return count != 0 ? S_OK : S_FALSE;
}

HRESULT MetadataImport::open(std::vector<std::uint8_t> bytes, MetadataImport** import)
{
    if (import == nullptr)
        return E_POINTER;
    *import = nullptr;
    return guarded([&] {
        ComPtr<MetadataImport> scope(new MetadataImport);
        const HRESULT result = scope->initialize(std::move(bytes));
        if (FAILED(result))
            return result;
        *import = scope.detach();
        return S_OK;
    });
}

HRESULT MetadataImport::initialize(std::vector<std::uint8_t> bytes)
{
    ByteCursor signature(bytes.data(), bytes.size());
    const bool bareMetadata = signature.read<std::uint32_t>() == 0x424A5342; // "BSJB"
    HRESULT result = S_OK;
    if (bareMetadata) {
        m_bytes = std::move(bytes);
        m_tables = MetadataTables::create(m_bytes.data(), m_bytes.size(), result);
    } else {
        m_image = PeImage::create(std::move(bytes), result);
        if (!m_image)
            return result;
        m_tables = MetadataTables::create(m_image->bytes().data() + m_image->metadataOffset(),
                                          m_image->metadataSize(), result);
    }
    if (!m_tables)
        return result;

    m_methodOwners.assign(m_tables->rowCount(MetadataTables::kMethodDef), mdTokenNil);
    std::uint32_t floor = 1;
    std::vector<mdToken> methods;
    for (std::uint32_t type = 1; type <= m_tables->rowCount(MetadataTables::kTypeDef); ++type) {
        methods.clear();
        methodsOf(type, floor, methods);
        for (const mdToken method : methods)
            if (m_methodOwners[RidFromToken(method) - 1] == mdTokenNil)
                m_methodOwners[RidFromToken(method) - 1] = mdtTypeDef | type;
    }
    return S_OK;
}

void MetadataImport::methodsOf(std::uint32_t typeRow, std::uint32_t& floor, std::vector<mdToken>& methods) const
{
    const MetadataTables& t = *m_tables;
    const bool indirect = t.rowCount(MetadataTables::kMethodPtr) != 0;
    const std::uint32_t listRows = t.rowCount(indirect ? MetadataTables::kMethodPtr : MetadataTables::kMethodDef);
    const std::uint32_t typeRows = t.rowCount(MetadataTables::kTypeDef);
    const auto clamp = [&](std::uint32_t index) { return std::min(std::max(index, 1u), listRows + 1); };
    // Lists run upward; a type whose list starts below the end of its predecessor's list gets
    // only what lies above it, so that a corrupt table cannot hand out the same rows again
    // and again.
    const std::uint32_t start = std::max(clamp(t.cell(MetadataTables::kTypeDef, typeRow, kTypeDefMethodList)), floor);
    const std::uint32_t end =
        typeRow < typeRows ? clamp(t.cell(MetadataTables::kTypeDef, typeRow + 1, kTypeDefMethodList)) : listRows + 1;
    for (std::uint32_t index = start; index < end; ++index) {
        const std::uint32_t row = indirect ? t.cell(MetadataTables::kMethodPtr, index, 0) : index;
        if (row != 0 && row <= t.rowCount(MetadataTables::kMethodDef))
            methods.push_back(mdtMethodDef | row);
    }
    floor = std::max(floor, end);
}

HRESULT MetadataImport::QueryInterface(REFIID riid, void** ppvObject)
{
    return answer(riid, ppvObject, {&IID_IMetaDataImport, &IID_IMetaDataImport2});
}

HRESULT MetadataImport::checkRow(mdToken token, mdToken table, std::uint32_t& row) const
{
    if (TypeFromToken(token) != table)
        return E_INVALIDARG;
    row = RidFromToken(token);
    if (row == 0 || row > m_tables->rowCount(table >> 24))
        return CLDB_E_INDEX_NOTFOUND;
    return S_OK;
}

bool MetadataImport::typeName(mdToken type, std::string& name) const
{
    std::uint32_t row = 0;
    std::uint32_t table = 0, nameColumn = 0, namespaceColumn = 0;
    if (SUCCEEDED(checkRow(type, mdtTypeDef, row))) {
        table = MetadataTables::kTypeDef;
        nameColumn = kTypeDefName;
        namespaceColumn = kTypeDefNamespace;
    } else if (SUCCEEDED(checkRow(type, mdtTypeRef, row))) {
        table = MetadataTables::kTypeRef;
        nameColumn = kTypeRefName;
        namespaceColumn = kTypeRefNamespace;
    } else {
        return false;
    }
    std::string space, simple;
    if (!m_tables->string(m_tables->cell(table, row, namespaceColumn), space) ||
        !m_tables->string(m_tables->cell(table, row, nameColumn), simple))
        return false;
    name = space.empty() ? simple : space + "." + simple;
    return true;
}

mdToken MetadataImport::attributeType(mdToken constructor) const
{
    std::uint32_t row = 0;
    if (SUCCEEDED(checkRow(constructor, mdtMethodDef, row)))
        return m_methodOwners[row - 1];
    if (FAILED(checkRow(constructor, mdtMemberRef, row)))
        return mdTokenNil;
    const mdToken parent = MetadataTables::decode(
        MetadataTables::ciMemberRefParent, m_tables->cell(MetadataTables::kMemberRef, row, kMemberRefClass));
    const mdToken kind = TypeFromToken(parent);
    return kind == mdtTypeDef || kind == mdtTypeRef ? parent : mdTokenNil;
}

void MetadataImport::CloseEnum(HCORENUM hEnum)
{
    // Only enumerators of this scope are freed, each once.
    const std::lock_guard<std::mutex> lock(m_enumeratorsMutex);
    if (m_enumerators.erase(static_cast<Enumerator*>(hEnum)) != 0)
        delete static_cast<Enumerator*>(hEnum);
}

HRESULT MetadataImport::CountEnum(HCORENUM hEnum, ULONG* pulCount)
{
    if (pulCount == nullptr)
        return E_INVALIDARG;
    *pulCount = hEnum ? static_cast<ULONG>(static_cast<Enumerator*>(hEnum)->tokens.size()) : 0;
    return S_OK;
}

HRESULT MetadataImport::ResetEnum(HCORENUM hEnum, ULONG ulPos)
{
    if (hEnum)
        static_cast<Enumerator*>(hEnum)->position = ulPos;
    return S_OK;
}

HRESULT MetadataImport::EnumTypeDefs(HCORENUM* phEnum, mdTypeDef rTypeDefs[], ULONG cMax, ULONG* pcTypeDefs)
{
    return guarded([&] {
        return page(phEnum, rTypeDefs, cMax, pcTypeDefs, [&](std::vector<mdToken>& tokens) {
            // Row 1 is the module's pseudo type of the global functions; it is not listed.
            for (std::uint32_t row = 2; row <= m_tables->rowCount(MetadataTables::kTypeDef); ++row)
                tokens.push_back(mdtTypeDef | row);
            return S_OK;
        });
    });
}

HRESULT MetadataImport::EnumMethods(HCORENUM* phEnum, mdTypeDef cl, mdMethodDef rMethods[], ULONG cMax,
                                    ULONG* pcTokens)
{
    return guarded([&] {
        return page(phEnum, rMethods, cMax, pcTokens, [&](std::vector<mdToken>& tokens) {
            std::uint32_t row = 0;
            const HRESULT valid = checkRow(cl == mdTokenNil ? (mdtTypeDef | 1) : cl, mdtTypeDef, row);
            if (FAILED(valid))
                return cl == mdTokenNil ? S_OK : valid; // no types at all: no global functions
            std::uint32_t floor = 1;
            methodsOf(row, floor, tokens);
            return S_OK;
        });
    });
}

HRESULT MetadataImport::GetTypeDefProps(mdTypeDef td, LPWSTR szTypeDef, ULONG cchTypeDef, ULONG* pchTypeDef,
                                        DWORD* pdwTypeDefFlags, mdToken* ptkExtends)
{
    return guarded([&] {
        std::uint32_t row = 0;
        const HRESULT valid = checkRow(td, mdtTypeDef, row);
        if (FAILED(valid))
            return valid;
        std::string name;
        if (!typeName(td, name))
            return CLDB_E_FILE_CORRUPT;
        if (pdwTypeDefFlags)
            *pdwTypeDefFlags = m_tables->cell(MetadataTables::kTypeDef, row, kTypeDefFlags);
        if (ptkExtends)
            *ptkExtends = MetadataTables::decode(MetadataTables::ciTypeDefOrRef,
                                                 m_tables->cell(MetadataTables::kTypeDef, row, kTypeDefExtends));
        return copyText(toWide(name), szTypeDef, cchTypeDef, pchTypeDef);
    });
}

HRESULT MetadataImport::GetTypeRefProps(mdTypeRef tr, mdToken* ptkResolutionScope, LPWSTR szName, ULONG cchName,
                                        ULONG* pchName)
{
    return guarded([&] {
        std::uint32_t row = 0;
        const HRESULT valid = checkRow(tr, mdtTypeRef, row);
        if (FAILED(valid))
            return valid;
        std::string name;
        if (!typeName(tr, name))
            return CLDB_E_FILE_CORRUPT;
        if (ptkResolutionScope)
            *ptkResolutionScope = MetadataTables::decode(MetadataTables::ciResolutionScope,
                                                         m_tables->cell(MetadataTables::kTypeRef, row, kTypeRefScope));
        return copyText(toWide(name), szName, cchName, pchName);
    });
}

HRESULT MetadataImport::GetMethodProps(mdMethodDef mb, mdTypeDef* pClass, LPWSTR szMethod, ULONG cchMethod,
                                       ULONG* pchMethod, DWORD* pdwAttr, PCCOR_SIGNATURE* ppvSigBlob,
                                       ULONG* pcbSigBlob, ULONG* pulCodeRVA, DWORD* pdwImplFlags)
{
    return guarded([&] {
        std::uint32_t row = 0;
        const HRESULT valid = checkRow(mb, mdtMethodDef, row);
        if (FAILED(valid))
            return valid;
        const MetadataTables& t = *m_tables;
        std::string name;
        const std::uint8_t* signature = nullptr;
        std::uint32_t signatureSize = 0;
        if (!t.string(t.cell(MetadataTables::kMethodDef, row, kMethodName), name) ||
            !t.blob(t.cell(MetadataTables::kMethodDef, row, kMethodSignature), signature, signatureSize))
            return CLDB_E_FILE_CORRUPT;
        if (pClass)
            *pClass = m_methodOwners[row - 1];
        if (pdwAttr)
            *pdwAttr = t.cell(MetadataTables::kMethodDef, row, kMethodFlags);
        if (ppvSigBlob)
            *ppvSigBlob = signature;
        if (pcbSigBlob)
            *pcbSigBlob = signatureSize;
        if (pulCodeRVA)
            *pulCodeRVA = t.cell(MetadataTables::kMethodDef, row, kMethodRva);
        if (pdwImplFlags)
            *pdwImplFlags = t.cell(MetadataTables::kMethodDef, row, kMethodImplFlags);
        return copyText(toWide(name), szMethod, cchMethod, pchMethod);
    });
}

HRESULT MetadataImport::EnumCustomAttributes(HCORENUM* phEnum, mdToken tk, mdToken tkType,
                                             mdCustomAttribute rCustomAttributes[], ULONG cMax,
                                             ULONG* pcCustomAttributes)
{
    return guarded([&] {
        return page(phEnum, rCustomAttributes, cMax, pcCustomAttributes, [&](std::vector<mdToken>& tokens) {
            const MetadataTables& t = *m_tables;
            for (std::uint32_t row = 1; row <= t.rowCount(MetadataTables::kCustomAttribute); ++row) {
                if (tk != mdTokenNil &&
                    MetadataTables::decode(MetadataTables::ciHasCustomAttribute,
                                           t.cell(MetadataTables::kCustomAttribute, row, kAttributeParent)) != tk)
                    continue;
                if (tkType != mdTokenNil) {
                    const mdToken constructor = MetadataTables::decode(
                        MetadataTables::ciCustomAttributeType, t.cell(MetadataTables::kCustomAttribute, row, kAttributeType));
                    if (constructor != tkType && attributeType(constructor) != tkType)
                        continue;
                }
                tokens.push_back(mdtCustomAttribute | row);
            }
            return S_OK;
        });
    });
}

HRESULT MetadataImport::GetCustomAttributeProps(mdCustomAttribute cv, mdToken* ptkObj, mdToken* ptkType,
                                                const void** ppBlob, ULONG* pcbSize)
{
    return guarded([&] {
        std::uint32_t row = 0;
        const HRESULT valid = checkRow(cv, mdtCustomAttribute, row);
        if (FAILED(valid))
            return valid;
        const MetadataTables& t = *m_tables;
        const std::uint8_t* value = nullptr;
        std::uint32_t size = 0;
        if (!t.blob(t.cell(MetadataTables::kCustomAttribute, row, kAttributeValue), value, size))
            return CLDB_E_FILE_CORRUPT;
        if (ptkObj)
            *ptkObj = MetadataTables::decode(MetadataTables::ciHasCustomAttribute,
                                             t.cell(MetadataTables::kCustomAttribute, row, kAttributeParent));
        if (ptkType)
            *ptkType = MetadataTables::decode(MetadataTables::ciCustomAttributeType,
                                              t.cell(MetadataTables::kCustomAttribute, row, kAttributeType));
        if (ppBlob)
            *ppBlob = value;
        if (pcbSize)
            *pcbSize = size;
        return S_OK;
    });
}

HRESULT MetadataImport::GetCustomAttributeByName(mdToken tkObj, LPCWSTR szName, const void** ppData, ULONG* pcbData)
{
    if (ppData)
        *ppData = nullptr;
    if (pcbData)
        *pcbData = 0;
    if (szName == nullptr)
        return E_INVALIDARG;
    return guarded([&] {
        const std::string wanted = toUtf8(szName);
        const MetadataTables& t = *m_tables;
        for (std::uint32_t row = 1; row <= t.rowCount(MetadataTables::kCustomAttribute); ++row) {
            if (MetadataTables::decode(MetadataTables::ciHasCustomAttribute,
                                       t.cell(MetadataTables::kCustomAttribute, row, kAttributeParent)) != tkObj)
                continue;
            const mdToken type = attributeType(MetadataTables::decode(
                MetadataTables::ciCustomAttributeType, t.cell(MetadataTables::kCustomAttribute, row, kAttributeType)));
            std::string name;
            if (!typeName(type, name) || name != wanted)
                continue;
            const std::uint8_t* value = nullptr;
            std::uint32_t size = 0;
            if (!t.blob(t.cell(MetadataTables::kCustomAttribute, row, kAttributeValue), value, size))
                return CLDB_E_FILE_CORRUPT;
            if (ppData)
                *ppData = value;
            if (pcbData)
                *pcbData = size;
            return S_OK;
        }
        return S_FALSE;
    });
}

} // namespace velmark_3_11
