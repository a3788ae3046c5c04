"""The demo's flame graph opened in a headless browser."""
import os
import subprocess
import sys
import tempfile
import unittest
import zlib

from tool_output_test import HOT, demo_graph

skip_reason = []


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
    suite = unittest.defaultTestLoader.loadTestsFromTestCase(Browser)
    if not unittest.TextTestRunner(verbosity=2).run(suite).wasSuccessful():
        sys.exit(1)
    if skip_reason:
        print("skipped: " + skip_reason[0])
        sys.exit(77)  # ctest's SKIP_RETURN_CODE
