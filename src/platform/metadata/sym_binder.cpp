#include "platform/metadata/sym_binder.h"

#include <memory>
#include <string>
#include <vector>

#include "platform/metadata/msf_file.h"
#include "platform/metadata/pe_image.h"
#include "platform/metadata/portable_pdb.h"
#include "platform/metadata/sym_reader.h"
#include "platform/metadata/windows_pdb.h"
#include "platform/text.h"

namespace velmark_3_11 {
namespace {

/// The part behind the last "\" or "/".
std::wstring fileNameOf(const std::wstring& path)
{
    const std::size_t slash = path.find_last_of(L"\\/");
    return slash == std::wstring::npos ? path : path.substr(slash + 1);
}

/// The part before the last "/", with that "/"; empty for a bare name.
std::wstring directoryOf(const std::wstring& path)
{
    const std::size_t slash = path.find_last_of(L'/');
    return slash == std::wstring::npos ? std::wstring() : path.substr(0, slash + 1);
}

std::wstring withSeparator(const std::wstring& directory)
{
    return directory.empty() || directory.back() == L'/' ? directory : directory + L'/';
}

} // namespace

HRESULT SymBinder::QueryInterface(REFIID riid, void** ppvObject)
{
    return answer(riid, ppvObject, {&IID_ISymUnmanagedBinder, &IID_ISymUnmanagedBinder2});
}

HRESULT SymBinder::GetReaderForFile(IUnknown* importer, const WCHAR* fileName, const WCHAR* searchPath,
                                    ISymUnmanagedReader** pRetVal)
{
    return GetReaderForFile2(importer, fileName, searchPath, AllowOriginalPathAccess | AllowReferencePathAccess,
                             pRetVal);
}

HRESULT SymBinder::GetReaderForFile2(IUnknown*, const WCHAR* fileName, const WCHAR* searchPath,
                                     ULONG32 searchPolicy, ISymUnmanagedReader** pRetVal)
{
    if (pRetVal == nullptr)
        return E_POINTER;
    *pRetVal = nullptr;
    if (fileName == nullptr)
        return E_INVALIDARG;
    return guarded([&] {
        const std::wstring assembly(fileName);
        HRESULT result = S_OK;
        const std::unique_ptr<PeImage> image = PeImage::open(assembly, result);
        if (!image)
            return result;
        CodeViewRecord codeView{};
        const bool haveCodeView = image->codeView(codeView);

        std::wstring debugName;
        if (haveCodeView)
            debugName = fileNameOf(toWide(codeView.path));
        if (debugName.empty()) {
            debugName = fileNameOf(assembly);
            const std::size_t dot = debugName.find_last_of(L'.');
            debugName = debugName.substr(0, dot) + L".pdb";
        }
        std::vector<std::wstring> candidates;
        if ((searchPolicy & AllowOriginalPathAccess) && haveCodeView && !codeView.path.empty())
            candidates.push_back(toWide(codeView.path));
        if (searchPath != nullptr) {
            const std::wstring directories(searchPath);
            std::size_t begin = 0;
            while (begin <= directories.size()) {
                std::size_t end = directories.find(L';', begin);
                if (end == std::wstring::npos)
                    end = directories.size();
                if (end > begin)
                    candidates.push_back(withSeparator(directories.substr(begin, end - begin)) + debugName);
                begin = end + 1;
            }
        }
        if (searchPolicy & AllowReferencePathAccess)
            candidates.push_back(directoryOf(assembly) + debugName);

        // Only a debug file written for this very build is taken.
        const auto accept = [&](std::vector<std::uint8_t> bytes) -> bool {
            if (!haveCodeView)
                return false;
            HRESULT ignored = S_OK;
            if (MsfFile::hasMagic(bytes.data(), bytes.size())) {
                std::unique_ptr<WindowsPdb> pdb = WindowsPdb::create(std::move(bytes), ignored);
                if (!pdb || codeView.portable || !pdb->matches(codeView.signature, codeView.age))
                    return false;
                *pRetVal = SymReader::create(std::shared_ptr<const WindowsPdb>(std::move(pdb)));
                return true;
            }
            std::unique_ptr<PortablePdb> pdb = PortablePdb::create(std::move(bytes), ignored);
            if (!pdb || !pdb->matches(codeView.signature, codeView.timeStamp))
                return false;
            *pRetVal = SymReader::create(std::shared_ptr<const PortablePdb>(std::move(pdb)));
            return true;
        };
        for (const std::wstring& candidate : candidates) {
            std::vector<std::uint8_t> bytes;
            if (SUCCEEDED(readFileBytes(candidate, bytes)) && accept(std::move(bytes)))
                return S_OK;
        }
        std::vector<std::uint8_t> embedded;
        if (image->embeddedPdb(embedded) && accept(std::move(embedded)))
            return S_OK;
        return HRESULT_FILE_NOT_FOUND;
    });
}

} // namespace velmark_3_11
