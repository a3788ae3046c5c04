"""The jitreader tool's machine formats, report and flame graph on the demo directory, read back by
parsers (the graph as XML, its speedscope file as JSON)."""
import collections
import csv
import io
import json
import os
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree as ET

TOOL, SAMPLE_GEN, SAMPLES = sys.argv[1:4]
STATUSES = {"resolved": 26, "no-code": 2, "unknown-process": 1, "unknown-host": 1, "error": 0}
SVG = "{http://www.w3.org/2000/svg}"
HOT = "com::example::shop::Catalog::groupBy"  # the demo's method with the most samples


def run(*args, code=0):
    result = subprocess.run([TOOL, *args], capture_output=True, text=True)
    assert result.returncode == code, (args, result.returncode, result.stderr)
    return result


def demo_graph(directory):
    subprocess.run([SAMPLE_GEN, directory], check=True, capture_output=True)
    path = os.path.join(directory, "demo.svg")
    run("flamegraph", directory + "/alpha", directory + "/beta", "--samples", SAMPLES, "-o", path)
    return path


class Frame:
    def __init__(self, g):
        self.name, self.samples, self.title = g.get("data-name"), int(g.get("data-samples")), g.find(SVG + "title").text
        self.x, self.y, self.width = (float(g.find(SVG + "rect").get(k)) for k in ("x", "y", "width"))

    def holds(self, other):  # whether `other` stands right on this frame
        return other.y == self.y - 16 and self.x - 0.01 <= other.x <= other.x + other.width <= self.x + self.width + .01


