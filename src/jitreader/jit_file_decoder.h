// Reads one .jit trace file frame by frame and decodes the records into raw methods.
#pragma once

#include <fstream>
#include <string>
#include <unordered_map>
#include <vector>

#include <boost/intrusive_ptr.hpp>

#include "jitreader/code_arena.h"
#include "jitreader/error.h"
#include "jitreader/jit_method.h"
#include "jitreader/module.h"
#include "jitreader/range.h"
#include "jitreader/region.h"

namespace velmark_3_11 {

/// Frame types of a trace file.
enum jit_trace_type_t : unsigned int {
    jtFunctionLoad32 = 0,
    jtFunctionLoad64 = 2,
    jtFunctionLoad32_v1 = 4,
    jtFunctionLoad64_v1 = 5,
    jtFunctionLoad32_v2 = 6,
    jtFunctionLoad64_v2 = 7,
    jtFunctionLoad32_v3 = 8,
    jtFunctionLoad64_v3 = 9,
    jtFunctionUpdate = 10,
    jtFunctionInlineLoad32 = 11,
    jtFunctionInlineLoad64 = 12,
    jtCollectorType = 13,
    jtFunctionUpdate_v2 = 14,
    jtMagic = 0x00400000,
};

/// The value of a CollectorType frame that marks traces of the JIT profiler.
enum collector_type_t : unsigned int {
    ctDefault = 0,
    ctJitProfiler = 1,
};

/// One frame of a trace file.
struct Record {
    unsigned long long position = 0; ///< file offset of the frame's type field
    unsigned int type = 0;
    std::vector<unsigned char> data; ///< the payload; the value bytes for Magic and CollectorType
};

/// How much of a record is decoded; used as a bit set.
enum decoding_mode_t : unsigned int {
    decoding_mode_full = 1,    ///< code bytes are kept
    decoding_mode_modules = 2, ///< no code bytes; old load forms stop at the module
};

class JitFileDecoder {
public:
    /// How a decoder finds the region that an update record refers to.
    class SearchRegionCallback {
    public:
        /// meSuccess when a region of a known method covers `address` at `timestamp`.
        virtual velmark_error_t searchRegion(unsigned long long address, unsigned long long timestamp,
                                             unsigned int processId, unsigned int hostId,
                                             boost::intrusive_ptr<Region>& region,
                                             boost::intrusive_ptr<JitMethod>& method) const = 0;
        /// Told a record's method id as soon as it is known, before the rest of the record is
        /// decoded, so that what the record's arrival will look up can be fetched meanwhile.
        virtual void expectMethod(const MethodId& /*id*/) const {}

    protected:
        ~SearchRegionCallback() = default;
    };

    /// Opens `path`; a file that can't be opened shows at the first getNextRecord.
    JitFileDecoder(const std::wstring& path, unsigned int processId, unsigned int hostId,
                   unsigned long long firstJitRva, decoding_mode_t mode);
    ~JitFileDecoder();
    JitFileDecoder(const JitFileDecoder&) = delete;
    JitFileDecoder& operator=(const JitFileDecoder&) = delete;

    /// Reads the next frame: meSuccess, meEndOfTrace at a clean end, meBadTrace for a corrupt
    /// frame, meOpenFailed when the file isn't open.
    velmark_error_t getNextRecord(Record& record);

    /// Load form 1 (types 0 and 2).
    bool decodeMethodLoadRecord(const Record& record, boost::intrusive_ptr<JitMethod>& method);
    /// Load form 2 (types 4 and 5).
    bool decodeMethodLoadRecordV1(const Record& record, boost::intrusive_ptr<JitMethod>& method);
    /// Load form 3 (types 6 and 7).
    bool decodeMethodLoadRecordV2(const Record& record, boost::intrusive_ptr<JitMethod>& method);
    /// Load form 4 (types 8, 9 and 10); `isInline`, when not null, receives the isInline byte.
    bool decodeMethodLoadRecordV3(const Record& record, boost::intrusive_ptr<JitMethod>& method,
                                  unsigned char* isInline);
    /// Inline form (types 11 and 12).
    bool decodeMethodInlineLoadRecord(const Record& record, boost::intrusive_ptr<JitMethod>& method) const;
    /// Update form (type 14).
    bool decodeMethodUpdateRecordV2(const Record& record, boost::intrusive_ptr<JitMethod>& method) const;

    void setSearchRegionCallback(const SearchRegionCallback* callback) { m_searchRegionCallback = callback; }
    /// Where kept code bytes go: the store's arena, so that all files share its chunks. Without
    /// this call the decoder uses an arena of its own.
    void setCodeArena(CodeArena* arena) { m_sharedArena = arena; }

