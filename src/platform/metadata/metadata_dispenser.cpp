#include "platform/metadata/metadata_dispenser.h"

#include <vector>

#include "platform/metadata/metadata_import.h"
#include "platform/metadata/pe_image.h"

namespace velmark_3_11 {
namespace {

constexpr DWORD kOpenForWriting = 0x1;

HRESULT openOn(std::vector<std::uint8_t> bytes, REFIID riid, IUnknown** ppIUnk)
{
    MetadataImport* import = nullptr;
    const HRESULT opened = MetadataImport::open(std::move(bytes), &import);
    if (FAILED(opened))
        return opened;
    const ComPtr<MetadataImport> scope(import);
    return scope->QueryInterface(riid, reinterpret_cast<void**>(ppIUnk));
}

} // namespace

HRESULT MetadataDispenser::QueryInterface(REFIID riid, void** ppvObject)
{
    return answer(riid, ppvObject, {&IID_IMetaDataDispenser, &IID_IMetaDataDispenserEx});
}

HRESULT MetadataDispenser::OpenScope(LPCWSTR szScope, DWORD dwOpenFlags, REFIID riid, IUnknown** ppIUnk)
{
    if (ppIUnk == nullptr)
        return E_POINTER;
    *ppIUnk = nullptr;
    if (szScope == nullptr || (dwOpenFlags & kOpenForWriting))
        return E_INVALIDARG;
    return guarded([&] {
        std::vector<std::uint8_t> bytes;
        const HRESULT read = readFileBytes(szScope, bytes);
        return FAILED(read) ? read : openOn(std::move(bytes), riid, ppIUnk);
    });
}

HRESULT MetadataDispenser::OpenScopeOnMemory(const void* pData, ULONG cbData, DWORD dwOpenFlags, REFIID riid,
                                             IUnknown** ppIUnk)
{
    if (ppIUnk == nullptr)
        return E_POINTER;
    *ppIUnk = nullptr;
    if ((pData == nullptr && cbData != 0) || (dwOpenFlags & kOpenForWriting))
        return E_INVALIDARG;
    return guarded([&] {
        const auto* bytes = static_cast<const std::uint8_t*>(pData);
        return openOn(std::vector<std::uint8_t>(bytes, bytes + cbData), riid, ppIUnk);
    });
}

} // namespace velmark_3_11
