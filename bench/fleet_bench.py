"""Symbolising a fleet's profiles: one process against a local Dask cluster of two worker
processes, on a generated fleet of 32 hosts and 10 million samples. Each run reads the sample
file, resolves every sample and counts the samples per method; the figures go to the README.

usage: fleet_bench.py BUILD_DIR [HOSTS PROCESSES SAMPLES]   (with BUILD_DIR/python on PYTHONPATH)
"""
import os
import subprocess
import sys
import time

import dask.dataframe as dd
import numpy as np
import pandas as pd
from distributed import Client, LocalCluster

import jitreader
import jitreader.dask

COLUMNS = {"time": np.uint64, "address": np.uint64, "pid": np.uint32, "host": object}


def fleet(build, hosts, processes, samples):
    root = os.path.join(build, f"fleet-{hosts}x{processes}-{samples}")
    if not os.path.exists(os.path.join(root, "fleet.samples")):
        subprocess.run([os.path.join(build, "tools", "jitreader-sample-gen"), "--hosts", str(hosts),
                        "--processes", str(processes), "--samples", str(samples), root], check=True)
    return root


def one_process(root):
    start = time.perf_counter()
    samples = jitreader.read_samples(os.path.join(root, "fleet.samples"))
    read = time.perf_counter() - start
    result = jitreader.dask.resolve_partition(samples, root)
    counts = result.groupby("method").size()
    return read, time.perf_counter() - start, counts


def local_cluster(root, workers):
    with LocalCluster(n_workers=workers, threads_per_worker=1, processes=True, dashboard_address=":0") as cluster, \
            Client(cluster):
        start = time.perf_counter()
        samples = dd.read_csv(os.path.join(root, "fleet.samples"), sep=" ", comment="#", header=None,
                              names=list(COLUMNS), dtype=COLUMNS, blocksize="32MB")
        result = jitreader.dask.resolve(samples, root)
        counts = result.groupby("method").size().compute()
        return time.perf_counter() - start, counts


def main(build, hosts=32, processes=4, samples=10_000_000):
    root = fleet(build, hosts, processes, samples)
    read, single, single_counts = one_process(root)
    cluster, cluster_counts = local_cluster(root, 2)
    pd.testing.assert_series_equal(single_counts.sort_index(), cluster_counts.sort_index())
    print(f"fleet: {hosts} hosts x {processes} processes, {samples:,} samples "
          f"({os.path.getsize(os.path.join(root, 'fleet.samples')) / 2**20:.0f} MB of text)")
    print("| run | wall time | samples/s |")
    print("|---|---|---|")
    print(f"| one process (read {read:.1f} s, then resolve and count) | {single:.1f} s | {samples / single / 1e6:.2f} M |")
    print(f"| LocalCluster, 2 worker processes x 1 thread | {cluster:.1f} s | {samples / cluster / 1e6:.2f} M |")
    print("both give the same count of samples per method")


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else "build", *map(int, sys.argv[2:5]))
