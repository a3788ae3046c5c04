"""The Python module against the tool: the same answer for every sample; bad input as exceptions."""
import json
import os
import shutil
import warnings

import numpy as np
import pandas as pd
import pytest

import jitreader
from conftest import SOURCE_DIR, run_tool

DEMO_SAMPLES = os.path.join(SOURCE_DIR, "samples", "demo.samples")
DOTNET_SAMPLES = os.path.join(SOURCE_DIR, "samples", "dotnet.samples")
SYMBOLS = os.path.join(SOURCE_DIR, "samples", "dotnet")


@pytest.mark.parametrize("folders, samples, lazy, symbols", [
    (["alpha", "beta"], DEMO_SAMPLES, False, None),
    (["alpha", "beta"], DEMO_SAMPLES, True, None),
    (["dotnet"], DOTNET_SAMPLES, False, SYMBOLS),
])
def test_every_sample_resolves_as_the_tool_resolves_it(demo, folders, samples, lazy, symbols):
    dirs = [demo / folder for folder in folders]
    options = (["--lazy"] if lazy else []) + (["--symbols", symbols, "--full-names"] if symbols else [])
    expected = json.loads(run_tool("resolve", *dirs, "--samples", samples, "--format", "json", *options))
    resolver = jitreader.Resolver(dirs, symbols=symbols, lazy=lazy)
    first = jitreader.read_samples(samples).iloc[:1]
    resolver.resolve(first, full_names=not symbols)  # the other names first: nothing of them may stay
    assert resolver.resolve(first, full_names=bool(symbols))["method"][0] == expected[0]["method"]
    frame = resolver.resolve(jitreader.read_samples(samples), full_names=bool(symbols))

    assert list(frame.columns) == list(jitreader.RESULT_COLUMNS)
    assert len(frame) == len(expected)
    texts, numbers = ("status", "module", "method", "source"), ("jit_rva", "line")
    for point, (_, row) in zip(expected, frame.iterrows()):
        assert [row[k] for k in texts] + [None if row[k] is pd.NA else row[k] for k in numbers] == \
            [point[k] for k in texts + numbers]
        assert row["inlined"] == (point["inlined"] or [])


def test_processes_and_methods_list_what_the_tool_lists(demo):
    dirs = [demo / "alpha", demo / "beta"]
    resolver = jitreader.Resolver(dirs)
    assert resolver.processes() == [("alpha.lab", 4242), ("alpha.lab", 5150), ("beta.lab", 77), ("beta.lab", 4242)]

    listed = json.loads(run_tool("methods", *dirs, "--format", "json"))
    methods = resolver.methods()
    assert len(methods) == len(listed)
    first = methods.iloc[0]
    assert (first["module"], first["source"]) == (listed[0]["module"], listed[0]["source"])
    assert f"{first['class']}::{first['name']}".endswith(listed[0]["method"].split("::")[-1])
    assert listed[0]["jit rva"].startswith(hex(first["start_jit_rva"]) + "-")
    assert (methods["code_size"] > 0).all()
    pd.testing.assert_frame_equal(methods, jitreader.Resolver(dirs, lazy=True).methods())


def test_samples_come_as_a_frame_or_as_a_dict_of_arrays_in_any_integer_type(demo):
    resolver = jitreader.Resolver([demo / "alpha", demo / "beta"])
    samples = jitreader.read_samples(DEMO_SAMPLES)
    expected = resolver.resolve(samples)
    columns = {"time": samples["time"].to_numpy(np.int64), "address": samples["address"].to_numpy(),
               "pid": samples["pid"].to_numpy(np.int32), "host": samples["host"].astype("category")}
    by_dict = resolver.resolve(columns)
    pd.testing.assert_frame_equal(expected.reset_index(drop=True), by_dict)
    shuffled = samples.sample(frac=1, random_state=7)
    pd.testing.assert_frame_equal(expected.loc[shuffled.index], resolver.resolve(shuffled))
    assert len(resolver.resolve(samples.iloc[:0])) == 0


