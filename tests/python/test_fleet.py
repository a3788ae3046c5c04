"""A fleet's samples on a local Dask cluster of two worker processes give the answer of one process."""
import dask.dataframe as dd
import pandas as pd
import pytest
from distributed import Client, LocalCluster

import jitreader
import jitreader.dask


@pytest.fixture(scope="module")
def fleet_samples(fleet):
    samples = jitreader.read_samples(fleet / "fleet.samples")
    samples.loc[::97, "host"] = "host999.fleet"  # no folder in the fleet
    samples.index = samples.index * 3 + 11  # an index of its own, kept through the shuffle
    return samples


def test_a_local_cluster_gives_the_single_process_answer(fleet, fleet_samples):
    single = jitreader.dask.resolve_partition(fleet_samples, fleet)
    with LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=":0") as cluster, \
            Client(cluster):
        distributed = jitreader.dask.resolve(dd.from_pandas(fleet_samples, npartitions=6), fleet).compute()
    pd.testing.assert_frame_equal(single, distributed.sort_index())
    assert set(single["status"]) == {"resolved", "no-code", "unknown-process", "unknown-host"}


def test_per_host_resolvers_name_what_one_resolver_over_the_whole_fleet_names(fleet, fleet_samples):
    single = jitreader.dask.resolve_partition(fleet_samples, fleet)
    hosts = sorted(path for path in fleet.iterdir() if path.is_dir())
    whole = jitreader.Resolver(hosts).resolve(fleet_samples)
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
