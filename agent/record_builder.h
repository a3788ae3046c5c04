// Turns what the Java virtual machine tells about one compiled method (its code, the methods
// inlined at each pc, the line number tables) into a load record and its inline records.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tracewriter/trace_writer.h"

namespace jitagent {

/// What the agent knows of a Java method, as the virtual machine gives it.
struct JavaMethod {
    std::string name;        ///< name with its descriptor: "run(I)V"
    std::string classSignature; ///< "Ljitdemo/Hot;"
    std::string sourceFile;  ///< "Hot.java", or empty
    /// (first bytecode index, line) pairs in any order.
    std::vector<std::pair<std::uint32_t, std::uint32_t>> lines;
    std::uint32_t bytecodeLength = 0; ///< end of the last line's bytecode range
};

/// One frame of the virtual machine's stack at a pc: a method (the agent's key for it) and the
/// bytecode index in it.
struct StackFrame {
    std::uint64_t method = 0;
    std::uint32_t bci = 0;
};

/// The inlining state at one pc of the code: frames outermost first, the compiled method
/// itself at index 0.
struct PcStack {
    std::uint64_t pc = 0;
    std::vector<StackFrame> frames;
};

/// One entry of the virtual machine's map from code addresses to bytecode indexes of the
/// compiled method.
struct AddressLocation {
    std::uint64_t address = 0;
    std::uint32_t bci = 0;
};

/// One compiled method as the virtual machine reports it.
struct CompiledCode {
    std::uint64_t method = 0; ///< key of the compiled method
    std::uint64_t address = 0;
    std::uint32_t size = 0;
    const std::uint8_t* bytes = nullptr; ///< `size` bytes at `address`
    std::vector<PcStack> pcs;
    /// Gives the compiled method's own bytecode indexes when present; else the outermost
    /// frames of `pcs` do.
    std::vector<AddressLocation> addressMap;
};

/// A load record and the inline records of one compiled method, parents before children.
struct MethodRecords {
    tracewriter::MethodLoad load;
    std::vector<tracewriter::InlineLoad> inlines;
};

/// Builds records. Not thread-safe by itself: the callers give each event its own builder or
/// serialise; the id source passed in must be thread-safe if it is shared.
class RecordBuilder {
public:
    /// Looks a method up by its key; null when the virtual machine gave nothing for it.
    typedef std::function<const JavaMethod*(std::uint64_t)> MethodLookup;
    /// Hands out raw method ids, never 0.
    typedef std::function<std::uint32_t()> IdSource;

    RecordBuilder(MethodLookup lookup, IdSource ids);

    /// The records of one compiled method loaded at `loadTime`.
    MethodRecords compiledMethod(const CompiledCode& code, std::uint64_t loadTime) const;
    /// The load record of a stub of the virtual machine.
    tracewriter::MethodLoad stub(const std::string& name, std::uint64_t address, std::uint32_t size,
                                 const std::uint8_t* bytes, std::uint64_t loadTime) const;

    /// The line of `bci` in `method`: that of the entry with the greatest start at or below it,
    /// 0 when there is none.
    static std::uint32_t lineOf(const JavaMethod& method, std::uint32_t bci);
    /// Text cut to what a string field of a trace carries, at a character boundary.
    static std::string fieldText(const std::string& text);

private:
    MethodLookup m_lookup;
    IdSource m_ids;
};

} // namespace jitagent