def bad_samples(**changes):
    frame = pd.DataFrame({"time": [1], "address": [2], "pid": [3], "host": ["alpha.lab"]})
    for name, value in changes.items():
        if value is None:
            frame = frame.drop(columns=name)
        else:
            frame[name] = value
    return frame


def resolving(samples):
    return lambda d: jitreader.Resolver([d / "alpha"]).resolve(samples)


@pytest.mark.parametrize("call, error, message", [
    (lambda d: jitreader.Resolver([d / "missing"]), FileNotFoundError, "not a result directory: "),
    (lambda d: jitreader.Resolver([d / "alpha"], symbols=[d / "none"]), FileNotFoundError, "not a symbol directory"),
    (lambda d: jitreader.Resolver([]), ValueError, "no result directory given"),
    (lambda d: jitreader.Resolver(42), TypeError, "dirs must be a path or a list of paths, not int"),
    (lambda d: jitreader.Resolver([d / "badly-named"]), ValueError,
     "trace file name is not of the form HOST.PID.jit"),
    (lambda d: jitreader.Resolver([d / "alpha"], progress="yes"), TypeError, "progress must be True, False"),
    (lambda d: jitreader.read_samples(d / "missing.samples"), FileNotFoundError, "no file of sample points: "),
    (lambda d: jitreader.read_samples(d / "bad.samples"), ValueError, "line 2: expected TIME ADDRESS PID HOST"),
    (resolving(bad_samples(pid=None)), ValueError, "the samples have no column 'pid'"),
    (resolving(bad_samples(time=[1.5])), TypeError, "column 'time' must hold integers, not float64"),
    (resolving(bad_samples(address=["0x10"])), TypeError, "column 'address' must hold integers, not object"),
    (resolving(bad_samples(host=[7])), TypeError, "column 'host' must hold host names"),
    (resolving(bad_samples(pid=[-1])), ValueError, "column 'pid' holds negative numbers"),
    (resolving(bad_samples(pid=[2**40])), ValueError, "column 'pid' holds numbers too large for uint32"),
    (resolving([(1, 2, 3, "alpha.lab")]), TypeError, "samples must be a DataFrame or a dict of arrays, not list"),
    (lambda d: jitreader._jitreader.take_objects(np.array([None]), np.array([-2, 1], dtype=np.int32)), IndexError,
     "index -2 is out of range"),
])
def test_bad_arguments_and_samples_raise_the_matching_exception(bad_inputs, call, error, message):
    with pytest.raises(error, match=message):
        call(bad_inputs)


def test_a_damaged_trace_file_gives_warnings_and_what_it_held(bad_inputs):
    with pytest.warns(RuntimeWarning, match="Could not read jit file .*torn.lab.4242.jit"):
        resolver = jitreader.Resolver([bad_inputs / "torn"])
    assert len(resolver.methods()) > 0


def test_progress_reports_bytes_read_up_to_the_total(demo, capsys):
    calls = []
    jitreader.Resolver([demo / "alpha", demo / "beta"], progress=lambda done, total: calls.append((done, total)))
    total = sum(f.stat().st_size for folder in ("alpha", "beta") for f in (demo / folder).iterdir())
    assert calls[0] == (0, total) and calls[-1] == (total, total)
    assert [done for done, _ in calls] == sorted(done for done, _ in calls)
    jitreader.Resolver([demo / "alpha"], progress=True)
    assert capsys.readouterr().err.startswith("\rreading traces: 0% (0.0 of ")


@pytest.fixture(scope="module")
def bad_inputs(demo, tmp_path_factory):
    root = tmp_path_factory.mktemp("bad")
    shutil.copytree(demo / "alpha", root / "alpha")
    (root / "badly-named").mkdir()
    (root / "badly-named" / "nohost.jit").write_bytes(b"")
    (root / "bad.samples").write_text("1 0x10 3 alpha.lab\n1 0x10 3\n")
    (root / "torn").mkdir()
    whole = (demo / "alpha" / "alpha.lab.4242-0.jit").read_bytes()
    (root / "torn" / "torn.lab.4242.jit").write_bytes(whole[:len(whole) // 2])
    return root
