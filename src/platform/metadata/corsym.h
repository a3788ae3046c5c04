// The symbol binder and reader interfaces of the stand-ins, under their published names.
// Only the operations this library calls are declared.
#pragma once

#include "platform/metadata/cor.h"

constexpr CLSID CLSID_CorSymBinder_SxS = {0x0A29FF9E, 0x7F9C, 0x4437, {0x8B, 0x11, 0xF4, 0x24, 0x49, 0x1E, 0x39, 0x31}};
constexpr CLSID CLSID_CorSymBinder_deprecated = {0xAA544D41, 0x28CB, 0x11D3, {0xBD, 0x22, 0x00, 0x00, 0xF8, 0x08, 0x49, 0xBD}};
constexpr IID IID_ISymUnmanagedBinder = {0xAA544D42, 0x28CB, 0x11D3, {0xBD, 0x22, 0x00, 0x00, 0xF8, 0x08, 0x49, 0xBD}};
constexpr IID IID_ISymUnmanagedBinder2 = {0xACCEE350, 0x89AF, 0x4CCB, {0x8B, 0x40, 0x1C, 0x2C, 0x4C, 0x6F, 0x94, 0x34}};
constexpr IID IID_ISymUnmanagedReader = {0xB4CE6286, 0x2A6B, 0x3712, {0xA3, 0xB7, 0x1E, 0xE1, 0xDA, 0xD4, 0x67, 0xB5}};
constexpr IID IID_ISymUnmanagedMethod = {0xB62B923C, 0xB500, 0x3158, {0xA5, 0x43, 0x24, 0xF3, 0x07, 0xA8, 0xB7, 0xE1}};
constexpr IID IID_ISymUnmanagedDocument = {0x40DE4037, 0x7C81, 0x3E1E, {0xB0, 0x22, 0xAE, 0x1A, 0xBF, 0xF2, 0xCA, 0x08}};

/// Search policies of GetReaderForFile2.
enum CorSymSearchPolicyAttributes : ULONG32 {
    AllowRegistryAccess = 0x1,
    AllowSymbolServerAccess = 0x2,
    AllowOriginalPathAccess = 0x4,
    AllowReferencePathAccess = 0x8,
};

/// The line of a hidden sequence point.
constexpr ULONG32 kHiddenLine = 0xFEEFEE;

struct ISymUnmanagedDocument : IUnknown {
    /// The document's name; `*pcchUrl` is its length with the terminator, and at most
    /// `cchUrl` characters (terminator included) are written.
    virtual HRESULT GetURL(ULONG32 cchUrl, ULONG32* pcchUrl, WCHAR szUrl[]) = 0;
    virtual HRESULT GetLanguage(GUID* pRetVal) = 0;
    virtual HRESULT GetCheckSumAlgorithmId(GUID* pRetVal) = 0;
    /// The document's hash; with `cData` 0 only its size.
    virtual HRESULT GetCheckSum(ULONG32 cData, ULONG32* pcData, BYTE data[]) = 0;

protected:
    ~ISymUnmanagedDocument() = default;
};

struct ISymUnmanagedMethod : IUnknown {
    virtual HRESULT GetToken(mdMethodDef* pToken) = 0;
    virtual HRESULT GetSequencePointCount(ULONG32* pRetVal) = 0;
    /// Up to `cPoints` points into whichever arrays are not null; each document comes with a
    /// reference of its own. `*pcPoints` is the number written (the count when `cPoints` is 0).
    virtual HRESULT GetSequencePoints(ULONG32 cPoints, ULONG32* pcPoints, ULONG32 offsets[],
                                      ISymUnmanagedDocument* documents[], ULONG32 lines[], ULONG32 columns[],
                                      ULONG32 endLines[], ULONG32 endColumns[]) = 0;

protected:
    ~ISymUnmanagedMethod() = default;
};

struct ISymUnmanagedReader : IUnknown {
    /// The debug information of a method def; E_FAIL when it has no sequence points.
    virtual HRESULT GetMethod(mdMethodDef token, ISymUnmanagedMethod** pRetVal) = 0;

protected:
    ~ISymUnmanagedReader() = default;
};

struct ISymUnmanagedBinder : IUnknown {
    /// As GetReaderForFile2 with the original path and the assembly's directory allowed.
    virtual HRESULT GetReaderForFile(IUnknown* importer, const WCHAR* fileName, const WCHAR* searchPath,
                                     ISymUnmanagedReader** pRetVal) = 0;

protected:
    ~ISymUnmanagedBinder() = default;
};

struct ISymUnmanagedBinder2 : ISymUnmanagedBinder {
    /// A reader of the debug file of the assembly `fileName`.
    virtual HRESULT GetReaderForFile2(IUnknown* importer, const WCHAR* fileName, const WCHAR* searchPath,
                                      ULONG32 searchPolicy, ISymUnmanagedReader** pRetVal) = 0;

protected:
    ~ISymUnmanagedBinder2() = default;
};
