"""Symbolising a fleet's profiles on Dask.

`trace_root` holds one folder per host, named as the host is in the samples; the folder holds
that host's trace files, directly or in result directories below it. Samples are shuffled by
host, and each worker process opens one resolver per host that it meets and keeps it for its
life, so every host's traces are read once per worker process at most.
"""
import os
import threading

import numpy as np
import pandas as pd

from . import RESULT_COLUMNS, SAMPLE_COLUMNS, Resolver

__all__ = ["resolve", "resolve_partition", "host_directories", "result_meta"]

# Per worker process: (trace_root, host, symbols, lazy) -> Resolver.
_resolvers = {}
_resolvers_lock = threading.Lock()


def host_directories(trace_root, host):
    """The result directories of `host` under `trace_root`: its folder and the folders in it."""
    folder = os.path.join(os.fspath(trace_root), str(host))
    if os.sep in str(host) or not os.path.isdir(folder):
        return []
    return [folder] + sorted(entry.path for entry in os.scandir(folder) if entry.is_dir())


def _resolver(trace_root, host, symbols, lazy):
    key = (os.fspath(trace_root), host, tuple(symbols or ()), lazy)
    with _resolvers_lock:
        resolver = _resolvers.get(key)
        if resolver is None:
            directories = host_directories(trace_root, host)
            resolver = Resolver(directories, symbols, lazy=lazy) if directories else False
            _resolvers[key] = resolver
    return resolver


def result_meta(samples_meta=None):
    """The empty frame of a result: the samples' columns, then those of Resolver.resolve."""
    sample_part = (samples_meta.iloc[:0] if samples_meta is not None else
                   pd.DataFrame({"time": np.array([], np.uint64), "address": np.array([], np.uint64),
                                 "pid": np.array([], np.uint32), "host": np.array([], object)}))
    result = pd.DataFrame({
        "jit_rva": pd.array([], dtype="UInt64"), "status": np.array([], object),
        "method": np.array([], object), "class": np.array([], object), "module": np.array([], object),
        "source": np.array([], object), "line": pd.array([], dtype="Int64"), "inlined": np.array([], object),
    }, index=sample_part.index)
    return pd.concat([sample_part, result], axis=1)


def _unknown_hosts(rows):
    frame = result_meta().drop(columns=list(SAMPLE_COLUMNS)).reindex(rows.index)
    frame["status"] = "unknown-host"
    frame["inlined"] = [[] for _ in range(len(rows))]
    return frame


def resolve_partition(part, trace_root, symbols=None, lazy=False):
    """Resolves one partition of samples, host by host, with this process's resolvers."""
    meta = result_meta(part)
    # Positions, not the index: after a shuffle the index may repeat within a partition.
    work = part.reset_index(drop=True)
    pieces = []
    for host, rows in work.groupby("host", sort=False, dropna=False, observed=True):
        resolver = _resolver(trace_root, host, symbols, lazy) if isinstance(host, str) else False
        pieces.append(resolver.resolve(rows) if resolver else _unknown_hosts(rows))
    if not pieces:
        return meta
    result = pd.concat(pieces).sort_index()
    result.index = part.index
    result = pd.concat([part, result], axis=1)
    return result.astype(meta.dtypes.to_dict())


def resolve(samples, trace_root, symbols=None, lazy=False):
    """Resolves a Dask DataFrame of samples (time, address, pid, host) against `trace_root`.

    The result keeps the samples' index and columns and adds those of Resolver.resolve; its
    rows come grouped by host.
    """
    missing = [name for name in SAMPLE_COLUMNS if name not in samples.columns]
    if missing:
        raise ValueError(f"the samples have no column '{missing[0]}'")
    if not os.path.isdir(os.fspath(trace_root)):
        raise FileNotFoundError(f"not a directory: {os.fspath(trace_root)}")
    shuffled = samples.shuffle("host")
    meta = result_meta(samples._meta)
    return shuffled.map_partitions(resolve_partition, os.fspath(trace_root), symbols, lazy, meta=meta)
