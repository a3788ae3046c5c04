// One JIT-compiled method: the raw method of a record, or the merged method of the store.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <boost/container/flat_map.hpp>
#include <boost/container/small_vector.hpp>
#include <boost/intrusive_ptr.hpp>

#include "jitreader/line_table.h"
#include "jitreader/method_id.h"
#include "jitreader/module.h"
#include "jitreader/range.h"
#include "jitreader/region.h"
#include "jitreader/small_object_pool.h"
#include "jitreader/source_file.h"
#include "jitreader/symbol.h"

namespace velmark_3_11 {

/// Text that the methods of one class share, such as the class name.
typedef std::shared_ptr<const std::wstring> SharedText;

/// What doesn't change between versions of a method.
class BaseMethodInfo : public BaseObject {
public:
    unsigned int metadataToken = 0; // first, in the base's padding
    MethodId methodId;
    MethodId parentId;
    SharedText className; ///< null: none
    boost::intrusive_ptr<Module> module;
    std::shared_ptr<const SourceFile> sourceFile; ///< null: none

    /// Short and full name.
    struct Names {
        std::wstring name;
        std::wstring fullName;
        std::unique_ptr<const Names> older; ///< names replaced before these
    };
    /// The names, made from the name last given and the class name of that moment on first
    /// use: most methods of a store are never asked for theirs, and the two texts would cost
    /// more than the method.
    const Names& names() const;
    /// Takes a new name; the names made from the one before stay readable, as a reader may hold
    /// them, until the method goes.
    void setGivenName(const std::wstring& name);
    /// The same for a name in UTF-8 as a record gives it, printed as Java prints it when `java`.
    void setGivenName(std::string&& name, bool java);

    BaseMethodInfo() = default;
    ~BaseMethodInfo() override;
    JITREADER_POOLED_OBJECT(BaseMethodInfo)
    BaseMethodInfo(const BaseMethodInfo&) = delete;
    BaseMethodInfo& operator=(const BaseMethodInfo&) = delete;

private:
    /// Publishes `names` (null: made on first use); the ones before stay readable.
    void replaceNames(std::unique_ptr<Names> names);
    /// Short and full name of `given` in the class `m_givenClass`.
    std::unique_ptr<Names> makeNames(const std::wstring& given) const;

    /// A name in UTF-8 as a record gives it, often as a Java descriptor: a fifth of the space of
    /// the printed wide text, which most methods never need. A wide name is printed at once.
    class GivenText {
    public:
        GivenText() = default;
        ~GivenText() { clear(); }
        GivenText(const GivenText&) = delete;
        GivenText& operator=(const GivenText&) = delete;
        void assign(const std::string& text, bool java);
        void clear();
        bool empty() const { return !m_block; }
        bool java() const { return m_java; }
        std::string text() const;

    private:
        unsigned char* m_block = nullptr; // from the pool: the length as 4 bytes, then the text
        bool m_java = false;
    };
    GivenText m_givenText;
    SharedText m_givenClass;
    mutable std::atomic<Names*> m_names{nullptr};
    std::unique_ptr<const Names> m_replacedNames;
};

/// Kinds of line table.
enum line_table_kind_t : unsigned int {
    ltNativeToManaged = 0, ///< native offsets to IL offsets
    ltManagedToSource = 1, ///< IL offsets to source lines
    ltNativeToSource = 2,  ///< native offsets to source lines
};

/// The three line tables of one code range, by kind.
struct LineNumberInfo {
    LineTable tables[3];
};

class JitMethod : public ISymbol {
public:
    // Nearly every method has its tables for one code range: that entry lives in the method.
    typedef boost::container::small_flat_map<Range, LineNumberInfo, 1, Range::Comparator> LineNumberMap;

    JitMethod();
    ~JitMethod() override;
    JITREADER_POOLED_OBJECT(JitMethod)
    JitMethod(const JitMethod&) = delete;
    JitMethod& operator=(const JitMethod&) = delete;

