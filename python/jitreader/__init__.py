"""Reads JIT trace result directories and resolves sample points to methods, lines and inline frames.

    import jitreader
    resolver = jitreader.Resolver(["demo/alpha", "demo/beta"])
    frame = resolver.resolve(jitreader.read_samples("samples/demo.samples"))
"""
import os
import sys
import warnings

import numpy as np
import pandas as pd

from . import _jitreader

__all__ = ["Resolver", "read_samples", "SAMPLE_COLUMNS", "RESULT_COLUMNS"]

SAMPLE_COLUMNS = ("time", "address", "pid", "host")
RESULT_COLUMNS = ("jit_rva", "status", "method", "class", "module", "source", "line", "inlined")
_STATUS = np.array(_jitreader.STATUS_NAMES, dtype=object)


def _paths(value, what):
    if isinstance(value, (str, os.PathLike)):
        value = [value]
    try:
        paths = [os.fspath(path) for path in value]
    except TypeError:
        raise TypeError(f"{what} must be a path or a list of paths, not {type(value).__name__}") from None
    return paths


class _ProgressLine:
    """A one-line display of the read on standard error."""

    def __init__(self, stream=None):
        self.stream = stream or sys.stderr
        self.drawn = False

    def __call__(self, done, total):
        percent = 100 if total == 0 else min(100, done * 100 // total)
        self.stream.write(f"\rreading traces: {percent}% ({done / 2**20:.1f} of {total / 2**20:.1f} MB)")
        self.stream.flush()
        self.drawn = True

    def close(self):
        if self.drawn:
            self.stream.write("\r\033[K")
            self.stream.flush()


def _warn_messages(core):
    for message in core.take_messages():
        warnings.warn(f"jitreader: {message}", RuntimeWarning, stacklevel=3)


def _column(samples, name):
    try:
        return samples[name]
    except (KeyError, IndexError):
        raise ValueError(f"the samples have no column '{name}'") from None


def _unsigned(samples, name, dtype):
    values = np.asarray(_column(samples, name))
    if values.dtype.kind not in "iu":
        raise TypeError(f"column '{name}' must hold integers, not {values.dtype}")
    if values.dtype.kind == "i" and values.size and values.min() < 0:
        raise ValueError(f"column '{name}' holds negative numbers")
    if values.size and values.max() > np.iinfo(dtype).max:
        raise ValueError(f"column '{name}' holds numbers too large for {np.dtype(dtype).name}")
    return np.ascontiguousarray(values, dtype=dtype)


def _host_codes(samples):
    values = _column(samples, "host")
    if isinstance(values, pd.Series) and isinstance(values.dtype, pd.CategoricalDtype):
        codes, names = values.cat.codes.to_numpy(), values.cat.categories
    else:
        codes, names = _jitreader.host_codes(np.ascontiguousarray(values, dtype=object))
    return np.ascontiguousarray(codes, dtype=np.int64), [str(name) for name in names]


class Resolver:
    """The traces of a set of result directories, ready to resolve sample points.

    dirs: result directories; symbols: directories with .NET assemblies and their .pdb files;
    lazy: read each process only when a sample names it, and give jit rva and module only;
    progress: True for a progress line on standard error, or a function (done, total) in bytes.
    """

    def __init__(self, dirs, symbols=None, lazy=False, progress=False):
        dirs = _paths(dirs, "dirs")
        symbols = [] if symbols is None else _paths(symbols, "symbols")
        line = _ProgressLine() if progress is True else None
        callback = line if line else (progress if callable(progress) else None)
        if progress not in (True, False, None) and callback is None:
            raise TypeError("progress must be True, False or a function (done, total)")
        try:
            self._core = _jitreader.Resolver(dirs, symbols, bool(lazy), callback)
        finally:
            if line:
                line.close()
        self.lazy = bool(lazy)
        _warn_messages(self._core)

    def processes(self):
        """The (host, pid) pairs that have traces."""
        return self._core.processes()

    def methods(self):
        """One row per method version."""
        frame = pd.DataFrame(self._core.methods())
        _warn_messages(self._core)
        return frame

    def resolve(self, samples, full_names=False):
        """Resolves a DataFrame (or dict of arrays) with columns time, address, pid, host.

        The result has the samples' length, order and index, with the columns RESULT_COLUMNS.
        """
        if not isinstance(samples, (pd.DataFrame, dict)):
            raise TypeError(f"samples must be a DataFrame or a dict of arrays, not {type(samples).__name__}")
        time = _unsigned(samples, "time", np.uint64)
        address = _unsigned(samples, "address", np.uint64)
        pid = _unsigned(samples, "pid", np.uint32)
        codes, names = _host_codes(samples)
        rvas, statuses, index, outcomes = self._core.resolve(time, address, pid, codes, names, bool(full_names))
        _warn_messages(self._core)
        return _result_frame(rvas, statuses, index, outcomes,
                             samples.index if isinstance(samples, pd.DataFrame) else None)


def _result_frame(rvas, statuses, index, outcomes, frame_index):
    method, class_, module, source, line, inlined = outcomes
    # The last entry of each outcome column answers the points without an outcome (index -1).
    lines = line[index]
    take = _jitreader.take_objects
    columns = {
        "jit_rva": pd.arrays.IntegerArray(rvas, statuses != 0),
        "status": _STATUS[statuses],
        "method": take(method, index),
        "class": take(class_, index),
        "module": take(module, index),
        "source": take(source, index),
        "line": pd.arrays.IntegerArray(lines, lines == 0),
        "inlined": take(inlined, index),
    }
    # Without copy=False pandas copies the object columns into one block, which took longer
    # than the whole resolve.
    return pd.DataFrame(columns, index=frame_index, copy=False)


def read_samples(path):
    """Reads a file of sample points (TIME ADDRESS PID HOST per line) into a DataFrame."""
    time, address, pid, codes, names = _jitreader.read_sample_columns(os.fspath(path))
    hosts = np.array(names + [None], dtype=object)[codes]
    return pd.DataFrame({"time": time, "address": address, "pid": pid, "host": hosts})
