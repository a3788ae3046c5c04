"""The jitreader tool's machine formats and report on the demo directory, read back by parsers."""
import collections
import csv
import io
import json
import subprocess
import sys
import tempfile
import unittest

TOOL, SAMPLE_GEN, SAMPLES = sys.argv[1:4]
STATUSES = {"resolved": 26, "no-code": 2, "unknown-process": 1, "unknown-host": 1, "error": 0}


def run(*args, code=0):
    result = subprocess.run([TOOL, *args], capture_output=True, text=True)
    assert result.returncode == code, (args, result.returncode, result.stderr)
    return result


class ToolOutput(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        subprocess.run([SAMPLE_GEN, cls.tmp.name], check=True, capture_output=True)
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


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
