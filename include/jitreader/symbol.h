// What the analyser sees of a resolved point: methods, code regions, modules, source files.
#pragma once

#include <boost/intrusive_ptr.hpp>
#include <boost/shared_ptr.hpp>

#include "basekit2/generic_iterator.h"
#include "jitreader/base_object.h"
#include "jitreader/error.h"
#include "jitreader/export.h"

namespace velmark_3_11 {

class ICodeRegion;
class IModule;
class ISourceFile;
class ISourceLocation;
class ISymbol;

/// One row of a line table: [start, end) and a value. Kind 0 maps native offsets to IL
/// offsets, kind 1 IL offsets to source lines, kind 2 native offsets to source lines.
struct LineNumberEntry {
    unsigned int start;
    unsigned int end;
    unsigned int value;
};

/// A byte buffer, held through boost::shared_ptr.
class JITREADER_API IByteBuffer {
public:
    /// Logical size in bytes.
    virtual unsigned int getSize() = 0;
    /// The bytes; null when the size is 0.
    virtual const void* getData() = 0;
    /// Replaces the content by `size` bytes of `data`; null data or size 0 empties it.
    virtual void setData(const void* data, unsigned int size) = 0;

    /// A new empty buffer.
    static boost::shared_ptr<IByteBuffer> create();
};

/// A module: the file (or "[Dynamic code]") that a method belongs to.
class IModule : public BaseObject {
protected:
    ~IModule() override = default;

public:
    /// The module path.
    virtual const wchar_t* getName() const = 0;
    /// 0 for dynamic or Java code and for traces of the JIT profiler, else 4.
    virtual unsigned int getType() const = 0;
    /// The architecture, a velmark_arch value.
    virtual unsigned int getArch() const = 0;
};

/// A source file with its checksum and language.
class JITREADER_API ISourceFile : public BaseObject {
protected:
    ~ISourceFile() override = default;

public:
    /// File name.
    virtual const wchar_t* getName() const = 0;
    /// Checksum as hexadecimal text.
    virtual const wchar_t* getChecksum() const = 0;
    /// Kind of checksum, as the agent numbers it.
    virtual unsigned int getChecksumType() const = 0;
    /// Reserved; always 0.
    virtual unsigned int getReserved0() const = 0;
    /// Reserved; always 0.
    virtual unsigned int getReserved1() const = 0;
    /// Language of the source; 5 is Java.
    virtual unsigned int getLanguageType() const = 0;
};

/// A source line with its file.
class JITREADER_API ISourceLocation : public BaseObject {
protected:
    ~ISourceLocation() override = default;

public:
    /// The line number.
    virtual unsigned int getLine() const = 0;
    /// A new copy of the source file.
    virtual boost::intrusive_ptr<ISourceFile> getSourceFile() const = 0;
};

/// One contiguous range of a method's machine code, loaded at one time.
class JITREADER_API ICodeRegion : public BaseObject {
protected:
    ~ICodeRegion() override = default;

public:
    /// First jit rva of the region.
    virtual unsigned long long startJitRva() const = 0;
    /// Load time stamp.
    virtual unsigned long long loadTime() const = 0;
    /// Time stamp at which newer code took over; 0 while live.
    virtual unsigned long long unloadTime() const = 0;
    /// Instruction address of the first byte.
    virtual unsigned long long startAddress() const = 0;
    /// Size in bytes.
    virtual unsigned int length() const = 0;
    /// Process id.
    virtual unsigned int processId() const = 0;
    /// Host id, as the trace file registry gave it.
    virtual unsigned int hostId() const = 0;
    /// The code bytes; null when they were not kept.
    virtual boost::shared_ptr<IByteBuffer> getContent() const = 0;
    /// The method inlined at that jit rva; null when none.
    virtual boost::intrusive_ptr<ISymbol> getInlinedMethod(unsigned long long jitRva) const = 0;
    /// The region of the piece inlined at that jit rva; null when none.
    virtual boost::intrusive_ptr<ICodeRegion> getInlinedRegion(unsigned long long jitRva) const = 0;
};

/// A JIT-compiled method.
class JITREADER_API ISymbol : public BaseObject {
protected:
    ~ISymbol() override = default;

public:
    /// The .NET metadata token; 0 when the method has none.
    virtual unsigned int getMetadataToken() const = 0;
    /// Short name; empty text when unset, never null.
    virtual const wchar_t* getName() const = 0;
    /// Name with parameter list; empty text when unset.
    virtual const wchar_t* getFullName() const = 0;
    /// Class name, parts joined with "::"; empty text when unset.
    virtual const wchar_t* getClassName() const = 0;
    /// The module; null when none was set.
    virtual boost::intrusive_ptr<IModule> getModule() const = 0;
    /// A new copy of the source file; null when the file has no name.
    virtual boost::intrusive_ptr<ISourceFile> getSourceFile() const = 0;
    /// The code regions, in arrival order.
    virtual basekit2::generic_iterator_t<boost::intrusive_ptr<ICodeRegion>> getCodeRegions() const = 0;
    /// The instruction address of a jit rva; meFail when no region holds it.
    virtual velmark_error_t getVirtualAddress(unsigned long long jitRva, unsigned long long* address) const = 0;
    /// The process of the region that holds the jit rva; meFail when none does.
    virtual velmark_error_t getProcessId(unsigned long long jitRva, unsigned int* processId) const = 0;
    /// Load time stamp of the method (the earliest of its records).
    virtual unsigned long long getLoadTime() const = 0;
    /// Always 0: methods carry no unload time of their own.
    virtual unsigned long long getUnloadTime() const = 0;
    /// One line table (kind 0, 1 or 2) of the code range that holds `jitRva` (0: the first).
    /// With null `rows` the row count goes to `*count`.
    virtual velmark_error_t getLineNumberInfo(unsigned int kind, LineNumberEntry* rows, unsigned int* count,
                                              unsigned long long jitRva) = 0;
    /// Rows carrying the lowest and the highest source line.
    virtual velmark_error_t getLineNumberRange(LineNumberEntry* first, LineNumberEntry* last,
                                               unsigned long long jitRva) = 0;
    /// The source line of a jit rva; null when unknown.
    virtual boost::intrusive_ptr<ISourceLocation> getSourceLocation(unsigned long long jitRva) const = 0;
    /// The jit rva at which the method's first region starts.
    virtual unsigned long long getStartJitRva() const = 0;
    /// The method id as the trace gave it.
    virtual unsigned int getRawMethodId() const = 0;
};

} // namespace velmark_3_11

namespace basekit2 {
template <>
struct iterator_element_name_t<boost::intrusive_ptr<velmark_3_11::ISymbol>> {
    static const char* get() { return "boost::intrusive_ptr<velmark_3_11::ISymbol>"; }
};
template <>
struct iterator_element_name_t<boost::intrusive_ptr<velmark_3_11::ICodeRegion>> {
    static const char* get() { return "boost::intrusive_ptr<velmark_3_11::ICodeRegion>"; }
};
} // namespace basekit2