    // ISymbol
    unsigned int getMetadataToken() const override { return m_info->metadataToken; }
    const wchar_t* getName() const override { return m_info->names().name.c_str(); }
    const wchar_t* getFullName() const override { return m_info->names().fullName.c_str(); }
    const wchar_t* getClassName() const override { return m_info->className ? m_info->className->c_str() : L""; }
    boost::intrusive_ptr<IModule> getModule() const override { return m_info->module; }
    boost::intrusive_ptr<ISourceFile> getSourceFile() const override;
    basekit2::generic_iterator_t<boost::intrusive_ptr<ICodeRegion>> getCodeRegions() const override;
    velmark_error_t getVirtualAddress(unsigned long long jitRva, unsigned long long* address) const override;
    velmark_error_t getProcessId(unsigned long long jitRva, unsigned int* processId) const override;
    unsigned long long getLoadTime() const override { return m_loadTime; }
    /// Methods have no unload time of their own; their regions have.
    unsigned long long getUnloadTime() const override { return 0; }
    velmark_error_t getLineNumberInfo(unsigned int kind, LineNumberEntry* rows, unsigned int* count,
                                      unsigned long long jitRva) override;
    velmark_error_t getLineNumberRange(LineNumberEntry* first, LineNumberEntry* last,
                                       unsigned long long jitRva) override;
    boost::intrusive_ptr<ISourceLocation> getSourceLocation(unsigned long long jitRva) const override;
    unsigned long long getStartJitRva() const override { return m_startJitRva; }
    unsigned int getRawMethodId() const override { return m_rawMethodId; }

    // Identity
    const MethodId& getMethodId() const { return m_info->methodId; }
    const MethodId& getParentId() const { return m_info->parentId; }
    void setMethodId(const MethodId& id) { m_info->methodId = id; }
    void setParentId(const MethodId& id) { m_info->parentId = id; }
    void setMetadataToken(unsigned int token) { m_info->metadataToken = token; }

    // Module, source file and names
    const boost::intrusive_ptr<Module>& module() const { return m_info->module; }
    void setModule(const boost::intrusive_ptr<Module>& module) { m_info->module = module; }
    /// The source file; one with an empty name when there is none.
    const SourceFile& sourceFile() const;
    /// Copies name, checksum, checksum type and language type.
    void setSourceFile(const ISourceFile& file);
    /// Takes the strings of `file` over.
    void setSourceFile(SourceFile&& file);
    /// Shares `file` with other methods.
    void setSourceFile(std::shared_ptr<const SourceFile> file) { m_info->sourceFile = std::move(file); }
    /// Splits at "." and joins with "::"; an empty name changes nothing.
    void setClassName(const std::wstring& name) { setClassName(joinClassName(name)); }
    /// Shares a class name that joinClassName made; null changes nothing.
    void setClassName(SharedText joined);
    /// `name` split at "." and joined with "::"; null for an empty name.
    static SharedText joinClassName(const std::wstring& name);
    /// Stores short and full name, qualified with the class; an empty name changes nothing.
    void setName(const std::wstring& name);
    /// The same for a name in UTF-8 as a record gives it, printed as Java prints it when `java`.
    void setName(std::string&& name, bool java);

    // Record fields
    void setStartJitRva(unsigned long long jitRva) { m_startJitRva = jitRva; }
    void setRawMethodId(unsigned int id) { m_rawMethodId = id; }
    unsigned int getRawParentId() const { return m_rawParentId; }
    void setRawParentId(unsigned int id) { m_rawParentId = id; }
    void setLoadTime(unsigned long long loadTime) { m_loadTime = loadTime; }
    bool isInlined() const { return m_isInlined; }
    void setInlined(bool inlined) { m_isInlined = inlined; }
    /// The method whose region tree took this one in as an inline; null before.
    JitMethod* inlinedInto() const { return m_inlinedInto; }
    void setInlinedInto(JitMethod* parent) { m_inlinedInto = parent; }
    /// Notes that inlines entered this method's regions since its inlines were last placed;
    /// true the first time only.
    bool markInlinesToPlace() { return !std::exchange(m_inlinesToPlace, true); }
    void clearInlinesToPlace() { m_inlinesToPlace = false; }
    /// Whether the inline cache took this method as a parent under its own id.
    bool filedAsParent() const { return m_filedAsParent; }
    void markFiledAsParent() { m_filedAsParent = true; }

