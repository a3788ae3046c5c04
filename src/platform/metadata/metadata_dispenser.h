// The metadata dispenser: opens managed images as read-only metadata scopes.
#pragma once

#include "platform/metadata/com_object.h"
#include "platform/metadata/cor.h"

namespace velmark_3_11 {

class MetadataDispenser final : public ComObject<IMetaDataDispenserEx> {
public:
    /// A dispenser with one reference, for the caller.
    static MetadataDispenser* create() { return new MetadataDispenser; }

    HRESULT QueryInterface(REFIID riid, void** ppvObject) override;
    /// Only reading is offered: a write flag gives E_INVALIDARG. A file that cannot be read
    /// gives HRESULT_FILE_NOT_FOUND, otherwise the results of MetadataImport::open.
    HRESULT OpenScope(LPCWSTR szScope, DWORD dwOpenFlags, REFIID riid, IUnknown** ppIUnk) override;
    HRESULT OpenScopeOnMemory(const void* pData, ULONG cbData, DWORD dwOpenFlags, REFIID riid,
                              IUnknown** ppIUnk) override;

private:
    MetadataDispenser() = default;
};

} // namespace velmark_3_11
