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


def _element(group, element, vr, value):
    """One data element in explicit-VR little endian."""
    import struct

    if isinstance(value, str):
        value = value.encode()
        value += (b"\0" if vr == "UI" else b" ") if len(value) % 2 else b""
    if vr in ("OB", "OW", "SQ", "UN", "UT"):
        return struct.pack("<HH2sHI", group, element, vr.encode(), 0, len(value)) + value
    return struct.pack("<HH2sH", group, element, vr.encode(), len(value)) + value


def write_dicom_series(folder, values, spacing=(0.5, 0.75, 2.0), origin=(-10.0, 20.0, 30.0),
                       series_uid="1.2.826.0.1.3680043.2.1125.77.1", slope=1.0, intercept=0.0):
    """Writes a CT series of int16 slices values[z] (z along +z in LPS) under shuffled names,
    byte by byte as the DICOM file format lays them out, with no library."""
    import random
    import struct

    folder = pathlib.Path(folder)
    folder.mkdir(parents=True, exist_ok=True)
    study = series_uid.rsplit(".", 1)[0]
    rows, columns = values.shape[1:]
    order = list(range(values.shape[0]))
    random.Random(5).shuffle(order)
    for k, z in enumerate(order):
        sop = f"{series_uid}.{z + 1}"
        us = lambda v: struct.pack("<H", v)  # noqa: E731
        position = "\\".join(f"{c:.6f}" for c in (origin[0], origin[1], origin[2] + z * spacing[2]))
        dataset = b"".join([
            _element(0x0008, 0x0016, "UI", "1.2.840.10008.5.1.4.1.1.2"),
            _element(0x0008, 0x0018, "UI", sop),
            _element(0x0008, 0x0060, "CS", "CT"),
            _element(0x0008, 0x103E, "LO", "phantom"),
            _element(0x0010, 0x0010, "PN", "Phantom^Test"),
            _element(0x0010, 0x0020, "LO", "P1"),
            _element(0x0018, 0x0050, "DS", f"{spacing[2]:.4f}"),
            _element(0x0020, 0x000D, "UI", study),
            _element(0x0020, 0x000E, "UI", series_uid),
            _element(0x0020, 0x0011, "IS", "1"),
            _element(0x0020, 0x0013, "IS", str(z + 1)),
            _element(0x0020, 0x0032, "DS", position),
            _element(0x0020, 0x0037, "DS", "1\\0\\0\\0\\1\\0"),
            _element(0x0020, 0x0052, "UI", study + ".9"),
            _element(0x0028, 0x0002, "US", us(1)),
            _element(0x0028, 0x0004, "CS", "MONOCHROME2"),
            _element(0x0028, 0x0010, "US", us(rows)),
            _element(0x0028, 0x0011, "US", us(columns)),
            _element(0x0028, 0x0030, "DS", f"{spacing[1]:.4f}\\{spacing[0]:.4f}"),
            _element(0x0028, 0x0100, "US", us(16)),
            _element(0x0028, 0x0101, "US", us(16)),
            _element(0x0028, 0x0102, "US", us(15)),
            _element(0x0028, 0x0103, "US", us(1)),
            _element(0x0028, 0x1052, "DS", f"{intercept:g}"),
            _element(0x0028, 0x1053, "DS", f"{slope:g}"),
            _element(0x7FE0, 0x0010, "OW", values[z].astype("<i2").tobytes()),
        ])
        meta = b"".join([
            _element(0x0002, 0x0001, "OB", b"\0\1"),
            _element(0x0002, 0x0002, "UI", "1.2.840.10008.5.1.4.1.1.2"),
            _element(0x0002, 0x0003, "UI", sop),
            _element(0x0002, 0x0010, "UI", "1.2.840.10008.1.2.1"),
        ])
        header = _element(0x0002, 0x0000, "UL", struct.pack("<I", len(meta)))
        (folder / f"IM{k:04d}").write_bytes(b"\0" * 128 + b"DICM" + header + meta + dataset)
