#include "jitreader/jit_file_reader.h"

#include <map>

#include "basekit2/assertion.h"
#include "jitreader/jit_data_manager.h"
#include "jitreader/jit_file_decoder.h"
#include "jitreader/jit_method.h"
#include "platform/byte_cursor.h"
#include "platform/log.h"

namespace velmark_3_11 {
namespace {

constexpr auto kLogNumbers = logging::numbers_t::hex;

bool is32BitLoad(unsigned int type)
{
    return type == 0 || type == 1 || type == 4 || type == 6 || type == 8;
}

bool is64BitLoad(unsigned int type)
{
    return type == 2 || type == 3 || type == 5 || type == 7 || type == 9;
}

/// One pass over one file. `m_isInline` belongs to the whole loop: only load form 4 writes
/// it, so an older record behind an inline form 4 record takes the inline route as well.
class FileReader {
public:
    FileReader(JitFileDecoder& decoder, unsigned int bitnessFilter, JitDataManager& dataManager)
        : m_decoder(decoder), m_bitnessFilter(bitnessFilter), m_store(dataManager), m_isInline(0)
    {
    }

    velmark_error_t run()
    {
        m_store.setCollectorType(ctDefault);
        velmark_error_t result = meSuccess;
        bool finished = false;
        Record record;
        while (!finished) {
            const velmark_error_t next = m_decoder.getNextRecord(record);
            if (next != meSuccess) {
                result = next == meEndOfTrace ? meSuccess : next;
                break;
            }
            result = handle(record, finished);
            if (result != meSuccess)
                return result; // the store refused: no end-of-file work
        }
        if (result != meSuccess)
            return result;

        if (m_store.getCollectorType() == ctJitProfiler && m_decoder.bothArchitecturesSeen())
            patchModuleName64(m_loadedMethods);
        m_store.finalize();
        return meSuccess;
    }

private:
    /// Acts on one record; sets `finished` where the usable part of the file ends.
    velmark_error_t handle(const Record& record, bool& finished)
    {
        const unsigned int type = record.type;
        if (type == jtMagic) {
            // Only a Magic at the start belongs there; one further on ends the usable part.
            finished = record.position != 0;
            return meSuccess;
        }
        if (type == jtCollectorType) {
            ByteCursor value(record.data.data(), record.data.size());
            m_store.setCollectorType(value.read<unsigned int>());
            return meSuccess;
        }
        if ((m_bitnessFilter != bfAll && m_bitnessFilter != bfOnly32 && is32BitLoad(type)) ||
            (m_bitnessFilter != bfAll && m_bitnessFilter != bfOnly64 && is64BitLoad(type))) {
            finished = true;
            return meSuccess;
        }
        switch (type) {
        case jtFunctionLoad32:
        case jtFunctionLoad64:
        case jtFunctionLoad32_v1:
        case jtFunctionLoad64_v1:
        case jtFunctionLoad32_v2:
        case jtFunctionLoad64_v2:
        case jtFunctionLoad32_v3:
        case jtFunctionLoad64_v3:
            return load(record);
        case jtFunctionUpdate:
            update(record);
            return meSuccess;
        case jtFunctionUpdate_v2:
            rangeUpdate(record);
            return meSuccess;
        case jtFunctionInlineLoad32:
        case jtFunctionInlineLoad64:
            return inlineLoad(record);
        default:
            return meBadTrace;
        }
    }

    velmark_error_t load(const Record& record)
    {
        boost::intrusive_ptr<JitMethod> method(new JitMethod);
        bool decoded = false;
        switch (record.type) {
        case jtFunctionLoad32:
        case jtFunctionLoad64:
            decoded = m_decoder.decodeMethodLoadRecord(record, method);
            break;
        case jtFunctionLoad32_v1:
        case jtFunctionLoad64_v1:
            decoded = m_decoder.decodeMethodLoadRecordV1(record, method);
            break;
        case jtFunctionLoad32_v2:
        case jtFunctionLoad64_v2:
            decoded = m_decoder.decodeMethodLoadRecordV2(record, method);
            break;
        default:
            decoded = m_decoder.decodeMethodLoadRecordV3(record, method, &m_isInline);
            break;
        }
        if (!decoded)
            return meSuccess;
        if (m_isInline == 1)
            return m_store.processMethodInlineLoadRecord(m_decoder.processId(), m_decoder.hostId(), method);
        const velmark_error_t result =
            m_store.processMethodLoadRecord(m_decoder.processId(), m_decoder.hostId(), method);
        m_loadedMethods.push_back(method);
        return result;
    }

    void update(const Record& record)
    {
        boost::intrusive_ptr<JitMethod> method(new JitMethod);
        if (m_decoder.decodeMethodLoadRecordV3(record, method, &m_isInline) &&
            m_decoder.mode() == decoding_mode_full)
            m_store.processMethodUpdateRecord(m_decoder.processId(), m_decoder.hostId(), method);
    }

    void rangeUpdate(const Record& record)
    {
        boost::intrusive_ptr<JitMethod> method(new JitMethod);
        if (!m_decoder.decodeMethodUpdateRecordV2(record, method)) {
            VM_ERROR_AT(L"Failed to decode a UPDATE_V2 record");
            return;
        }
        if (m_store.processMethodLoadRecord(m_decoder.processId(), m_decoder.hostId(), method) != meSuccess)
            VM_ERROR_AT(L"Failed to process a UPDATE_V2 record");
    }

    velmark_error_t inlineLoad(const Record& record)
    {
        boost::intrusive_ptr<JitMethod> method(new JitMethod);
        if (!m_decoder.decodeMethodInlineLoadRecord(record, method))
            return meSuccess;
        // A refused inline makes the whole file unusable, whatever the store's reason.
        if (m_store.processMethodInlineLoadRecord(m_decoder.processId(), m_decoder.hostId(), method) != meSuccess)
            return meBadTrace;
        return meSuccess;
    }

    JitFileDecoder& m_decoder;
    unsigned int m_bitnessFilter;
    JitDataManager& m_store;
    unsigned char m_isInline;
    std::vector<boost::intrusive_ptr<JitMethod>> m_loadedMethods;
};

} // namespace

velmark_error_t readJitFile(JitFileDecoder& decoder, unsigned int bitnessFilter, JitDataManager& dataManager)
{
    return FileReader(decoder, bitnessFilter, dataManager).run();
}

void patchModuleName64(const std::vector<boost::intrusive_ptr<JitMethod>>& methods)
{
    // Methods that shared a module share its renamed copy. The key holds the original, so that
    // its address can't come back for another module.
    std::map<boost::intrusive_ptr<Module>, boost::intrusive_ptr<Module>> renamed;
    for (const boost::intrusive_ptr<JitMethod>& method : methods) {
        BASEKIT2_ASSERT_TEXT(method, "method");
        if (!method)
            continue;
        const boost::intrusive_ptr<Module>& module = method->module();
        BASEKIT2_ASSERT_TEXT(module, "module");
        if (!module || module->getArch() != 1)
            continue;
        boost::intrusive_ptr<Module>& copy = renamed[module];
        if (!copy) {
            const wchar_t* path = module->getName();
            BASEKIT2_ASSERT_TEXT(path, "path");
            copy.reset(new Module(std::wstring(path ? path : L"") + L" (64)", module->getType(), module->getArch()));
        }
        method->setModule(copy);
    }
}

} // namespace velmark_3_11
