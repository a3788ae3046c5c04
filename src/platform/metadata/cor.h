// The COM-like base of the metadata and symbol stand-ins: result codes, GUIDs, tokens,
// IUnknown and the metadata dispenser and import interfaces, under their published names.
// Only the operations this library calls are declared.
#pragma once

#include <cstdint>
#include <cstring>

typedef std::int32_t HRESULT;
typedef std::uint32_t ULONG;
typedef std::uint32_t ULONG32;
typedef std::uint32_t DWORD;
typedef std::uint64_t DWORDLONG;
typedef std::uint8_t BYTE;
typedef int BOOL;
typedef wchar_t WCHAR;
typedef wchar_t* LPWSTR;
typedef const wchar_t* LPCWSTR;
typedef const char* LPCSTR;
typedef void* LPVOID;

#define SUCCEEDED(hr) (static_cast<HRESULT>(hr) >= 0)
#define FAILED(hr) (static_cast<HRESULT>(hr) < 0)

constexpr HRESULT S_OK = 0;
constexpr HRESULT S_FALSE = 1;
/// A name or text did not fit the caller's buffer and was cut.
constexpr HRESULT CLDB_S_TRUNCATION = 0x00131106;
constexpr HRESULT E_NOTIMPL = static_cast<HRESULT>(0x80004001);
constexpr HRESULT E_NOINTERFACE = static_cast<HRESULT>(0x80004002);
constexpr HRESULT E_POINTER = static_cast<HRESULT>(0x80004003);
constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005);
constexpr HRESULT E_OUTOFMEMORY = static_cast<HRESULT>(0x8007000E);
constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80070057);
constexpr HRESULT CLASS_E_NOAGGREGATION = static_cast<HRESULT>(0x80040110);
constexpr HRESULT REGDB_E_CLASSNOTREG = static_cast<HRESULT>(0x80040154);
/// HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND).
constexpr HRESULT HRESULT_FILE_NOT_FOUND = static_cast<HRESULT>(0x80070002);
/// Not a managed image (no PE headers, no CLI header, no metadata root).
constexpr HRESULT COR_E_BADIMAGEFORMAT = static_cast<HRESULT>(0x8007000B);
/// A managed image or debug file whose structures contradict each other or its size.
constexpr HRESULT CLDB_E_FILE_CORRUPT = static_cast<HRESULT>(0x8013110E);
/// A token whose row lies outside its table.
constexpr HRESULT CLDB_E_INDEX_NOTFOUND = static_cast<HRESULT>(0x80131124);
constexpr HRESULT CLDB_E_RECORD_NOTFOUND = static_cast<HRESULT>(0x80131130);

struct GUID {
    std::uint32_t Data1;
    std::uint16_t Data2;
    std::uint16_t Data3;
    std::uint8_t Data4[8];
};
typedef GUID IID;
typedef GUID CLSID;
typedef const GUID& REFGUID;
typedef const GUID& REFIID;
typedef const GUID& REFCLSID;

inline bool operator==(const GUID& a, const GUID& b)
{
    return a.Data1 == b.Data1 && a.Data2 == b.Data2 && a.Data3 == b.Data3 &&
           std::memcmp(a.Data4, b.Data4, sizeof a.Data4) == 0;
}
inline bool operator!=(const GUID& a, const GUID& b)
{
    return !(a == b);
}

typedef std::uint32_t mdToken;
typedef mdToken mdModule;
typedef mdToken mdTypeRef;
typedef mdToken mdTypeDef;
typedef mdToken mdMethodDef;
typedef mdToken mdMemberRef;
typedef mdToken mdCustomAttribute;
typedef std::uint8_t COR_SIGNATURE;
typedef const COR_SIGNATURE* PCCOR_SIGNATURE;
/// An enumerator of the import interfaces; null before the first call opens it.
typedef void* HCORENUM;

constexpr mdToken mdTokenNil = 0;
constexpr mdToken mdtModule = 0x00000000;
constexpr mdToken mdtTypeRef = 0x01000000;
constexpr mdToken mdtTypeDef = 0x02000000;
constexpr mdToken mdtMethodDef = 0x06000000;
constexpr mdToken mdtMemberRef = 0x0a000000;
constexpr mdToken mdtCustomAttribute = 0x0c000000;
constexpr mdToken mdtTypeSpec = 0x1b000000;
inline mdToken TypeFromToken(mdToken token)
{
    return token & 0xff000000u;
}
inline ULONG RidFromToken(mdToken token)
{
    return token & 0x00ffffffu;
}

constexpr DWORD CLSCTX_INPROC_SERVER = 1;
constexpr DWORD ofRead = 0;

