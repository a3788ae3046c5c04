#include "flame_graph.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <tuple>

#include "table.h"

namespace jitreader_tool {
namespace {

constexpr double kPad = 10;          // left and right margin
constexpr double kFrameHeight = 16;  // one row of frames, with a pixel of gap
constexpr double kTop = 66;          // title, legend and search box
constexpr double kBottom = 28;       // the share of the search
constexpr double kCharWidth = 7.3;   // of 12 px DejaVu Sans Mono, a little generous
constexpr double kMinWidth = 0.1;    // narrower frames, and all above them, are left out

std::string lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool endsWith(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::string number(double value, const char* format = "%.2f")
{
    char text[32];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

std::string percent(std::size_t part, std::size_t whole)
{
    return number(whole ? 100.0 * static_cast<double>(part) / static_cast<double>(whole) : 0.0) + "%";
}

/// A steady shade per name, so that neighbours differ and a frame keeps its colour from run
/// to run (FNV-1a).
double shade(const std::string& name)
{
    std::uint32_t hash = 2166136261u;
    for (const char c : name)
        hash = (hash ^ static_cast<unsigned char>(c)) * 16777619u;
    return static_cast<double>(hash % 1000) / 1000.0;
}

std::string colour(FrameKind kind, const std::string& name)
{
    const double v = shade(name);
    int r = 0, g = 0, b = 0;
    switch (kind) {
    case FrameKind::java: r = 60 + int(v * 60), g = 170 + int(v * 50), b = 60 + int(v * 40); break;
    case FrameKind::dotnet: r = 150 + int(v * 40), g = 110 + int(v * 40), b = 215 + int(v * 35); break;
    case FrameKind::otherJit: r = 230 + int(v * 25), g = 140 + int(v * 60), b = 40 + int(v * 30); break;
    case FrameKind::unresolved: r = g = b = 165 + int(v * 25); break;
    case FrameKind::all: r = 215, g = 210, b = 195; break;
    }
    return "rgb(" + std::to_string(r) + "," + std::to_string(g) + "," + std::to_string(b) + ")";
}

const char* kindLabel(FrameKind kind)
{
    switch (kind) {
    case FrameKind::java: return "Java";
    case FrameKind::dotnet: return ".NET";
    case FrameKind::otherJit: return "other JIT code";
    case FrameKind::unresolved: return "unresolved";
    case FrameKind::all: break;
    }
    return "all samples";
}

/// One stack as the frames it draws, outermost first, with its count.
struct Path {
    std::vector<StackFrame> frames;
    std::vector<FrameKind> kinds;
    std::size_t count = 0;
};

bool sameNode(const StackFrame& a, const StackFrame& b)
{
    return a.method == b.method && a.module == b.module;
}

/// Paths in [begin, end) share their first `depth` frames; groups them by the next one.
void fill(FlameNode& node, std::vector<Path>::const_iterator begin, std::vector<Path>::const_iterator end,
          std::size_t depth)
{
    for (auto group = begin; group != end;) {
        if (group->frames.size() <= depth) {
            ++group;
            continue;
        }
        const StackFrame& first = group->frames[depth];
        const auto groupEnd = std::find_if(group, end, [&](const Path& path) {
            return path.frames.size() <= depth || !sameNode(path.frames[depth], first);
        });
        FlameNode child;
        child.name = first.method;
        child.module = first.module;
        child.kind = group->kinds[depth];
        for (auto path = group; path != groupEnd; ++path) {
            const StackFrame& frame = path->frames[depth];
            child.samples += path->count;
            if (!frame.source.empty() || frame.line)
                child.lines[{frame.source, frame.line}] += path->count;
        }
        fill(child, group, groupEnd, depth + 1);
        node.children.push_back(std::move(child));
        group = groupEnd;
    }
}

/// "Cart.java:42" for one line; several as "Cart.java:42 (3), 45 (1)", most samples first.
std::string linesText(const FlameNode& node)
{
    std::vector<std::pair<std::pair<std::string, unsigned int>, std::size_t>> lines(node.lines.begin(),
                                                                                    node.lines.end());
    std::stable_sort(lines.begin(), lines.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
    std::string text;
    std::string lastSource;
    const std::size_t shown = std::min<std::size_t>(lines.size(), 6);
    for (std::size_t i = 0; i < shown; ++i) {
        const std::string& source = lines[i].first.first;
        const unsigned int line = lines[i].first.second;
        text += i ? ", " : "";
        if (i == 0 || source != lastSource)
            text += source.empty() ? "line " : source + (line ? ":" : "");
        text += line ? std::to_string(line) : "";
        if (lines.size() > 1)
            text += " (" + std::to_string(lines[i].second) + ")";
        lastSource = source;
    }
    return lines.size() > shown ? text + ", \xE2\x80\xA6" : text;
}

std::string tooltip(const FlameNode& node, std::size_t total)
{
    std::size_t self = node.samples;
    for (const FlameNode& child : node.children)
        self -= child.samples;
    std::string text = node.name + "\n";
    const std::string lines = linesText(node);
    if (!lines.empty())
        text += "at " + lines + "\n";
    if (node.kind != FrameKind::all)
        text += std::string(kindLabel(node.kind)) + (node.module.empty() ? "" : " in " + node.module) + "\n";
    return text + std::to_string(node.samples) + (node.samples == 1 ? " sample, " : " samples, ") +
           percent(node.samples, total) +
           (node.children.empty() || node.kind == FrameKind::all ? "" : ", " + std::to_string(self) + " self");
}

class Writer {
public:
    Writer(std::ostream& out, const FlameNode& root, const FlameGraphOptions& options)
        : m_out(out), m_root(root), m_width(options.width),
          m_scale(root.samples ? (options.width - 2 * kPad) / static_cast<double>(root.samples) : 0)
    {
    }

    std::size_t depth(const FlameNode& node) const
    {
        std::size_t deepest = 0;
        for (const FlameNode& child : node.children)
            if (child.samples * m_scale >= kMinWidth)
                deepest = std::max(deepest, 1 + depth(child));
        return deepest;
    }

    void frame(const FlameNode& node, double x, std::size_t level)
    {
        const double width = node.samples * m_scale;
        if (width < kMinWidth)
            return;
        const double y = m_bottom - (level + 1) * kFrameHeight;
        const std::string name = xmlText(node.name);
        m_out << "<g class=\"frame\" data-samples=\"" << node.samples << "\" data-name=\"" << name << "\"><title>"
              << xmlText(tooltip(node, m_root.samples)) << "</title><rect x=\"" << number(x) << "\" y=\""
              << number(y, "%.0f") << "\" width=\"" << number(width) << "\" height=\"" << kFrameHeight - 1
              << "\" fill=\"" << colour(node.kind, node.name) << "\"/><text x=\"" << number(x + 3) << "\" y=\""
              << number(y + 11.5, "%.1f") << "\">"
              << xmlText(fitText(node.name, static_cast<std::size_t>(std::max(0.0, (width - 6) / kCharWidth))))
              << "</text></g>\n";
        for (const FlameNode& child : node.children) {
            frame(child, x, level + 1);
            x += child.samples * m_scale;
        }
    }

    void write(const std::string& title)
    {
        const double height = kTop + (depth(m_root) + 1) * kFrameHeight + kBottom;
        m_bottom = height - kBottom;
        m_out << "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"no\"?>\n"
              << "<svg version=\"1.1\" width=\"" << m_width << "\" height=\"" << number(height, "%.0f")
              << "\" viewBox=\"0 0 " << m_width << " " << number(height, "%.0f")
              << "\" xmlns=\"http://www.w3.org/2000/svg\" data-pad=\"" << kPad << "\" data-char-width=\""
              << kCharWidth << "\">\n<title>" << xmlText(title) << "</title>\n" << kStyle
              << "<rect width=\"100%\" height=\"100%\" fill=\"#fbfaf6\"/>\n"
              << "<text id=\"title\" x=\"" << m_width / 2.0 << "\" y=\"22\">" << xmlText(title) << "</text>\n"
              << "<text id=\"reset\" class=\"button\" x=\"" << kPad << "\" y=\"22\">Reset zoom</text>\n"
              << "<foreignObject x=\"" << number(m_width - kPad - 250) << "\" y=\"6\" width=\"250\" height=\"24\">"
              << "<input xmlns=\"http://www.w3.org/1999/xhtml\" id=\"search\" type=\"search\" "
                 "placeholder=\"search frames (regular expression)\"/></foreignObject>\n";
        double x = kPad;
        for (FrameKind kind : {FrameKind::java, FrameKind::dotnet, FrameKind::otherJit, FrameKind::unresolved}) {
            m_out << "<rect x=\"" << number(x) << "\" y=\"38\" width=\"12\" height=\"12\" fill=\""
                  << colour(kind, "") << "\"/><text x=\"" << number(x + 16) << "\" y=\"48\">" << kindLabel(kind)
                  << "</text>\n";
            x += 16 + std::string(kindLabel(kind)).size() * kCharWidth + 20;
        }
        m_out << "<text id=\"matched\" x=\"" << number(m_width - kPad) << "\" y=\"" << number(height - 9, "%.0f")
              << "\"></text>\n<g id=\"frames\">\n";
        frame(m_root, kPad, 0);
        m_out << "</g>\n<script type=\"text/ecmascript\"><![CDATA[" << kScript << "]]></script>\n</svg>\n";
    }

private:
    static const char* const kStyle;
    static const char* const kScript;

    std::ostream& m_out;
    const FlameNode& m_root;
    unsigned int m_width;
    double m_scale;
    double m_bottom = 0;
};

const char* const Writer::kStyle = R"(<style>
text { font-family: "DejaVu Sans Mono", monospace; font-size: 12px; fill: #000; }
#title { font-size: 17px; text-anchor: middle; }
#matched { text-anchor: end; }
.button { cursor: pointer; fill: #2050a0; }
g.frame { cursor: pointer; }
g.frame text { pointer-events: none; }
g.frame:hover rect { stroke: #000; stroke-width: 0.5; }
g.frame.parent { opacity: 0.55; }
g.frame.match rect { fill: rgb(235,60,200); }
input { width: 240px; font: 12px sans-serif; }
</style>
)";

// Click a frame to zoom into it, "Reset zoom" to go back; the search box (or "#search=TEXT"
// in the address) marks the frames whose names match and shows their share of the samples,
// counting frames nested in a marked frame once.
const char* const Writer::kScript = R"js(
"use strict";
(function () {
  var svg = document.documentElement, pad = +svg.getAttribute("data-pad");
  var charWidth = +svg.getAttribute("data-char-width"), full = +svg.getAttribute("width") - 2 * pad;
  var frames = [].map.call(document.querySelectorAll("g.frame"), function (g) {
    var r = g.querySelector("rect");
    return {g: g, r: r, t: g.querySelector("text"), name: g.getAttribute("data-name"),
            samples: +g.getAttribute("data-samples"), x: +r.getAttribute("x"), y: +r.getAttribute("y"),
            w: +r.getAttribute("width")};
  });
  var root = frames[0], input = document.getElementById("search");
  function fit(name, w) {
    var n = Math.floor((w - 6) / charWidth), chars = Array.from(name);
    return chars.length <= n ? name : n < 3 ? "" : chars.slice(0, n - 1).join("") + "\u2026";
  }
  function place(f, x, w) {
    f.r.setAttribute("x", x.toFixed(2));
    f.r.setAttribute("width", w.toFixed(2));
    f.t.setAttribute("x", (x + 3).toFixed(2));
    f.t.textContent = fit(f.name, w);
  }
  function zoom(z) {
    var scale = full / z.w, e = 0.01;
    frames.forEach(function (f) {
      var inside = f.y <= z.y && f.x >= z.x - e && f.x + f.w <= z.x + z.w + e;
      var below = f.y > z.y && f.x <= z.x + e && f.x + f.w >= z.x + z.w - e;
      f.g.style.display = inside || below ? "" : "none";
      f.g.classList.toggle("parent", below);
      if (inside) place(f, pad + (f.x - z.x) * scale, f.w * scale);
      else if (below) place(f, pad, full);
    });
  }
  function search(term) {
    var re = null, matched = 0, end = -1;
    try { re = term ? new RegExp(term) : null; } catch (e) { re = null; }
    frames.slice().sort(function (a, b) { return a.x - b.x || b.y - a.y; }).forEach(function (f) {
      var hit = re !== null && f !== root && re.test(f.name);
      f.g.classList.toggle("match", hit);
      if (hit && f.x >= end - 0.01) { matched += f.samples; end = f.x + f.w; }
    });
    document.getElementById("matched").textContent = re === null ? "" : "matched " +
      (100 * matched / root.samples).toFixed(2) + "% (" + matched + " of " + root.samples + " samples)";
    return matched;
  }
  frames.forEach(function (f) { f.g.addEventListener("click", function () { zoom(f); }); });
  document.getElementById("reset").addEventListener("click", function () { zoom(root); });
  input.addEventListener("input", function () { search(input.value); });
  var asked = /^#search=(.*)$/.exec(location.hash);
  if (asked) {
    input.value = decodeURIComponent(asked[1]);
    search(input.value);
  }
})();
)js";

} // namespace

FrameKind frameKind(const StackFrame& frame)
{
    const std::string source = frame.source.substr(frame.source.find_last_of("/\\") + 1);
    const std::size_t dot = source.rfind('.');
    const std::string extension = dot == std::string::npos ? "" : lower(source.substr(dot + 1));
    for (const char* java : {"java", "kt", "scala", "groovy", "clj"})
        if (extension == java)
            return FrameKind::java;
    for (const char* dotnet : {"cs", "vb", "fs"})
        if (extension == dotnet)
            return FrameKind::dotnet;
    if (!extension.empty())
        return FrameKind::otherJit;
    const std::string module = lower(frame.module);
    if (module == "[compiled java code]")
        return FrameKind::java;
    if (endsWith(module, ".dll") || endsWith(module, ".exe"))
        return FrameKind::dotnet;
    return FrameKind::otherJit;
}

FlameNode buildFlameTree(const std::vector<Stack>& stacks)
{
    std::vector<Path> paths;
    for (const Stack& stack : stacks) {
        Path path;
        path.count = stack.count;
        if (stack.status == PointStatus::resolved) {
            path.frames = stack.frames;
            for (const StackFrame& frame : stack.frames)
                path.kinds.push_back(frameKind(frame));
        } else {
            path.frames = {StackFrame{frameNames(stack).front(), "", "", 0}};
            path.kinds = {FrameKind::unresolved};
        }
        paths.push_back(std::move(path));
    }
    // Sorted by names, so that each node's paths lie side by side and its children come in
    // a stable order.
    const auto byNode = [](const StackFrame& x, const StackFrame& y) {
        return std::tie(x.method, x.module) < std::tie(y.method, y.module);
    };
    std::sort(paths.begin(), paths.end(), [&](const Path& a, const Path& b) {
        return std::lexicographical_compare(a.frames.begin(), a.frames.end(), b.frames.begin(), b.frames.end(), byNode);
    });
    FlameNode root;
    root.name = "all";
    for (const Path& path : paths)
        root.samples += path.count;
    fill(root, paths.begin(), paths.end(), 0);
    return root;
}

void writeFlameGraph(std::ostream& out, const FlameNode& root, const FlameGraphOptions& options)
{
    Writer(out, root, options).write(options.title);
}

std::string xmlText(const std::string& text)
{
    std::string result;
    for (const char c : validUtf8(text)) {
        switch (c) {
        case '&': result += "&amp;"; break;
        case '<': result += "&lt;"; break;
        case '>': result += "&gt;"; break;
        case '"': result += "&quot;"; break;
        case '\'': result += "&apos;"; break;
        default:
            if (static_cast<unsigned char>(c) < 0x20 && c != '\n' && c != '\t')
                result += "\xEF\xBF\xBD";
            else
                result += c;
        }
    }
    return result;
}

std::string fitText(const std::string& text, std::size_t characters)
{
    // Where each character begins: UTF-8 continuation bytes are 10xxxxxx.
    std::vector<std::size_t> starts;
    for (std::size_t i = 0; i < text.size(); ++i)
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80)
            starts.push_back(i);
    if (starts.size() <= characters)
        return text;
    if (characters < 3)
        return "";
    return text.substr(0, starts[characters - 1]) + "\xE2\x80\xA6";
}

} // namespace jitreader_tool
