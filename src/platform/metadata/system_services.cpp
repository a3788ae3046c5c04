#include "platform/metadata/system_services.h"

#include <cwctype>
#include <string>

#include "platform/metadata/corsym.h"
#include "platform/metadata/metadata_dispenser.h"
#include "platform/metadata/sym_binder.h"

using velmark_3_11::ComPtr;

namespace {

// The module handle of the stand-ins: any address that no real module has.
const char kMetadataModule = 0;

constexpr DWORD kReportedMajor = 6;
constexpr DWORD kReportedMinor = 2;

template <class Object>
HRESULT handOut(Object* created, REFIID riid, LPVOID* ppv)
{
    const ComPtr<Object> object(created);
    return object->QueryInterface(riid, ppv);
}

} // namespace

HRESULT CoInitialize(LPVOID)
{
    return S_OK;
}

void CoUninitialize()
{
}

HRESULT CoCreateInstance(REFCLSID rclsid, IUnknown* pUnkOuter, DWORD, REFIID riid, LPVOID* ppv)
{
    if (ppv == nullptr)
        return E_POINTER;
    *ppv = nullptr;
    if (pUnkOuter != nullptr)
        return CLASS_E_NOAGGREGATION;
    return velmark_3_11::guarded([&] {
        if (rclsid == CLSID_CorMetaDataDispenser)
            return handOut(velmark_3_11::MetadataDispenser::create(), riid, ppv);
        if (rclsid == CLSID_CorSymBinder_SxS || rclsid == CLSID_CorSymBinder_deprecated)
            return handOut(velmark_3_11::SymBinder::create(), riid, ppv);
        return REGDB_E_CLASSNOTREG;
    });
}

DWORDLONG VerSetConditionMask(DWORDLONG conditionMask, DWORD typeMask, BYTE condition)
{
    // Three bits of condition per version field, in the order of the field bits.
    for (unsigned field = 0; field < 8; ++field)
        if (typeMask & (1u << field))
            conditionMask |= static_cast<DWORDLONG>(condition & 7) << (field * 3);
    return conditionMask;
}

BOOL VerifyVersionInfoA(OSVERSIONINFOEXA* lpVersionInformation, DWORD dwTypeMask, DWORDLONG dwlConditionMask)
{
    if (lpVersionInformation == nullptr)
        return 0;
    const bool major = dwTypeMask & VER_MAJORVERSION;
    const bool minor = dwTypeMask & VER_MINORVERSION;
    if (!major && !minor)
        return 1;
    // Major and minor compare as one number, under the major's condition when both are asked.
    const unsigned condition = static_cast<unsigned>((dwlConditionMask >> (major ? 3 : 0)) & 7);
    const long long reported = (major ? kReportedMajor * 1000LL : 0) + (minor ? kReportedMinor : 0);
    const long long wanted = (major ? lpVersionInformation->dwMajorVersion * 1000LL : 0) +
                             (minor ? lpVersionInformation->dwMinorVersion : 0);
    switch (condition) {
    case VER_EQUAL:
        return reported == wanted;
    case VER_GREATER:
        return reported > wanted;
    case VER_GREATER_EQUAL:
        return reported >= wanted;
    case VER_LESS:
        return reported < wanted;
    case VER_LESS_EQUAL:
        return reported <= wanted;
    default:
        return 0;
    }
}

HMODULE LoadLibraryW(LPCWSTR lpLibFileName)
{
    if (lpLibFileName == nullptr)
        return nullptr;
    std::wstring name(lpLibFileName);
    for (wchar_t& c : name)
        c = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(c)));
    return name == L"rometadata.dll" ? const_cast<char*>(&kMetadataModule) : nullptr;
}

FARPROC GetProcAddress(HMODULE hModule, LPCSTR lpProcName)
{
    if (hModule != &kMetadataModule || lpProcName == nullptr || std::string(lpProcName) != "MetaDataGetDispenser")
        return nullptr;
    return reinterpret_cast<FARPROC>(&MetaDataGetDispenser);
}

BOOL FreeLibrary(HMODULE)
{
    return 1;
}

HRESULT MetaDataGetDispenser(REFCLSID rclsid, REFIID riid, LPVOID* ppv)
{
    if (ppv == nullptr)
        return E_POINTER;
    *ppv = nullptr;
    if (rclsid != CLSID_CorMetaDataDispenser)
        return CLASS_E_CLASSNOTAVAILABLE;
    return velmark_3_11::guarded([&] { return handOut(velmark_3_11::MetadataDispenser::create(), riid, ppv); });
}
