"""Shared fixtures of the Python tests: the sample photographs and the
synthetic rigs with known truth (orbivane.synthetic)."""

import os

import numpy as np
import pytest

import orbivane
from orbivane import synthetic

DATA_DIR = os.environ.get("ORBIVANE_SAMPLE_DATA_DIR", "/usr/share/doc/opencv-doc/examples/data")


def pytest_report_header(config):
    return f"orbivane {orbivane.__version__} from {os.path.dirname(orbivane.__file__)}"


@pytest.fixture(scope="session")
def data_dir():
    if not os.path.isdir(DATA_DIR):
        pytest.fail(f"the opencv-doc sample folder {DATA_DIR} is missing (scripts/bootstrap.sh installs it)")
    return DATA_DIR


@pytest.fixture(scope="session")
def rig(data_dir):
    """The quick five-module rig (360 x 270 modules on a 1555 x 300 scene)."""
    return synthetic.make_rig(data_dir, quick=True)


@pytest.fixture(scope="session")
def straight_rig(data_dir):
    """Upright modules without keystone, misaligned by the demo's amounts."""
    return synthetic.make_rig(data_dir, quick=True, straight=True)


@pytest.fixture(scope="session")
def lens(data_dir):
    """A lens module and the reference its true lens draws (search slice of 675 points)."""
    return synthetic.make_lens_search(data_dir)


@pytest.fixture()
def photo(data_dir):
    import cv2

    picture = cv2.imread(os.path.join(data_dir, "graf1.png"), cv2.IMREAD_COLOR)
    assert picture is not None
    return picture


def noise_picture(shape, seed=3):
    return np.random.default_rng(seed).integers(0, 256, size=shape, dtype=np.uint8)
