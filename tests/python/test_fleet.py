"""A fleet's samples on a local Dask cluster of two worker processes give the answer of one process."""
import subprocess

import dask.dataframe as dd
import pandas as pd
import pytest
from distributed import Client, LocalCluster

import jitreader
import jitreader.dask
from conftest import SAMPLE_GEN


@pytest.fixture(scope="module")
def fleet_samples(fleet):
    samples = jitreader.read_samples(fleet / "fleet.samples")
    samples.loc[::97, "host"] = "host999.fleet"  # no folder in the fleet
    samples.index = samples.index * 3 + 11  # an index of its own, kept through the shuffle
    return samples


def test_a_local_cluster_and_one_resolver_over_the_fleet_give_the_per_host_answer(fleet, fleet_samples):
    single = jitreader.dask.resolve_partition(fleet_samples, fleet)
    with LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=":0") as cluster, \
            Client(cluster):
        distributed = jitreader.dask.resolve(dd.from_pandas(fleet_samples, npartitions=6), fleet).compute()
    pd.testing.assert_frame_equal(single, distributed.sort_index())
    assert set(single["status"]) == {"resolved", "no-code", "unknown-process", "unknown-host"}

    whole = jitreader.Resolver(sorted(path for path in fleet.iterdir() if path.is_dir())).resolve(fleet_samples)
    columns = ["status", "method", "class", "module", "source", "line", "inlined"]
    pd.testing.assert_frame_equal(whole[columns], single[columns])
    # jit rvas number each resolver's own files; a host alone starts at the bottom.
    assert single["jit_rva"].max() < whole["jit_rva"].max()


@pytest.mark.parametrize("samples, root, error, message", [
    (lambda s: s.drop(columns="pid"), lambda f: f, ValueError, "the samples have no column 'pid'"),
    (lambda s: s, lambda f: f / "missing", FileNotFoundError, "not a directory: "),
])
def test_bad_arguments_raise_before_any_work(fleet, fleet_samples, samples, root, error, message):
    with pytest.raises(error, match=message):
        jitreader.dask.resolve(dd.from_pandas(samples(fleet_samples), npartitions=2), root(fleet))


def test_a_generated_fleet_has_a_folder_per_host_and_the_samples_asked_for(fleet, fleet_samples):
    hosts = sorted(path.name for path in fleet.iterdir() if path.is_dir())
    assert hosts == [f"host{i:03d}.fleet" for i in range(4)]
    assert len(fleet_samples) == 3000
    for host in hosts:
        processes = jitreader.Resolver(jitreader.dask.host_directories(fleet, host)).processes()
        assert [name for name, _ in processes] == [host, host]


@pytest.mark.parametrize("args", [
    ["--hosts", "0"], ["--hosts", "x"], ["--hosts", "2", "--processes", "0"], ["--processes", "2"],
    ["--hosts", "2", "--samples", "-5"],
])
def test_sample_gen_refuses_a_bad_fleet_shape(tmp_path, args):
    result = subprocess.run([SAMPLE_GEN, *args, str(tmp_path / "out")], capture_output=True, text=True)
    assert result.returncode == 2
    assert result.stderr.startswith("usage: jitreader-sample-gen")
    assert not (tmp_path / "out").exists()
