#include "symbols.h"

#include "platform/text.h"

using namespace velmark_3_11;

namespace jitreader_tool {

std::string qualifiedName(const ISymbol& symbol)
{
    const std::string name = toUtf8(symbol.getName());
    const std::string className = toUtf8(symbol.getClassName());
    // Names made from a class already carry it in front.
    if (className.empty() || name.compare(0, className.size() + 2, className + "::") == 0)
        return name.empty() ? "(unnamed)" : name;
    return className + "::" + (name.empty() ? "(unnamed)" : name);
}

std::string moduleName(const ISymbol& symbol)
{
    const boost::intrusive_ptr<IModule> module = symbol.getModule();
    return module ? toUtf8(module->getName()) : std::string();
}

std::string sourceFileName(const ISymbol& symbol)
{
    const boost::intrusive_ptr<ISourceFile> file = symbol.getSourceFile();
    return file ? toUtf8(file->getName()) : std::string();
}

void frameRefsAt(const boost::intrusive_ptr<ISymbol>& method, unsigned long long jitRva, std::vector<FrameRef>& frames)
{
    frames.assign(1, FrameRef{method, method->getSourceLocation(jitRva)});
    boost::intrusive_ptr<ICodeRegion> region;
    for (auto regions = method->getCodeRegions(); !regions.at_end(); regions.next()) {
        const boost::intrusive_ptr<ICodeRegion> candidate = regions.current();
        if (candidate->startJitRva() <= jitRva && jitRva - candidate->startJitRva() < candidate->length()) {
            region = candidate;
            break;
        }
    }
    // Descend through the inlines that hold the point; the depth is bounded by the data, and
    // a region never holds itself.
    while (region) {
        boost::intrusive_ptr<ISymbol> inlined = region->getInlinedMethod(jitRva);
        const boost::intrusive_ptr<ICodeRegion> inner = region->getInlinedRegion(jitRva);
        if (!inlined || !inner || inner == region)
            break;
        frames.push_back(FrameRef{inlined, inlined->getSourceLocation(jitRva)});
        region = inner;
    }
}

Frame frameOf(const FrameRef& ref)
{
    Frame frame;
    frame.symbol = ref.symbol;
    frame.source = sourceFileName(*ref.symbol);
    if (ref.location) {
        frame.line = ref.location->getLine();
        if (const boost::intrusive_ptr<ISourceFile> file = ref.location->getSourceFile())
            frame.source = toUtf8(file->getName());
    }
    return frame;
}

std::vector<Frame> framesAt(const boost::intrusive_ptr<ISymbol>& method, unsigned long long jitRva)
{
    std::vector<FrameRef> refs;
    frameRefsAt(method, jitRva, refs);
    std::vector<Frame> frames;
    for (const FrameRef& ref : refs)
        frames.push_back(frameOf(ref));
    return frames;
}

} // namespace jitreader_tool
