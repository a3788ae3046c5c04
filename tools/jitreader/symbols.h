// Text of what the library hands out: names, modules, source lines and inline frames.
#pragma once

#include <string>
#include <vector>

#include "jitreader/jitreader.h"

namespace jitreader_tool {

/// "Class::name", or the name alone when there is no class.
std::string qualifiedName(const velmark_3_11::ISymbol& symbol);
/// The module path, or "" when there is none.
std::string moduleName(const velmark_3_11::ISymbol& symbol);
/// The source file's name, or "".
std::string sourceFileName(const velmark_3_11::ISymbol& symbol);

/// One frame of a resolved point: a method and the source line of the point in it.
struct Frame {
    boost::intrusive_ptr<velmark_3_11::ISymbol> symbol;
    std::string source; ///< source file name, "" when unknown
    unsigned int line = 0; ///< 0 when unknown
};

/// One frame as the library's objects: a method and where the point lies in it.
struct FrameRef {
    boost::intrusive_ptr<velmark_3_11::ISymbol> symbol;
    boost::intrusive_ptr<velmark_3_11::ISourceLocation> location; ///< null when unknown
};

/// The frames at `jitRva` as objects, in the order of framesAt; nothing turned into text yet.
/// Into `frames`, whose storage a caller that asks for many points keeps.
void frameRefsAt(const boost::intrusive_ptr<velmark_3_11::ISymbol>& method, unsigned long long jitRva,
                 std::vector<FrameRef>& frames);

/// A frame in text: the source file and line of the point.
Frame frameOf(const FrameRef& ref);

/// The frames at `jitRva`: the method itself first, then the methods inlined into it at
/// that point, outermost to innermost.
std::vector<Frame> framesAt(const boost::intrusive_ptr<velmark_3_11::ISymbol>& method, unsigned long long jitRva);

} // namespace jitreader_tool
