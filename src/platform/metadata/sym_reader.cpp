#include "platform/metadata/sym_reader.h"

#include <algorithm>
#include <string>
#include <vector>

#include "platform/text.h"

namespace velmark_3_11 {
namespace {

class SymDocument final : public ComObject<ISymUnmanagedDocument> {
public:
    SymDocument(PdbDocument document) : m_document(std::move(document)), m_url(toWide(m_document.name)) {}

    HRESULT QueryInterface(REFIID riid, void** ppvObject) override
    {
        return answer(riid, ppvObject, {&IID_ISymUnmanagedDocument});
    }

    HRESULT GetURL(ULONG32 cchUrl, ULONG32* pcchUrl, WCHAR szUrl[]) override
    {
        if (pcchUrl == nullptr && szUrl == nullptr)
            return E_INVALIDARG;
        if (pcchUrl)
            *pcchUrl = static_cast<ULONG32>(m_url.size() + 1);
        if (szUrl != nullptr && cchUrl != 0) {
            const std::size_t written = std::min<std::size_t>(m_url.size(), cchUrl - 1);
            std::copy_n(m_url.begin(), written, szUrl);
            szUrl[written] = L'\0';
        }
        return S_OK;
    }

    HRESULT GetLanguage(GUID* pRetVal) override { return give(m_document.language, pRetVal); }
    HRESULT GetCheckSumAlgorithmId(GUID* pRetVal) override { return give(m_document.hashAlgorithm, pRetVal); }

    HRESULT GetCheckSum(ULONG32 cData, ULONG32* pcData, BYTE data[]) override
    {
        if (pcData == nullptr)
            return E_INVALIDARG;
        const std::vector<std::uint8_t>& hash = m_document.hash;
        if (cData == 0) {
            *pcData = static_cast<ULONG32>(hash.size());
            return S_OK;
        }
        if (data == nullptr)
            return E_INVALIDARG;
        const std::size_t written = std::min<std::size_t>(hash.size(), cData);
        std::copy_n(hash.begin(), written, data);
        *pcData = static_cast<ULONG32>(written);
        return S_OK;
    }

private:
    static HRESULT give(const GUID& value, GUID* out)
    {
        if (out == nullptr)
            return E_INVALIDARG;
        *out = value;
        return S_OK;
    }

    const PdbDocument m_document;
    const std::wstring m_url;
};

class SymMethod final : public ComObject<ISymUnmanagedMethod> {
public:
    SymMethod(std::shared_ptr<const DebugSymbols> pdb, mdMethodDef token, std::vector<PdbSequencePoint> points)
        : m_pdb(std::move(pdb)), m_token(token), m_points(std::move(points))
    {
    }

    HRESULT QueryInterface(REFIID riid, void** ppvObject) override
    {
        return answer(riid, ppvObject, {&IID_ISymUnmanagedMethod});
    }

    HRESULT GetToken(mdMethodDef* pToken) override
    {
        if (pToken == nullptr)
            return E_INVALIDARG;
        *pToken = m_token;
        return S_OK;
    }

    HRESULT GetSequencePointCount(ULONG32* pRetVal) override
    {
        if (pRetVal == nullptr)
            return E_INVALIDARG;
        *pRetVal = static_cast<ULONG32>(m_points.size());
        return S_OK;
    }

    HRESULT GetSequencePoints(ULONG32 cPoints, ULONG32* pcPoints, ULONG32 offsets[],
                              ISymUnmanagedDocument* documents[], ULONG32 lines[], ULONG32 columns[],
                              ULONG32 endLines[], ULONG32 endColumns[]) override
    {
        return guarded([&] {
            if (cPoints == 0) {
                if (pcPoints)
                    *pcPoints = static_cast<ULONG32>(m_points.size());
                return S_OK;
            }
            const std::size_t count = std::min<std::size_t>(cPoints, m_points.size());
            // Points of one document share one document object.
            std::vector<ComPtr<ISymUnmanagedDocument>> made;
            std::vector<std::uint32_t> madeRows;
            for (std::size_t i = 0; i < count; ++i) {
                const PdbSequencePoint& point = m_points[i];
                if (offsets)
                    offsets[i] = point.offset;
                if (lines)
                    lines[i] = point.line;
                if (columns)
                    columns[i] = point.column;
                if (endLines)
                    endLines[i] = point.endLine;
                if (endColumns)
                    endColumns[i] = point.endColumn;
                if (documents == nullptr)
                    continue;
                const auto known = std::find(madeRows.begin(), madeRows.end(), point.document);
                ISymUnmanagedDocument* document = nullptr;
                if (known != madeRows.end()) {
                    document = made[static_cast<std::size_t>(known - madeRows.begin())].get();
                } else {
                    PdbDocument row;
                    // Rows were checked when the points were read; a damaged row reads empty.
                    if (!m_pdb->document(point.document, row))
                        row = PdbDocument{};
                    made.emplace_back(new SymDocument(std::move(row)));
                    madeRows.push_back(point.document);
                    document = made.back().get();
                }
                document->AddRef();
                documents[i] = document;
            }
            if (pcPoints)
                *pcPoints = static_cast<ULONG32>(count);
            return S_OK;
        });
    }

private:
    const std::shared_ptr<const DebugSymbols> m_pdb;
    const mdMethodDef m_token;
    const std::vector<PdbSequencePoint> m_points;
};

} // namespace

SymReader* SymReader::create(std::shared_ptr<const DebugSymbols> pdb)
{
    return new SymReader(std::move(pdb));
}

HRESULT SymReader::QueryInterface(REFIID riid, void** ppvObject)
{
    return answer(riid, ppvObject, {&IID_ISymUnmanagedReader});
}

HRESULT SymReader::GetMethod(mdMethodDef token, ISymUnmanagedMethod** pRetVal)
{
    if (pRetVal == nullptr)
        return E_POINTER;
    *pRetVal = nullptr;
    if (TypeFromToken(token) != mdtMethodDef)
        return E_INVALIDARG;
    return guarded([&] {
        std::vector<PdbSequencePoint> points;
        if (!m_pdb->sequencePoints(RidFromToken(token), points))
            return E_FAIL;
        if (points.empty())
            return E_FAIL;
        *pRetVal = new SymMethod(m_pdb, token, std::move(points));
        return S_OK;
    });
}

} // namespace velmark_3_11