    // Regions
    /// Nearly every method has one region: it lives in the method.
    typedef boost::container::small_vector<boost::intrusive_ptr<Region>, 1> RegionList;
    void addRegion(const boost::intrusive_ptr<Region>& region) { m_regions.push_back(region); }
    std::size_t regionCount() const { return m_regions.size(); }
    const RegionList& regions() const { return m_regions; }

    // Line number information
    /// Stores `rows` as the table of `kind` for the code range `key`. False when the rows are
    /// empty or the range already has a table of that kind.
    bool addLineNumberInfo(unsigned int kind, const std::vector<LineNumberEntry>& rows, const Range& key);
    /// The same for rows already encoded.
    bool addLineTable(unsigned int kind, LineTable&& rows, const Range& key);
    /// Merges every table of `other`; the first refusal ends the merge with false.
    bool addLineNumberInfo(const LineNumberMap& other);
    /// False for a method without regions; reports rows that run past the first region.
    bool validateLineNumberInfo() const;
    /// Places the line table keys at `base`: the first call moves them up by `base`, later calls
    /// by the difference to the base placed before.
    void normalizeLineNumberInfoJitRvaRanges(unsigned long long base);
    /// Reports at TRACE how the source file of `other` differs from this one's.
    void compareSymbolicInfoTo(const boost::intrusive_ptr<JitMethod>& other) const;
    const LineNumberMap& lineNumberInfo() const { return m_lineNumberInfo; }

    // Enrichment from the assembly
    /// Runs `enrich` under the method's enrichment lock unless an earlier run finished; `enrich`
    /// says whether it finished. A thread that finds a run under way waits for it and sees
    /// its result.
    template <class Enrich>
    void enrichOnce(Enrich&& enrich)
    {
        if (m_enriched.load(std::memory_order_acquire))
            return;
        const std::lock_guard<std::mutex> lock(lockFor(this, kEnrichLocks));
        if (m_enriched.load(std::memory_order_relaxed))
            return;
        if (enrich())
            m_enriched.store(true, std::memory_order_release);
    }

private:
    // A line query with a jit rva copies that range's tables over the first range's, and later
    // queries see them, so concurrent queries take turns; so do enrichments. A mutex in every
    // method would cost as much as its line rows, and the locks are taken seldom and briefly:
    // methods share a table of them, one table per purpose, so that a thread holding one kind
    // never waits for the other kind.
    static constexpr std::size_t kLineQueryLocks = 0;
    static constexpr std::size_t kEnrichLocks = 1;
    static std::mutex& lockFor(const JitMethod* method, std::size_t purpose);

    /// Finds the entry for `jitRva` (0: the first) and copies its tables over the first entry's.
    LineNumberInfo* selectLineNumberEntry(unsigned long long jitRva);

    // Ordered so that the store's millions of methods waste no padding.
    unsigned int m_rawMethodId = 0; // in the base's padding
    boost::intrusive_ptr<BaseMethodInfo> m_info;
    unsigned long long m_startJitRva = 0;
    unsigned long long m_loadTime = 0;
    unsigned int m_rawParentId = 0;
    bool m_isInlined = false;
    bool m_inlinesToPlace = false;
    bool m_filedAsParent = false;
    std::atomic<bool> m_enriched{false};
    RegionList m_regions;
    LineNumberMap m_lineNumberInfo;
    unsigned long long m_lineNumberBase = 0; // what finalisation added to the line table keys
    JitMethod* m_inlinedInto = nullptr; // owned through the store's maps, as this method is
};

/// The maker of method ids that the decoder offers; it keeps no state between calls.
class MethodIdMaker {
public:
    /// MD5 over "rawId.hostId.processId" (raw id not 0) or token, full name, class and module
    /// path (raw id 0), each followed by the module's architecture.
    MethodId makeMethodId(unsigned int rawId, const JitMethod& method) const;

private:
    // Scratch space, kept across calls: one maker serves one decoder's thread.
    mutable std::wstring m_text;
    mutable basekit2::md5_t m_md5;
};

} // namespace velmark_3_11

namespace velmark_3_11 {

/// Streams "(method id = <raw id>, name = <name>, load time = <load time>)", numbers in the
/// stream's own format.
struct MethodTag {
    explicit MethodTag(const JitMethod& method_) : method(method_) {}
    const JitMethod& method;
};
std::wostream& operator<<(std::wostream& stream, const MethodTag& tag);

} // namespace velmark_3_11
