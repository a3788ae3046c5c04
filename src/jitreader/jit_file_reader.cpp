#include "jitreader/jit_file_reader.h"

#include <atomic>
#include <condition_variable>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <system_error>
#include <thread>

#include "basekit2/assertion.h"
#include "jitreader/code_arena.h"
#include "jitreader/jit_data_manager.h"
#include "jitreader/jit_file_decoder.h"
#include "jitreader/jit_method.h"
#include "platform/byte_cursor.h"
#include "platform/deferred_log.h"
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

/// What one record asks of the store, decoded ahead of it.
struct Step {
    enum kind_t : unsigned char {
        collector,     ///< the file's collector type is `collectorType`
        load,          ///< `method` was loaded
        loadAsInline,  ///< `method` came in a load record marked inline
        update,        ///< `method` replaces code bytes of a method already stored
        inlineLoad,    ///< `method` is an inline record's frame
    };
    kind_t kind = load;
    unsigned int collectorType = 0;
    boost::intrusive_ptr<JitMethod> method;
};

/// The decoding half of a read: frames in, steps out. It never touches the store, so that it
/// can run on another thread than the store's. `m_isInline` belongs to the whole file: only
/// load form 4 writes it, so an older record behind an inline form 4 record takes the inline
/// route as well.
class StepDecoder {
public:
    enum class outcome_t {
        step,        ///< the record gave a step
        nothing,     ///< the record asks nothing of the store
        storeNeeded, ///< record() is a range update, which only the store can decode
        end,         ///< the usable part of the file ended; result() tells how
    };

    StepDecoder(JitFileDecoder& decoder, unsigned int bitnessFilter)
        : m_decoder(decoder), m_bitnessFilter(bitnessFilter)
    {
    }

    /// The next record's outcome; `end` again once the file has ended.
    outcome_t next(Step& step)
    {
        if (m_ended)
            return outcome_t::end;
        const velmark_error_t got = m_decoder.getNextRecord(m_record);
        if (got != meSuccess)
            return finish(got == meEndOfTrace ? meSuccess : got);
        const unsigned int type = m_record.type;
        if (type == jtMagic) // only a Magic at the start belongs there; one further on ends the file
            return m_record.position != 0 ? finish(meSuccess) : outcome_t::nothing;
        if (type == jtCollectorType) {
            ByteCursor value(m_record.data.data(), m_record.data.size());
            step.kind = Step::collector;
            step.collectorType = value.read<unsigned int>();
            step.method.reset();
            return outcome_t::step;
        }
        if ((m_bitnessFilter != bfAll && m_bitnessFilter != bfOnly32 && is32BitLoad(type)) ||
            (m_bitnessFilter != bfAll && m_bitnessFilter != bfOnly64 && is64BitLoad(type)))
            return finish(meSuccess);
        if (type == jtFunctionUpdate_v2)
            return outcome_t::storeNeeded;

        boost::intrusive_ptr<JitMethod> method(new JitMethod);
        bool decoded = false;
        step.kind = Step::load;
        switch (type) {
        case jtFunctionLoad32:
        case jtFunctionLoad64:
            decoded = m_decoder.decodeMethodLoadRecord(m_record, method);
            break;
        case jtFunctionLoad32_v1:
        case jtFunctionLoad64_v1:
            decoded = m_decoder.decodeMethodLoadRecordV1(m_record, method);
            break;
        case jtFunctionLoad32_v2:
        case jtFunctionLoad64_v2:
            decoded = m_decoder.decodeMethodLoadRecordV2(m_record, method);
            break;
        case jtFunctionLoad32_v3:
        case jtFunctionLoad64_v3:
            decoded = m_decoder.decodeMethodLoadRecordV3(m_record, method, &m_isInline);
            break;
        case jtFunctionUpdate:
            decoded = m_decoder.decodeMethodLoadRecordV3(m_record, method, &m_isInline) &&
                      m_decoder.mode() == decoding_mode_full;
            step.kind = Step::update;
            break;
        case jtFunctionInlineLoad32:
        case jtFunctionInlineLoad64:
            decoded = m_decoder.decodeMethodInlineLoadRecord(m_record, method);
            step.kind = Step::inlineLoad;
            break;
        default:
            return finish(meBadTrace);
        }
        if (!decoded)
            return outcome_t::nothing;
        if (step.kind == Step::load && m_isInline == 1)
            step.kind = Step::loadAsInline;
        step.method = std::move(method);
        return outcome_t::step;
    }

    const Record& record() const { return m_record; }
    velmark_error_t result() const { return m_result; }

private:
    outcome_t finish(velmark_error_t result)
    {
        m_result = result;
        m_ended = true;
        return outcome_t::end;
    }

    JitFileDecoder& m_decoder;
    unsigned int m_bitnessFilter;
    unsigned char m_isInline = 0;
    Record m_record;
    bool m_ended = false;
    velmark_error_t m_result = meSuccess;
};

