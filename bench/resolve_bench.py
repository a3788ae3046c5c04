"""Resolver.resolve on 1,000,000 samples, against the store's own sample-point lookup rate at
1,000,000 methods (store_bench); the figure printed beside its target.

usage: resolve_bench.py BUILD_DIR   (with BUILD_DIR/python on PYTHONPATH)
"""
import os
import re
import subprocess
import sys
import tempfile
import time

import jitreader

SAMPLES = 1_000_000


def store_rate(build):
    """The sample-point lookups per second of store_bench at its largest store."""
    output = subprocess.run([os.path.join(build, "bench", "store_bench")], check=True, capture_output=True,
                            text=True).stdout
    rates = re.findall(r"^sample-point lookups, (\d+)k methods\s+([\d.]+) M/s", output, re.M)
    methods, rate = max(rates, key=lambda found: int(found[0]))
    return int(methods) * 1000, float(rate) * 1e6


def main(build):
    with tempfile.TemporaryDirectory(dir=build) as root:
        subprocess.run([os.path.join(build, "tools", "jitreader-sample-gen"), "--hosts", "32", "--processes", "4",
                        "--samples", str(SAMPLES), root], check=True, capture_output=True)
        samples = jitreader.read_samples(os.path.join(root, "fleet.samples"))
        hosts = sorted(entry.path for entry in os.scandir(root) if entry.is_dir())
        resolver = jitreader.Resolver(hosts)
        methods = len(resolver.methods())
        start = time.perf_counter()
        first = resolver.resolve(samples)
        first_seconds = time.perf_counter() - start
        best = float("inf")
        for _ in range(5):
            start = time.perf_counter()
            resolver.resolve(samples)
            best = min(best, time.perf_counter() - start)
    resolved = (first["status"] == "resolved").mean()
    store_methods, rate = store_rate(build)
    target = 0.8 * rate
    print(f"{'figure':<62} {'measured':>12}   {'target':>13}   holds")
    print(f"{'Resolver.resolve, 1M samples, ' + f'{methods // 1000}k methods, in use':<62} "
          f"{SAMPLES / best / 1e6:8.2f} M/s   >= {target / 1e6:4.2f} M/s   {'yes' if SAMPLES / best >= target else 'NO'}")
    print(f"{'the same, first call (the loader reads each process)':<62} {SAMPLES / first_seconds / 1e6:8.2f} M/s")
    print(f"(target: 80% of store_bench's {rate / 1e6:.2f} M/s sample-point lookups at {store_methods // 1000}k "
          f"methods; {resolved:.1%} of the samples resolved)")


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else "build")