constexpr IID IID_IUnknown = {0x00000000, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
constexpr CLSID CLSID_CorMetaDataDispenser = {0xE5CB7A31, 0x7512, 0x11D2, {0x89, 0xCE, 0x00, 0x80, 0xC7, 0x92, 0xE5, 0xD8}};
constexpr IID IID_IMetaDataDispenser = {0x809C652E, 0x7396, 0x11D2, {0x97, 0x71, 0x00, 0xA0, 0xC9, 0xB4, 0xD5, 0x0C}};
constexpr IID IID_IMetaDataDispenserEx = {0x31BCFCE2, 0xDAFB, 0x11D2, {0x9F, 0x81, 0x00, 0xC0, 0x4F, 0x79, 0xA0, 0xA3}};
constexpr IID IID_IMetaDataImport = {0x7DAC8207, 0xD3AE, 0x4C75, {0x9B, 0x67, 0x92, 0x80, 0x1A, 0x49, 0x7D, 0x44}};
constexpr IID IID_IMetaDataImport2 = {0xFCE5EFA0, 0x8BBA, 0x4F8E, {0xA0, 0x36, 0x8F, 0x20, 0x22, 0xB0, 0x84, 0x66}};

struct IUnknown {
    virtual HRESULT QueryInterface(REFIID riid, void** ppvObject) = 0;
    virtual ULONG AddRef() = 0;
    virtual ULONG Release() = 0;

protected:
    ~IUnknown() = default;
};

struct IMetaDataDispenser : IUnknown {
    /// Opens the managed image at `szScope` read-only and answers the interface `riid` of it.
    virtual HRESULT OpenScope(LPCWSTR szScope, DWORD dwOpenFlags, REFIID riid, IUnknown** ppIUnk) = 0;
    /// As OpenScope, over an image in memory; the bytes are copied.
    virtual HRESULT OpenScopeOnMemory(const void* pData, ULONG cbData, DWORD dwOpenFlags, REFIID riid,
                                      IUnknown** ppIUnk) = 0;

protected:
    ~IMetaDataDispenser() = default;
};

struct IMetaDataDispenserEx : IMetaDataDispenser {
protected:
    ~IMetaDataDispenserEx() = default;
};

struct IMetaDataImport : IUnknown {
    /// Frees an enumerator; null is allowed.
    virtual void CloseEnum(HCORENUM hEnum) = 0;
    /// The number of all items of an enumerator (0 for a null one).
    virtual HRESULT CountEnum(HCORENUM hEnum, ULONG* pulCount) = 0;
    /// Moves an enumerator to position `ulPos`.
    virtual HRESULT ResetEnum(HCORENUM hEnum, ULONG ulPos) = 0;
    /// The type defs of the scope, the module's own pseudo type excepted. S_FALSE when the
    /// page is empty.
    virtual HRESULT EnumTypeDefs(HCORENUM* phEnum, mdTypeDef rTypeDefs[], ULONG cMax, ULONG* pcTypeDefs) = 0;
    /// The method defs of type `cl`; 0 stands for the global functions.
    virtual HRESULT EnumMethods(HCORENUM* phEnum, mdTypeDef cl, mdMethodDef rMethods[], ULONG cMax,
                                ULONG* pcTokens) = 0;
    /// Name (namespace and name), flags and base type of a type def. Lengths include the
    /// terminator; CLDB_S_TRUNCATION when the name was cut to the buffer.
    virtual HRESULT GetTypeDefProps(mdTypeDef td, LPWSTR szTypeDef, ULONG cchTypeDef, ULONG* pchTypeDef,
                                    DWORD* pdwTypeDefFlags, mdToken* ptkExtends) = 0;
    /// Resolution scope and name (namespace and name) of a type ref.
    virtual HRESULT GetTypeRefProps(mdTypeRef tr, mdToken* ptkResolutionScope, LPWSTR szName, ULONG cchName,
                                    ULONG* pchName) = 0;
    /// Owner, name, flags, signature blob (valid while the scope is open), code rva and
    /// implementation flags of a method def. Every out argument may be null.
    virtual HRESULT GetMethodProps(mdMethodDef mb, mdTypeDef* pClass, LPWSTR szMethod, ULONG cchMethod,
                                   ULONG* pchMethod, DWORD* pdwAttr, PCCOR_SIGNATURE* ppvSigBlob, ULONG* pcbSigBlob,
                                   ULONG* pulCodeRVA, DWORD* pdwImplFlags) = 0;
    /// Custom attributes owned by `tk` (0: all of the scope) of constructor or type
    /// `tkType` (0: any), in table order.
    virtual HRESULT EnumCustomAttributes(HCORENUM* phEnum, mdToken tk, mdToken tkType,
                                         mdCustomAttribute rCustomAttributes[], ULONG cMax,
                                         ULONG* pcCustomAttributes) = 0;
    /// Owner, constructor and value blob of a custom attribute.
    virtual HRESULT GetCustomAttributeProps(mdCustomAttribute cv, mdToken* ptkObj, mdToken* ptkType,
                                            const void** ppBlob, ULONG* pcbSize) = 0;
    /// The value blob of the first attribute of `tkObj` whose type has the full name
    /// `szName`; S_FALSE with a null blob when there is none.
    virtual HRESULT GetCustomAttributeByName(mdToken tkObj, LPCWSTR szName, const void** ppData,
                                             ULONG* pcbData) = 0;

protected:
    ~IMetaDataImport() = default;
};

struct IMetaDataImport2 : IMetaDataImport {
protected:
    ~IMetaDataImport2() = default;
};