/// The store's half of a read: takes the steps of one file in order, then does the file's end
/// work. A range update is decoded here, against the store as the steps before it left it.
class StoreFeeder {
public:
    StoreFeeder(JitFileDecoder& decoder, JitDataManager& store) : m_decoder(decoder), m_store(store)
    {
        m_store.setCollectorType(ctDefault);
    }

    /// meSuccess, or the store's refusal, after which the file is given up without end work.
    velmark_error_t apply(Step& step)
    {
        const unsigned int pid = m_decoder.processId(), host = m_decoder.hostId();
        switch (step.kind) {
        case Step::collector:
            m_store.setCollectorType(step.collectorType);
            return meSuccess;
        case Step::load: {
            const velmark_error_t result = m_store.processMethodLoadRecord(pid, host, step.method);
            m_loadedMethods.push_back(step.method);
            return result;
        }
        case Step::loadAsInline:
            return m_store.processMethodInlineLoadRecord(pid, host, step.method);
        case Step::update:
            m_store.processMethodUpdateRecord(pid, host, step.method);
            return meSuccess;
        case Step::inlineLoad:
            // A refused inline makes the whole file unusable, whatever the store's reason.
            return m_store.processMethodInlineLoadRecord(pid, host, step.method) == meSuccess ? meSuccess
                                                                                             : meBadTrace;
        }
        return meSuccess;
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

    /// Decodes and takes the rest of the file in turn, then does its end work.
    velmark_error_t drain(StepDecoder& source)
    {
        Step step;
        for (;;) {
            switch (source.next(step)) {
            case StepDecoder::outcome_t::step: {
                const velmark_error_t result = apply(step);
                if (result != meSuccess)
                    return result;
                break;
            }
            case StepDecoder::outcome_t::storeNeeded:
                rangeUpdate(source.record());
                break;
            case StepDecoder::outcome_t::nothing:
                break;
            case StepDecoder::outcome_t::end:
                if (source.result() != meSuccess)
                    return source.result();
                if (m_store.getCollectorType() == ctJitProfiler && m_decoder.bothArchitecturesSeen())
                    patchModuleName64(m_loadedMethods);
                m_store.finalize();
                return meSuccess;
            }
        }
    }

private:
    JitFileDecoder& m_decoder;
    JitDataManager& m_store;
    std::vector<boost::intrusive_ptr<JitMethod>> m_loadedMethods;
};

/// A file decoded ahead of the store. Everything but `ready` belongs to the thread that decodes
/// it until `ready` is set, and to the store's thread afterwards.
struct AheadFile {
    std::unique_ptr<JitFileDecoder> decoder;
    std::unique_ptr<StepDecoder> source;
    std::vector<Step> steps;
    logging::DeferredLog log; ///< line group i: what decoding logged before step i
    bool storeNeeded = false; ///< decoding stopped at a range update, the source's record
    std::exception_ptr failure;
    bool ready = false; ///< guarded by the read's mutex
};

/// A read of many files. The calling thread, the store's, takes the files in order: a file that
/// nobody has claimed yet it reads in turn, as readJitFile does; for a file that the helper
/// thread decodes ahead it waits, and while it waits it decodes the next unclaimed file ahead
/// itself. Files are claimed in order, so what waits decoded is rarely more than a file.
class ManyFilesRead {
public:
    ManyFilesRead(const std::vector<JitFileRead>& files, decoding_mode_t mode, unsigned int bitnessFilter,
                  JitDataManager& store, read_ahead_t ahead)
        : m_files(files), m_mode(mode), m_bitnessFilter(bitnessFilter), m_store(store), m_readAhead(ahead),
          m_ahead(files.size())
    {
    }

    void run(const std::function<void(std::size_t, velmark_error_t)>& fileDone)
    {
        std::thread helper;
        if (m_readAhead == read_ahead_t::helper && m_files.size() > 1 && std::thread::hardware_concurrency() > 1) {
            try {
                helper = std::thread([this] { helperLoop(); });
            } catch (const std::system_error&) {
                // No thread to spare: every file is read in turn.
            }
        }
        struct StopHelper {
            ManyFilesRead& read;
            std::thread& helper;
            ~StopHelper()
            {
                read.m_nextClaim.store(read.m_files.size());
                if (helper.joinable())
                    helper.join();
            }
        } stopHelper{*this, helper};

        // Lookups share the store; the files of one process are read with the store to themselves.
        std::unique_lock<std::shared_mutex> storeLock(m_store.accessMutex(), std::defer_lock);
        for (std::size_t k = 0; k < m_files.size(); ++k) {
            if (k == 0 || m_files[k].processId != m_files[k - 1].processId ||
                m_files[k].hostId != m_files[k - 1].hostId) {
                if (storeLock.owns_lock())
                    storeLock.unlock();
                storeLock.lock();
            }
            fileDone(k, take(k));
        }
    }

private:
    std::size_t claimNext() { return m_nextClaim.fetch_add(1); }

    std::unique_ptr<JitFileDecoder> open(std::size_t i) const
    {
        const JitFileRead& file = m_files[i];
        auto decoder =
            std::make_unique<JitFileDecoder>(file.path, file.processId, file.hostId, file.firstJitRva, m_mode);
        if (file.closedRange)
            decoder->setOverflowWindow(file.rangeEnd, file.fileIndex);
        return decoder;
    }

