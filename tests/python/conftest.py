"""Fixtures of the Python module's tests: the tool, the demo and a small generated fleet."""
import os
import subprocess

import pytest

TOOL = os.environ.get("JITREADER_TOOL", "build/tools/jitreader")
SAMPLE_GEN = os.environ.get("JITREADER_SAMPLE_GEN", "build/tools/jitreader-sample-gen")
SOURCE_DIR = os.environ.get("JITREADER_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", ".."))


@pytest.fixture(scope="session")
def demo(tmp_path_factory):
    root = tmp_path_factory.mktemp("demo")
    subprocess.run([SAMPLE_GEN, str(root)], check=True, capture_output=True)
    return root


@pytest.fixture(scope="session")
def fleet(tmp_path_factory):
    root = tmp_path_factory.mktemp("fleet")
    subprocess.run([SAMPLE_GEN, "--hosts", "4", "--processes", "2", "--samples", "3000", str(root)],
                   check=True, capture_output=True)
    return root


def run_tool(*args):
    result = subprocess.run([TOOL, *map(str, args)], capture_output=True, text=True)
    assert result.returncode == 0, (args, result.stderr)
    return result.stdout
