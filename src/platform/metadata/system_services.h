// The system services that the metadata side of the library calls, as no-ops or as the
// entry points of the stand-ins: COM start and stop, object creation, the version test,
// and the dynamic lookup of MetaDataGetDispenser.
#pragma once

#include "platform/metadata/cor.h"

typedef void* HMODULE;
typedef void (*FARPROC)();

struct OSVERSIONINFOEXA {
    DWORD dwOSVersionInfoSize;
    DWORD dwMajorVersion;
    DWORD dwMinorVersion;
    DWORD dwBuildNumber;
    DWORD dwPlatformId;
    char szCSDVersion[128];
    std::uint16_t wServicePackMajor;
    std::uint16_t wServicePackMinor;
    std::uint16_t wSuiteMask;
    BYTE wProductType;
    BYTE wReserved;
};

constexpr DWORD VER_MINORVERSION = 0x1;
constexpr DWORD VER_MAJORVERSION = 0x2;
constexpr BYTE VER_EQUAL = 1;
constexpr BYTE VER_GREATER = 2;
constexpr BYTE VER_GREATER_EQUAL = 3;
constexpr BYTE VER_LESS = 4;
constexpr BYTE VER_LESS_EQUAL = 5;
constexpr HRESULT CLASS_E_CLASSNOTAVAILABLE = static_cast<HRESULT>(0x80040111);

/// No-op; S_OK.
HRESULT CoInitialize(LPVOID pvReserved);
/// No-op.
void CoUninitialize();
/// Creates the metadata dispenser or the symbol binder (either binder class); any other
/// class gives REGDB_E_CLASSNOTREG, an outer object CLASS_E_NOAGGREGATION.
HRESULT CoCreateInstance(REFCLSID rclsid, IUnknown* pUnkOuter, DWORD dwClsContext, REFIID riid, LPVOID* ppv);
/// Puts `condition` into the mask for each version field of `typeMask`.
DWORDLONG VerSetConditionMask(DWORDLONG conditionMask, DWORD typeMask, BYTE condition);
/// Compares the major and minor version asked for with 6.2, which this system reports.
BOOL VerifyVersionInfoA(OSVERSIONINFOEXA* lpVersionInformation, DWORD dwTypeMask, DWORDLONG dwlConditionMask);
/// "rometadata.dll" (any case) resolves to the stand-ins; anything else to null.
HMODULE LoadLibraryW(LPCWSTR lpLibFileName);
/// "MetaDataGetDispenser" of that module; null for anything else.
FARPROC GetProcAddress(HMODULE hModule, LPCSTR lpProcName);
/// No-op; TRUE.
BOOL FreeLibrary(HMODULE hLibModule);
/// The dispenser for class CLSID_CorMetaDataDispenser; other classes give
/// CLASS_E_CLASSNOTAVAILABLE.
HRESULT MetaDataGetDispenser(REFCLSID rclsid, REFIID riid, LPVOID* ppv);
