#include "metadata_target.h"

#include <memory>
#include <vector>

#include "platform/metadata/com_object.h"
#include "platform/metadata/metadata_import.h"
#include "platform/metadata/msf_file.h"
#include "platform/metadata/pe_image.h"
#include "platform/metadata/portable_pdb.h"
#include "platform/metadata/sym_reader.h"
#include "platform/metadata/windows_pdb.h"

namespace jitreader_fuzz {
namespace {

using namespace velmark_3_11;

void askImport(MetadataImport& import)
{
    const MetadataTables& tables = import.tables();
    wchar_t name[64];
    ULONG length = 0;
    PCCOR_SIGNATURE signature = nullptr;
    ULONG signatureSize = 0;
    mdToken token = 0;
    for (ULONG row = 1; row <= tables.rowCount(MetadataTables::kTypeRef) + 1; ++row)
        import.GetTypeRefProps(mdtTypeRef | row, &token, name, 64, &length);
    HCORENUM types = nullptr;
    mdTypeDef type = 0;
    ULONG count = 0;
    // The global functions, then every type's methods, a page at a time.
    do {
        HCORENUM methods = nullptr;
        mdMethodDef page[7];
        while (import.EnumMethods(&methods, type, page, 7, &count) == S_OK)
            for (ULONG i = 0; i < count; ++i)
                import.GetMethodProps(page[i], &token, name, 64, &length, nullptr, &signature, &signatureSize,
                                      nullptr, nullptr);
        import.CloseEnum(methods);
        import.GetTypeDefProps(type, name, 64, &length, nullptr, &token);
    } while (import.EnumTypeDefs(&types, &type, 1, &count) == S_OK);
    import.CountEnum(types, &count);
    import.CloseEnum(types);

    HCORENUM attributes = nullptr;
    mdCustomAttribute attribute = 0;
    while (import.EnumCustomAttributes(&attributes, 0, 0, &attribute, 1, &count) == S_OK) {
        const void* blob = nullptr;
        import.GetCustomAttributeProps(attribute, &token, nullptr, &blob, &length);
        import.GetCustomAttributeByName(token, L"System.Runtime.Versioning.TargetFrameworkAttribute", &blob, &length);
    }
    import.CloseEnum(attributes);
}

void askSymbols(std::shared_ptr<const DebugSymbols> symbols)
{
    const ComPtr<SymReader> reader(SymReader::create(std::move(symbols)));
    for (ULONG row = 1; row <= 64; ++row) {
        ComPtr<ISymUnmanagedMethod> method;
        if (reader->GetMethod(mdtMethodDef | row, method.put()) != S_OK)
            continue;
        ULONG32 count = 0;
        method->GetSequencePointCount(&count);
        ULONG32 offsets[16], lines[16], columns[16], written = 0;
        ISymUnmanagedDocument* documents[16];
        method->GetSequencePoints(16, &written, offsets, documents, lines, columns, nullptr, nullptr);
        for (ULONG32 i = 0; i < written; ++i) {
            wchar_t url[64];
            ULONG32 length = 0;
            GUID guid;
            BYTE hash[16];
            documents[i]->GetURL(64, &length, url);
            documents[i]->GetLanguage(&guid);
            documents[i]->GetCheckSumAlgorithmId(&guid);
            documents[i]->GetCheckSum(16, &length, hash);
            documents[i]->Release();
        }
    }
}

void askDebugFile(std::vector<std::uint8_t> bytes)
{
    HRESULT result = S_OK;
    if (std::shared_ptr<const PortablePdb> pdb = PortablePdb::create(std::move(bytes), result))
        askSymbols(std::move(pdb));
}

} // namespace

int metadata(const std::uint8_t* data, std::size_t size)
{
    const std::vector<std::uint8_t> bytes(data, data + size);
    MetadataImport* opened = nullptr;
    if (MetadataImport::open(bytes, &opened) == S_OK) {
        const ComPtr<MetadataImport> import(opened);
        askImport(*opened);
    }
    HRESULT result = S_OK;
    if (const std::unique_ptr<PeImage> image = PeImage::create(bytes, result)) {
        CodeViewRecord codeView;
        image->codeView(codeView);
        image->pdbChecksums();
        std::vector<std::uint8_t> embedded;
        if (image->embeddedPdb(embedded))
            askDebugFile(std::move(embedded));
    }
    askDebugFile(bytes);
    return 0;
}

int windowsPdb(const std::uint8_t* data, std::size_t size)
{
    const std::vector<std::uint8_t> bytes(data, data + size);
    HRESULT result = S_OK;
    if (const std::unique_ptr<MsfFile> msf = MsfFile::create(bytes, result)) {
        std::vector<std::uint8_t> stream;
        for (std::uint32_t index = 0; index < msf->streamCount(); ++index)
            msf->stream(index, stream);
    }
    if (std::shared_ptr<const WindowsPdb> pdb = WindowsPdb::create(bytes, result))
        askSymbols(std::move(pdb));
    return 0;
}

} // namespace jitreader_fuzz
