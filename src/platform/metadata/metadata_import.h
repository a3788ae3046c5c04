// An open metadata scope: IMetaDataImport2 answered from the tables of a managed image (or
// of a bare metadata file). Read-only once opened, so any number of threads may query it;
// each enumerator belongs to the caller that opened it, and those never closed go with the
// scope.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "platform/metadata/com_object.h"
#include "platform/metadata/cor.h"
#include "platform/metadata/metadata_tables.h"
#include "platform/metadata/pe_image.h"

namespace velmark_3_11 {

class MetadataImport final : public ComObject<IMetaDataImport2> {
public:
    /// Opens a scope over `bytes`: a PE image with CLI metadata, or a metadata root alone.
    /// On success `*import` holds one reference; on failure the result of PeImage or
    /// MetadataTables.
    static HRESULT open(std::vector<std::uint8_t> bytes, MetadataImport** import);

    HRESULT QueryInterface(REFIID riid, void** ppvObject) override;

    void CloseEnum(HCORENUM hEnum) override;
    HRESULT CountEnum(HCORENUM hEnum, ULONG* pulCount) override;
    HRESULT ResetEnum(HCORENUM hEnum, ULONG ulPos) override;
    HRESULT EnumTypeDefs(HCORENUM* phEnum, mdTypeDef rTypeDefs[], ULONG cMax, ULONG* pcTypeDefs) override;
    HRESULT EnumMethods(HCORENUM* phEnum, mdTypeDef cl, mdMethodDef rMethods[], ULONG cMax,
                        ULONG* pcTokens) override;
    HRESULT GetTypeDefProps(mdTypeDef td, LPWSTR szTypeDef, ULONG cchTypeDef, ULONG* pchTypeDef,
                            DWORD* pdwTypeDefFlags, mdToken* ptkExtends) override;
    HRESULT GetTypeRefProps(mdTypeRef tr, mdToken* ptkResolutionScope, LPWSTR szName, ULONG cchName,
                            ULONG* pchName) override;
    HRESULT GetMethodProps(mdMethodDef mb, mdTypeDef* pClass, LPWSTR szMethod, ULONG cchMethod, ULONG* pchMethod,
                           DWORD* pdwAttr, PCCOR_SIGNATURE* ppvSigBlob, ULONG* pcbSigBlob, ULONG* pulCodeRVA,
                           DWORD* pdwImplFlags) override;
    HRESULT EnumCustomAttributes(HCORENUM* phEnum, mdToken tk, mdToken tkType, mdCustomAttribute rCustomAttributes[],
                                 ULONG cMax, ULONG* pcCustomAttributes) override;
    HRESULT GetCustomAttributeProps(mdCustomAttribute cv, mdToken* ptkObj, mdToken* ptkType, const void** ppBlob,
                                    ULONG* pcbSize) override;
    HRESULT GetCustomAttributeByName(mdToken tkObj, LPCWSTR szName, const void** ppData, ULONG* pcbData) override;

    const MetadataTables& tables() const { return *m_tables; }

private:
    struct Enumerator;

    MetadataImport() = default;
    ~MetadataImport() override;
    /// Opens the enumerator on the first call (with `fill`) and hands out the next page.
    template <class Fill>
    HRESULT page(HCORENUM* phEnum, mdToken out[], ULONG cMax, ULONG* pcCount, Fill fill);
    HRESULT initialize(std::vector<std::uint8_t> bytes);
    /// The method def rows of type def row `typeRow`, through the MethodPtr table if present.
    void methodsOf(std::uint32_t typeRow, std::uint32_t& floor, std::vector<mdToken>& methods) const;
    /// Namespace and name of a type def or type ref, joined by "."; false for other tokens.
    bool typeName(mdToken type, std::string& name) const;
    /// The type def or type ref that a custom attribute's constructor belongs to, or 0.
    mdToken attributeType(mdToken constructor) const;
    HRESULT checkRow(mdToken token, mdToken table, std::uint32_t& row) const;

    std::vector<std::uint8_t> m_bytes;
    std::unique_ptr<PeImage> m_image;
    std::unique_ptr<MetadataTables> m_tables;
    /// The owning type def of each method def row (index row - 1); 0 when none claims it.
    std::vector<mdTypeDef> m_methodOwners;
    std::mutex m_enumeratorsMutex;
    std::unordered_set<Enumerator*> m_enumerators;
};

} // namespace velmark_3_11