class ToolOutput(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        with open(demo_graph(cls.tmp.name), "rb") as file:
            cls.svg = file.read()
        cls.frames = [Frame(g) for g in ET.fromstring(cls.svg).iter(SVG + "g") if g.get("class") == "frame"]
        cls.dirs = [cls.tmp.name + "/alpha", cls.tmp.name + "/beta"]

    def tool(self, command, *args, code=0):
        return run(command, *self.dirs, "--samples", SAMPLES, *args, code=code).stdout

    def test_json_lines_and_csv_give_a_typed_point_each_with_its_inline_chain(self):
        points = json.loads(self.tool("resolve", "--format", "json"))
        self.assertEqual(points, [json.loads(line) for line in self.tool("resolve", "--format", "jsonl").splitlines()])
        rows = list(csv.DictReader(io.StringIO(self.tool("resolve", "--format", "csv"))))
        for listed in (points, rows):
            self.assertEqual(STATUSES, {s: sum(p["status"] == s for p in listed) for s in STATUSES})
        for p in points:
            resolved = p["status"] == "resolved"
            self.assertEqual((hex(p["address"]), int, int), (p["address_hex"], type(p["time"]), type(p["pid"])))
            self.assertEqual(resolved, isinstance(p["jit_rva"], int))
            self.assertEqual(resolved, isinstance(p["method"], str) and p["reason"] is None)
            if resolved:
                self.assertEqual(hex(p["jit_rva"]), p["jit_rva_hex"])
        inlined = {p["jit_rva_hex"]: p["inlined"] for p in points if p["inlined"]}
        chains = {r["jit rva"]: r["inlined"] for r in rows if r["inlined"]}
        self.assertEqual([{"method": "java::util::ArrayList::size", "module": "[Compiled Java code]",
                           "source": "ArrayList.java", "line": 693}], inlined["0x21213"])
        self.assertEqual("java::util::ArrayList::size (ArrayList.java:693)", chains["0x21213"])
        self.assertEqual((3, 3), (len(inlined), len(chains)))

    def test_folded_stacks_add_up_to_the_samples(self):
        folded = self.tool("report", "--folded")
        self.assertEqual(folded, self.tool("resolve", "--folded"))
        stacks = collections.Counter()
        for line in folded.splitlines():
            chain, count = line.rsplit(" ", 1)
            stacks[chain] += int(count)
        self.assertEqual(30, sum(stacks.values()))
        self.assertEqual(1, stacks["org::example::report::Column::width;java::util::ArrayList::size"])
        self.assertEqual(2, stacks["[no-code]"])

    def test_report_counts_self_inclusive_lines_modules_and_processes(self):
        report = json.loads(self.tool("report", "--format", "json", "--top", "1000"))
        self.assertEqual(30, report["samples"])
        self.assertEqual(STATUSES, report["status"])
        self.assertEqual(26, sum(m["self"] for m in report["methods"]))
        self.assertEqual(26, sum(m["samples"] for m in report["modules"]))
        self.assertEqual(30, sum(p["samples"] for p in report["processes"]))
        self.assertEqual(26, sum(line["samples"] for line in report["lines"]))  # every demo method has lines
        methods = {m["method"]: (m["self"], m["inclusive"]) for m in report["methods"]}
        self.assertEqual((1, 2), methods["org::example::report::Column::width"])
        self.assertEqual((2, 2), methods["java::util::ArrayList::size"])
        self.assertEqual(3, report["methods"][0]["self"])
        top = json.loads(self.tool("report", "--format", "json", "--top", "2"))
        self.assertEqual([report[k][:2] for k in ("methods", "lines")], [top[k] for k in ("methods", "lines")])
        rows = list(csv.DictReader(io.StringIO(self.tool("report", "--format", "csv", "--top", "2"))))
        self.assertEqual(5 + 4 * 2, len(rows))
        self.assertIn("30 samples: 26 resolved, 2 no-code", self.tool("report"))

    def test_the_table_names_every_outcome_and_token_only_methods_are_found_in_symbol_directories(self):
        table = self.tool("resolve", "--quiet")  # --quiet is taken by every command that reads traces
        self.assertIn("resolved 26 / 30 samples", table)
        self.assertIn("0x7f3a10000048  4242  alpha.lab  0x49     com::example::shop::Catalog::groupBy", table)
        # The inlined column's header and three frames; an unknown host; a process without traces.
        outcomes = ("inlined\n", "unresolved: unknown host", "unresolved: no traces of this process")
        self.assertEqual([4, 1, 1], [table.count(text) for text in outcomes])
        self.assertIn("resolved 26 / 30 samples; read 4 of 4 processes", self.tool("resolve", "--lazy"))
        self.tool("report", "--quiet")
        self.assertEqual(1 + 360, run("methods", *self.dirs, "--format", "csv", "--quiet").stdout.count("\n"))
        dotnet, symbols = self.tmp.name + "/dotnet", os.path.join(os.path.dirname(SAMPLES), "dotnet")
        resolved = run("resolve", dotnet, "--samples", symbols + ".samples", "--symbols", "/nowhere", "--symbols",
                       symbols, "--full-names").stdout
        self.assertIn("MyInternalClass::GetPdbId(System::Reflection::Module)", resolved)
        self.assertIn("/Users/swatinem/Coding/sentry-dotnet/samples/foo/Program.cs:88", resolved)
        methods = run("methods", dotnet, "--symbols", symbols, "--format", "csv").stdout
        self.assertIn("StackTraceSample::Main,/Users/swatinem/", methods)

    def test_bad_arguments_give_one_line_and_status_1(self):
        demo = self.dirs
        cases = [
            ["bogus"], [], ["report", *demo], ["report", "--samples", SAMPLES],
            ["report", *demo, "--samples", SAMPLES, "--top", "0"],
            ["report", *demo, "--samples", SAMPLES, "--top", "x"],
            ["report", *demo, "--samples", SAMPLES, "--format", "jsonl"],
            ["report", *demo, "--samples", SAMPLES, "--folded", "--format", "csv"],
            ["resolve", *demo, "--samples", SAMPLES, "--format", "xml"],
            ["resolve", *demo, "--samples", SAMPLES, "--folded", "--lazy"],
            ["resolve", *demo, "--samples"], ["methods", *demo, "--dump=1"], ["processes", "-x"],
            ["processes", self.tmp.name + "/missing"],
        ]
        for args in cases:
            with self.subTest(args=args):
                self.assertEqual(1, len(run(*args, code=1).stderr.splitlines()))

    def test_help_of_every_command_shows_an_example(self):
        for command in ("processes", "methods", "resolve", "report"):
            help_text = run(command, "--help").stdout
            self.assertIn("\nexample", help_text)
            self.assertIn("jitreader " + command + " ", help_text.split("\nexample")[1])


    def test_frames_add_up_to_the_samples_at_every_level(self):
        root = self.frames[0]
        self.assertEqual(("all", 30), (root.name, root.samples))
        self.assertEqual(30, sum(f.samples for f in self.frames if root.holds(f)))  # every point has a frame
        for frame in self.frames:
            self.assertLessEqual(sum(f.samples for f in self.frames if frame.holds(f)), frame.samples, frame.name)
            self.assertAlmostEqual(frame.width, frame.samples * root.width / root.samples, delta=0.01)

    def test_tooltips_name_the_hot_method_with_its_lines_and_inlines_stand_on_their_callers(self):
        hot = max(self.frames[1:], key=lambda f: f.samples)
        self.assertRegex(hot.title, "^" + HOT + r"\nat Catalog\.java:\d+ \(1\), \d+ \(1\), \d+ \(1\)\nJava in "
                         r"\[Compiled Java code\]\n3 samples, 10\.00%$")
        width = next(f for f in self.frames if f.name == "org::example::report::Column::width")
        self.assertEqual(["java::util::ArrayList::size"], [f.name for f in self.frames if width.holds(f)])
        self.assertIn("[no-code]\nunresolved\n2 samples, 6.67%", [f.title for f in self.frames])
        self.assertNotIn(b"://", self.svg.replace(b"http://www.w3.org/", b""))  # nothing from outside
        with tempfile.TemporaryDirectory() as other, open(demo_graph(other), "rb") as file:
            self.assertEqual(self.svg, file.read())

    def test_speedscope_files_have_the_published_structure_and_weigh_every_sample(self):
        for command in ("resolve", "report"):
            profile = json.loads(self.tool(command, "--format", "speedscope"))
            self.assertEqual("https://www.speedscope.app/file-format-schema.json", profile["$schema"])
            frames = profile["shared"]["frames"]
            self.assertTrue(all(isinstance(f["name"], str) and set(f) <= {"name", "file", "line"} for f in frames))
            self.assertIn({"name": "java::util::ArrayList::size", "file": "ArrayList.java", "line": 693}, frames)
            for p in profile["profiles"]:
                self.assertEqual({"type", "name", "unit", "startValue", "endValue", "samples", "weights"}, set(p))
                self.assertEqual(("sampled", "none", len(p["samples"])), (p["type"], p["unit"], len(p["weights"])))
                self.assertTrue(all(0 <= i < len(frames) for stack in p["samples"] for i in stack))
                self.assertEqual(p["endValue"] - p["startValue"], sum(p["weights"]))
            self.assertEqual(30, sum(sum(p["weights"]) for p in profile["profiles"]))
            self.assertEqual(6, len(profile["profiles"]))  # one per host and process id of the samples

    def test_refusals_name_the_option_and_leave_status_1(self):
        demo, svg = [self.tmp.name + "/alpha", "--samples", SAMPLES], self.tmp.name + "/g.svg"
        cases = [
            (["flamegraph", *demo, "-o", svg, "--width", "199"], "--width needs 200 to 100000 pixels, not 199"),
            (["flamegraph", demo[0], "-o", svg], "give the sample points with --samples FILE"),
            (["flamegraph", *demo], "give the SVG file to write with -o FILE"),
            (["flamegraph", *demo, "-o", self.tmp.name], "cannot write " + self.tmp.name),
            (["resolve", *demo, "--format", "speedscope", "--lazy"], "--format speedscope needs the frames that --lazy "
                                                                      "leaves out"),
            (["report", *demo, "--format", "speedscope", "--top", "3"], "--format speedscope keeps every stack; leave "
                                                                         "out --top"),
        ]
        for args, message in cases:
            self.assertEqual("jitreader %s: %s\n" % (args[0], message), run(*args, code=1).stderr)
        result = run("flamegraph", *demo, "--output=-")
        self.assertTrue(result.stdout.startswith("<?xml") and "written to standard output" in result.stderr)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
