#include <gtest/gtest.h>

#include "e2e_util.h"

using namespace velmark_3_11;
using namespace tracewriter;

namespace {

InlineLoad inlined(std::uint32_t id, std::uint32_t parent, std::uint64_t address, std::uint32_t size,
                   const std::string& name, std::uint32_t line)
{
    return InlineLoad{id,   parent, 100, 1, address, size, e2e::code(size), "", 1, name, "Lcom/example/Inner;",
                      "Inner.java", 5, {{0, size, line}}};
}

TEST(InlineFrames, InlinesArrivingBeforeTheirParentsResolveToTheirFramesInAnyFileOfTheStore)
{
    // J is inlined into I, and I into P; the records arrive as J, I, P. Another process's file
    // follows, so that every file of process 7 is finalised more than once.
    TraceWriter inlines, parent, other;
    inlines.magic()
        .collectorType(1)
        .inlineLoad(kFunctionInlineLoad64, inlined(3, 2, 0x1020, 0x10, "size()I", 300))
        .inlineLoad(kFunctionInlineLoad64, inlined(2, 1, 0x1010, 0x40, "get(I)Ljava/lang/Object;", 200));
    parent.magic().collectorType(1).load(kFunctionLoad64_v3, e2e::method(1, 0x1000, 0x100, 100, "run", 10));
    other.magic().load(kFunctionLoad64_v3, e2e::method(1, 0x1000, 0x40, 100, "other"));
    TraceWriter oneFile = inlines;
    oneFile.raw(TraceWriter().collectorType(1).load(kFunctionLoad64_v3, e2e::method(1, 0x1000, 0x100, 100, "run", 10)).bytes());

    const struct {
        const char* name;
        std::vector<std::pair<std::string, const TraceWriter*>> files;
        unsigned long long parentBase; // the parent's first jit rva
    } layouts[] = {
        {"one file", {{"a/host.7.jit", &oneFile}, {"b/host.8.jit", &other}}, 1},
        {"parent in a later file than its inlines",
         {{"a/host.7.jit", &inlines}, {"b/host.7.jit", &parent}, {"b/host.8.jit", &other}},
         1 + inlines.size()},
    };
    const struct {
        unsigned long long address;
        std::vector<std::pair<std::wstring, unsigned int>> frames; // name, line
    } samples[] = {
        {0x1004, {{L"App::Main::run", 10}}},
        {0x1014, {{L"App::Main::run", 11}, {L"com::example::Inner::get", 200}}},
        {0x1024, {{L"App::Main::run", 12}, {L"com::example::Inner::get", 200}, {L"com::example::Inner::size", 300}}},
        {0x104f, {{L"App::Main::run", 14}, {L"com::example::Inner::get", 200}}},
        {0x1050, {{L"App::Main::run", 15}}},
    };
    for (const auto& layout : layouts) {
        SCOPED_TRACE(layout.name);
        jrtest::TempDir root;
        for (const auto& file : layout.files)
            root.write(file.first, file.second->bytes());
        auto resolver = e2e::resolverOf(e2e::dirs(root, {"a", "b"}));
        auto loader = e2e::loaderOf(e2e::dirs(root, {"a", "b"}));
        ASSERT_TRUE(resolver && loader);
        for (const auto& sample : samples) {
            unsigned long long jitRva = 0;
            boost::intrusive_ptr<IModule> module;
            ASSERT_EQ(meSuccess, loader->resolveModule(150, sample.address, 7, 1, &jitRva, module));
            EXPECT_EQ(layout.parentBase + sample.address - 0x1000, jitRva);
            std::vector<std::pair<std::wstring, unsigned int>> frames;
            for (const e2e::Frame& frame : e2e::framesAt(*resolver, jitRva))
                frames.emplace_back(frame.name, frame.line);
            EXPECT_EQ(sample.frames, frames) << std::hex << sample.address;
        }
    }
}

} // namespace