    unsigned int processId() const { return m_pid; }
    unsigned int hostId() const { return m_hostId; }
    decoding_mode_t mode() const { return m_mode; }
    unsigned int collectorType() const { return m_collectorType; }
    /// True when load form 4 records named both module architecture 0 and 1.
    bool bothArchitecturesSeen() const { return m_arch0Seen && m_arch1Seen; }

    /// Where overflow windows begin, and how long each is. The jit rvas of every file lie below
    /// kOverflowWindowBase, so the windows collide with no file.
    static constexpr unsigned long long kOverflowWindowBase = 1ull << 48;
    static constexpr unsigned long long kOverflowWindowSize = 1ull << 32;

    /// Closes the file's range at `rangeEnd`: a file that is not the last one registered takes
    /// what does not fit there from its overflow window, the `fileIndex`-th. Without this call the
    /// range is open up to the first window, as the last file's is.
    void setOverflowWindow(unsigned long long rangeEnd, unsigned int fileIndex);

    /// Returns the jit rva counter and then advances it by `size`. When `size` jit rvas don't fit
    /// into the file's range, the counter moves once to the file's overflow window; when they fit
    /// there neither, the request is refused with an ERROR naming the file, the counter stays,
    /// and the result is kInvalidJitRva.
    unsigned long long allocJitRva(unsigned int size) const;

private:
    /// The load forms, in the order in which they appeared.
    enum load_form_t { lfPlain = 1, lfWideCounts = 2, lfMethodId = 3, lfInlineFlag = 4 };

    /// The one algorithm behind the four load decoders; `form` tells their differences.
    bool decodeLoadRecord(const Record& record, JitMethod& method, unsigned char* isInline, load_form_t form);
    /// The module of that path, type and architecture.
    const boost::intrusive_ptr<Module>& moduleOf(const std::wstring& path, unsigned int type, unsigned int arch) const;
    /// The class name of a record, printed as Java prints it when `java`, and joined; shared by
    /// the methods of the file. Null for an empty name.
    SharedText classNameOf(const std::string& className, bool java) const;
    /// The source file of a record, shared by the methods of the file.
    std::shared_ptr<const SourceFile> sourceFileOf(const std::string& name, const std::string& checksum,
                                                   unsigned int checksumType, unsigned int languageType) const;
    /// Prints Java names, stores class and name, and gives the method its module.
    void storeNamesAndModule(JitMethod& method, std::string name, std::string className, std::wstring modulePath,
                             unsigned int languageType, unsigned int arch) const;

    std::wstring m_path;
    // The stream's read buffer; declared first so that it outlives the stream.
    std::vector<char> m_readBuffer;
    std::ifstream m_stream;
    unsigned long long m_position;
    decoding_mode_t m_mode;
    unsigned int m_hostId;
    unsigned int m_pid;
    unsigned int m_collectorType;
    mutable unsigned long long m_nextJitRva;
    // The end of the space the counter runs in now, and the overflow window that it moves to
    // when that is used up (0: none, or already moved).
    mutable unsigned long long m_jitRvaEnd;
    mutable unsigned long long m_overflowWindow;
    MethodIdMaker m_methodIdMaker;
    const SearchRegionCallback* m_searchRegionCallback;
    /// Where code bytes go: the arena in the full mode, nowhere in the others.
    CodeArena* codeArena() const
    {
        if ((m_mode & decoding_mode_full) == 0)
            return nullptr;
        return m_sharedArena != nullptr ? m_sharedArena : &m_codeArena;
    }

    mutable CodeArena m_codeArena;
    CodeArena* m_sharedArena = nullptr;
    mutable boost::intrusive_ptr<Module> m_lastModule;
    mutable std::wstring m_lastModulePath; // as the record gave it, before "[Dynamic code]" stands in
    mutable std::unordered_map<std::string, SharedText> m_classNames;
    mutable std::unordered_map<std::string, std::shared_ptr<const SourceFile>> m_sourceFiles;
    mutable std::string m_textKey; // scratch space for the keys of both
    bool m_arch0Seen;
    bool m_arch1Seen;
    // Where the stream stands, so that a frame that follows the previous one needs no seek (a seek
    // drops the stream's read buffer); kUnknownPosition after a failed read.
    unsigned long long m_streamPosition;
    // Size of the file when it was opened: a size field that asks for more than the file holds
    // reads what is there, without allocating the rest.
    unsigned long long m_fileSize;
};

} // namespace velmark_3_11
