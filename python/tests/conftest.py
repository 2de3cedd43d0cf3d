import os
import pathlib
import subprocess

import numpy as np
import pytest

import merivane

try:
    merivane.set_log_level("error")
except ImportError:
    pass  # the batch tests run on the pure-Python package, without the compiled module

BRAIN = pathlib.Path("/usr/share/mricron/templates/ch2.nii.gz")
BRAIN_SEEDS = pathlib.Path(__file__).resolve().parents[2] / "data" / "demo" / "ch2_ventricle_seeds.nii.gz"


def rotation_matrix():
    """An image-to-world matrix with a rotation about an oblique axis and a translation."""
    a, b = np.deg2rad(30.0), np.deg2rad(-20.0)
    rz = np.array([[np.cos(a), -np.sin(a), 0], [np.sin(a), np.cos(a), 0], [0, 0, 1]])
    rx = np.array([[1, 0, 0], [0, np.cos(b), -np.sin(b)], [0, np.sin(b), np.cos(b)]])
    m = np.eye(4)
    m[:3, :3] = rz @ rx
    m[:3, 3] = (12.5, -40.0, 7.25)
    return m


def phantom(shape=(14, 18, 22), seed=7):
    """A bright ball in a noisy background, shape (z, y, x), and seeds: 1 in the ball, 2 at
    the border."""
    rng = np.random.default_rng(seed)
    z, y, x = np.indices(shape)
    centre = [(s - 1) / 2 for s in shape]
    r = np.sqrt((z - centre[0]) ** 2 + (y - centre[1]) ** 2 + (x - centre[2]) ** 2)
    image = np.where(r < min(shape) / 3, 200.0, 50.0) + rng.normal(0, 10, shape)
    seeds = np.zeros(shape, np.uint8)
    c = tuple(int(v) for v in centre)
    seeds[c[0] - 1:c[0] + 2, c[1] - 1:c[1] + 2, c[2] - 1:c[2] + 2] = 1
    seeds[0, :, :] = 2
    seeds[-1, :, :] = 2
    return image.astype(np.float32), seeds


@pytest.fixture(scope="session")
def cli():
    """The merivane command of the build the package comes from."""
    path = os.environ.get("MERIVANE_CLI")
    if not path:
        path = str(pathlib.Path(merivane.__file__).resolve().parents[2] / "bin" / "merivane")
    if not os.path.exists(path):
        pytest.skip("the merivane command is not built")

    def run(*args):
        return subprocess.run([path, "--quiet", *map(str, args)], capture_output=True, text=True)

    return run