    /// Settings for decoding on the store's thread: its arena, and the store to search.
    void forStore(JitFileDecoder& decoder)
    {
        decoder.setSearchRegionCallback(&m_store);
        decoder.setCodeArena(&m_store.codeArena());
    }

    void helperLoop()
    {
        for (std::size_t i = claimNext(); i < m_files.size(); i = claimNext())
            decodeAhead(i, m_helperArena);
    }

    /// Decodes file `i` into its steps, up to a range update if there is one, its code bytes into
    /// `arena`, which belongs to the calling thread.
    void decodeAhead(std::size_t i, CodeArena& arena)
    {
        AheadFile& file = m_ahead[i];
        try {
            if (!m_files[i].path.empty()) {
                logging::DeferredLog::Capture capture(file.log); // the decoder logs from its making on
                file.decoder = open(i);
                file.decoder->setCodeArena(&arena);
                file.source = std::make_unique<StepDecoder>(*file.decoder, m_bitnessFilter);
                Step step;
                for (;;) {
                    const StepDecoder::outcome_t outcome = file.source->next(step);
                    if (outcome == StepDecoder::outcome_t::end)
                        break;
                    if (outcome == StepDecoder::outcome_t::storeNeeded) {
                        file.storeNeeded = true;
                        break;
                    }
                    if (outcome == StepDecoder::outcome_t::step) {
                        file.steps.push_back(std::move(step));
                        file.log.nextStep();
                    }
                }
            }
        } catch (...) {
            file.failure = std::current_exception();
        }
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            file.ready = true;
        }
        m_readyChanged.notify_all();
    }

    /// Reads file `k` into the store.
    velmark_error_t take(std::size_t k)
    {
        if (m_files[k].path.empty())
            return meInvalidArgument;
        AheadFile& file = m_ahead[k];
        for (;;) {
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                if (file.ready)
                    break;
            }
            // Claims go in order, so a claim of k means that nobody decodes it yet; a claim of an
            // earlier file can only be one skipped for its empty path, which costs nothing.
            const std::size_t next = claimNext();
            if (next == k && m_readAhead != read_ahead_t::everyFile)
                return readInTurn(k);
            if (next < m_files.size())
                decodeAhead(next, m_store.codeArena());
            else {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_readyChanged.wait(lock, [&file] { return file.ready; });
            }
        }
        const velmark_error_t result = takeAhead(file);
        file = AheadFile(); // the file closes, and what the store didn't keep goes
        return result;
    }

    velmark_error_t readInTurn(std::size_t k)
    {
        const std::unique_ptr<JitFileDecoder> decoder = open(k);
        forStore(*decoder);
        return readJitFile(*decoder, m_bitnessFilter, m_store);
    }

    /// Feeds a file decoded ahead to the store, each of its decoding's log lines where reading in
    /// turn would have written it, and reads in turn from a range update on.
    velmark_error_t takeAhead(AheadFile& file)
    {
        if (!file.source) // the decoder could not be made
            std::rethrow_exception(file.failure);
        forStore(*file.decoder);
        StoreFeeder feeder(*file.decoder, m_store);
        for (std::size_t i = 0; i < file.steps.size(); ++i) {
            file.log.writeThrough(i);
            if (i + 1 < file.steps.size() && file.steps[i + 1].method)
                m_store.expectMethod(file.steps[i + 1].method->getMethodId());
            const velmark_error_t result = feeder.apply(file.steps[i]);
            if (result != meSuccess)
                return result;
        }
        file.log.writeAll();
        if (file.failure)
            std::rethrow_exception(file.failure);
        if (file.storeNeeded)
            feeder.rangeUpdate(file.source->record());
        // Reads on after a range update; at the end, only the end work is left.
        return feeder.drain(*file.source);
    }

    const std::vector<JitFileRead>& m_files;
    decoding_mode_t m_mode;
    unsigned int m_bitnessFilter;
    JitDataManager& m_store;
    read_ahead_t m_readAhead;
    std::vector<AheadFile> m_ahead;
    std::atomic<std::size_t> m_nextClaim{0};
    std::mutex m_mutex;
    std::condition_variable m_readyChanged;
    CodeArena m_helperArena; // the store's arena is the calling thread's alone
};

} // namespace

velmark_error_t readJitFile(JitFileDecoder& decoder, unsigned int bitnessFilter, JitDataManager& dataManager)
{
    StepDecoder source(decoder, bitnessFilter);
    return StoreFeeder(decoder, dataManager).drain(source);
}

void readJitFiles(const std::vector<JitFileRead>& files, decoding_mode_t mode, unsigned int bitnessFilter,
                  JitDataManager& dataManager, const std::function<void(std::size_t, velmark_error_t)>& fileDone,
                  read_ahead_t ahead)
{
    ManyFilesRead(files, mode, bitnessFilter, dataManager, ahead).run(fileDone);
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
