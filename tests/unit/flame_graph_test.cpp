// The flame graph: kinds of frames, the tree of frames, text cut and escaped for SVG. The
// demo's picture and the command's refusals are tests/tool/tool_output_test.py's.
#include <sstream>

#include <gtest/gtest.h>

#include "flame_graph.h"

namespace jitreader_tool {
namespace {

Stack stack(std::vector<StackFrame> frames, std::size_t count, PointStatus status = PointStatus::resolved)
{
    return Stack{status, "", 0, "", std::move(frames), count};
}

/// "name samples [children]", depth first.
std::string shape(const FlameNode& node)
{
    std::string text = node.name + " " + std::to_string(node.samples);
    for (const FlameNode& child : node.children)
        text += (&child == &node.children.front() ? " [" : ", ") + shape(child);
    return text + (node.children.empty() ? "" : "]");
}

std::string svgOf(const std::vector<Stack>& stacks, unsigned int width)
{
    std::ostringstream out;
    writeFlameGraph(out, buildFlameTree(stacks), FlameGraphOptions{"t", width});
    return out.str();
}

TEST(FlameGraph, FrameKindComesFromTheSourceFileThenTheModule)
{
    const struct { const char *source, *module; FrameKind kind; } cases[] = {
        {"Cart.java", "[Compiled Java code]", FrameKind::java}, {"/src/Main.KT", "", FrameKind::java},
        {"C:\\src\\Shop.Core.Cart.cs", "/opt/shop/Shop.Core.dll", FrameKind::dotnet},
        {"parser.c", "/usr/lib/legacy/parser.dll", FrameKind::otherJit}, // the source decides
        {"", "[Compiled Java code]", FrameKind::java}, {"", "C:\\app\\Foo.EXE", FrameKind::dotnet},
        {"v1.2/README", "x.dll", FrameKind::dotnet}, {"", "", FrameKind::otherJit}, // a folder has no extension
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.kind, frameKind(StackFrame{"m", c.module, c.source, 1})) << c.source << " " << c.module;
}

TEST(FlameGraph, TreeMergesFramesByNameAndModuleAndLeavesOutSlivers)
{
    const std::string java = "[Compiled Java code]";
    const std::vector<Stack> stacks = {
        stack({{"A", java, "A.java", 1}}, 3), stack({{"A", java, "A.java", 2}}, 2),
        stack({{"A", java, "A.java", 7}, {"B", java, "B.java", 40}}, 4),
        stack({{"A", java, "A.java", 7}, {"B", java, "B.java", 41}, {"C", java, "C.java", 9}}, 1),
        stack({{"A", "other.dll", "", 0}}, 1), // same name, other module: a frame of its own
        stack({{"D", "", "", 0}}, 1), stack({}, 2, PointStatus::noCode), stack({}, 1, PointStatus::unknownHost),
    };
    const FlameNode root = buildFlameTree(stacks);
    EXPECT_EQ("all 15 [A 10 [B 5 [C 1]], A 1, D 1, [no-code] 2, [unknown-host] 1]", shape(root));
    const std::string svg = svgOf(stacks, 1200);
    EXPECT_NE(std::string::npos, svg.find("<title>A\nat A.java:7 (5), 1 (3), 2 (2)\nJava in [Compiled Java code]\n"
                                          "10 samples, 66.67%, 5 self</title>"))
        << svg;

    // One sample in 100001 is under a tenth of a pixel: it, and what stands on it, is left out.
    const std::string slim =
        svgOf({stack({{"big", "", "", 0}}, 100000), stack({{"tiny", "", "", 0}, {"up", "", "", 0}}, 1)}, 200);
    EXPECT_EQ(std::string::npos, slim.find("tiny"));
    EXPECT_NE(std::string::npos, slim.find("height=\"126\"")) << "two rows of frames";
}

TEST(FlameGraph, TextIsEscapedAndCutByCharacters)
{
    const struct { std::string text, xml; } escapes[] = {
        {"Map<K,V>::get & \"put\" 'x'", "Map&lt;K,V&gt;::get &amp; &quot;put&quot; &apos;x&apos;"},
        {"tab\tline\nbell\x07", "tab\tline\nbell\xEF\xBF\xBD"},
        // A cut sequence, a surrogate and an overlong '/' are no UTF-8; a real emoji is.
        {"a\xC3( \xED\xA0\x80 \xC0\xAF \xF0\x9F\x94\xA5",
         "a\xEF\xBF\xBD( \xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD \xEF\xBF\xBD\xEF\xBF\xBD \xF0\x9F\x94\xA5"},
    };
    for (const auto& c : escapes)
        EXPECT_EQ(c.xml, xmlText(c.text)) << c.text;

    const struct { std::string text; std::size_t characters; std::string fitted; } cuts[] = {
        {"Catalog::groupBy", 16, "Catalog::groupBy"}, {"Catalog::groupBy", 8, "Catalog\xE2\x80\xA6"},
        {"Catalog::groupBy", 2, ""}, {"", 0, ""},
        {"Gr\xC3\xB6\xC3\x9F" "e::\xC3\xB6" "ffnen", 4, "Gr\xC3\xB6\xE2\x80\xA6"}, // no cut inside a character
    };
    for (const auto& c : cuts)
        EXPECT_EQ(c.fitted, fitText(c.text, c.characters)) << c.text << " in " << c.characters;
}

} // namespace
} // namespace jitreader_tool
