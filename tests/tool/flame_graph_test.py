"""The demo's flame graph read back as XML, its speedscope file as JSON; with "browser", the graph in a browser."""
import json
import os
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree as ET
import zlib

TOOL, SAMPLE_GEN, SAMPLES = sys.argv[1:4]
SVG = "{http://www.w3.org/2000/svg}"
HOT = "com::example::shop::Catalog::groupBy"  # the demo's method with the most samples
skip_reason = []


def demo_graph(directory):
    subprocess.run([SAMPLE_GEN, directory], check=True, capture_output=True)
    path = os.path.join(directory, "demo.svg")
    subprocess.run([TOOL, "flamegraph", directory + "/alpha", directory + "/beta", "--samples", SAMPLES, "-o", path],
                   check=True, capture_output=True)
    return path


class Frame:
    def __init__(self, g):
        self.name, self.samples, self.title = g.get("data-name"), int(g.get("data-samples")), g.find(SVG + "title").text
        self.x, self.y, self.width = (float(g.find(SVG + "rect").get(k)) for k in ("x", "y", "width"))

    def holds(self, other):  # whether `other` stands right on this frame
        return other.y == self.y - 16 and self.x - 0.01 <= other.x <= other.x + other.width <= self.x + self.width + .01


class Formats(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        with open(demo_graph(cls.tmp.name), "rb") as file:
            cls.svg = file.read()
        cls.frames = [Frame(g) for g in ET.fromstring(cls.svg).iter(SVG + "g") if g.get("class") == "frame"]

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
            profile = json.loads(subprocess.run(
                [TOOL, command, self.tmp.name + "/alpha", self.tmp.name + "/beta", "--samples", SAMPLES, "--format",
                 "speedscope"], check=True, capture_output=True, text=True).stdout)
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
            result = subprocess.run([TOOL, *args], capture_output=True, text=True)
            self.assertEqual((1, "jitreader %s: %s\n" % (args[0], message)), (result.returncode, result.stderr))
        result = subprocess.run([TOOL, "flamegraph", *demo, "--output=-"], capture_output=True, text=True)
        self.assertTrue(result.stdout.startswith("<?xml") and "written to standard output" in result.stderr)


def png_pixels(data):
    """The RGB pixels of an 8-bit, not interlaced RGB or RGBA PNG."""
    chunks, at = {}, 8
    while at < len(data):
        length, kind = int.from_bytes(data[at:at + 4], "big"), data[at + 4:at + 8]
        chunks[kind] = chunks.get(kind, b"") + data[at + 8:at + 8 + length]
        at += 12 + length
    header = chunks[b"IHDR"]
    width, height = int.from_bytes(header[0:4], "big"), int.from_bytes(header[4:8], "big")
    size = 4 if header[9] == 6 else 3
    assert header[8] == 8 and header[9] in (2, 6) and header[12] == 0, header
    raw, stride, pixels, up = zlib.decompress(chunks[b"IDAT"]), width * size, [], bytearray(width * size)
    for y in range(height):
        kind, line = raw[y * (stride + 1)], bytearray(raw[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        for i in range(stride):
            a, b, c = line[i - size] if i >= size else 0, up[i], up[i - size] if i >= size else 0
            paeth = min((abs(b - c), a), (abs(a - c), b), (abs(a + b - 2 * c), c), key=lambda t: t[0])[1]
            line[i] = (line[i] + (0, a, b, (a + b) // 2, paeth)[kind]) & 0xFF
        pixels += [line[i:i + 3] for i in range(0, stride, size)]
        up = line
    return pixels


def skip(reason):
    skip_reason.append(reason)
    raise unittest.SkipTest(reason)


class Browser(unittest.TestCase):
    def open(self, *args):
        # As root the browser's sandbox cannot start; a profile and home of its own keep the run apart,
        # and a small /dev/shm in a container does not matter.
        command = [self.browser, "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                   "--user-data-dir=" + self.tmp, *args]
        try:
            return subprocess.run(command, capture_output=True, text=True, timeout=120,
                                  env=dict(os.environ, HOME=self.tmp))
        except subprocess.TimeoutExpired:
            return subprocess.CompletedProcess(command, -1, "", "no answer in 120 s")

    def test_dom_shows_the_hot_method_the_search_finds_it_and_the_screenshot_has_colour(self):
        browsers = [b for b in ("/usr/bin/chromium-headless-shell", "/usr/bin/chromium") if os.access(b, os.X_OK)]
        if not browsers:
            skip("neither /usr/bin/chromium-headless-shell nor /usr/bin/chromium is installed (scripts/setup-deps)")
        with tempfile.TemporaryDirectory() as self.tmp:
            self.browser, url = browsers[0], "file://" + demo_graph(self.tmp)
            probe = self.open("--dump-dom", "about:blank")
            if probe.returncode != 0:
                skip("%s cannot start here: %s" % (self.browser, (probe.stderr.strip().splitlines() or ["?"])[-1]))
            dom = self.open("--dump-dom", url + "#search=Catalog::group")
            self.assertIn('<g class="frame match" data-samples="3" data-name="%s"><title>%s\nat Catalog.java:'
                          % (HOT, HOT), dom.stdout)
            self.assertIn(">matched 10.00% (3 of 30 samples)</text>", dom.stdout)
            shot = self.open("--screenshot=" + self.tmp + "/demo.png", "--window-size=1200,160", url)
            self.assertEqual(0, shot.returncode, shot.stderr)
            with open(self.tmp + "/demo.png", "rb") as file:
                coloured = sum(max(p) - min(p) > 40 for p in png_pixels(file.read()))
            self.assertGreater(coloured, 10000, "the demo's frames cover about 17,000 pixels in colour")


if __name__ == "__main__":
    suite = unittest.defaultTestLoader.loadTestsFromTestCase(Browser if sys.argv[4:5] == ["browser"] else Formats)
    if not unittest.TextTestRunner(verbosity=2).run(suite).wasSuccessful():
        sys.exit(1)
    if skip_reason:
        print("skipped: " + skip_reason[0])
        sys.exit(77)  # ctest's SKIP_RETURN_CODE
