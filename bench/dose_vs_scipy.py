#!/usr/bin/env python3
"""Dose computation of ours beside scipy.signal.fftconvolve doing the same five convolutions.

A CT body phantom (soft tissue in air, lungs, a spine; every one of the five tissue classes
present) and a float32 source volume of size N^3 are written as MetaImage files, with five
float32 kernels of K^3 voxels (smooth, different per class) in a kernel folder. Ours:
`merivane run DoseComputation` on the two volumes, timed as a whole process (reading,
computing, writing). scipy: the same five zero-padded convolutions with
scipy.signal.fftconvolve(mode="same"), each masked by its tissue class and summed, timed for the
convolutions and masks alone. Reported: both times, the ratio, and the largest difference of
the two dose volumes relative to the largest dose.

    python3 bench/dose_vs_scipy.py [--build build-h] [--size 256] [--kernel 31]
"""
import argparse
import json
import os
import subprocess
import tempfile
import time
import zlib

import numpy as np
import scipy.signal

TISSUES = [("air", -1000, -800), ("lung", -800, -300), ("fat", -300, 0), ("tissue", 0, 100), ("bone", 100, 6000)]
MET_TYPES = {np.dtype(np.int16): "MET_SHORT", np.dtype(np.float32): "MET_FLOAT"}


def write_mha(path, a, modality=None):
    header = [
        "ObjectType = Image",
        "NDims = 3",
        "BinaryData = True",
        "BinaryDataByteOrderMSB = False",
        "CompressedData = False",
        "DimSize = %d %d %d" % (a.shape[2], a.shape[1], a.shape[0]),
        "ElementSpacing = 1 1 1",
        "ElementType = %s" % MET_TYPES[a.dtype],
    ]
    if modality:
        header.append("Modality = %s" % modality)
    header.append("ElementDataFile = LOCAL")
    with open(path, "wb") as f:
        f.write(("\n".join(header) + "\n").encode())
        f.write(np.ascontiguousarray(a).tobytes())


def read_mha(path):
    with open(path, "rb") as f:
        data = f.read()
    fields, pos = {}, 0
    while True:
        end = data.index(b"\n", pos)
        key, _, value = data[pos:end].decode().partition("=")
        fields[key.strip()] = value.strip()
        pos = end + 1
        if key.strip() == "ElementDataFile":
            break
    raw = data[pos:]
    if fields.get("CompressedData", "False") == "True":
        raw = zlib.decompress(raw)
    dims = [int(v) for v in fields["DimSize"].split()]
    dtype = {"MET_FLOAT": np.float32, "MET_DOUBLE": np.float64}[fields["ElementType"]]
    return np.frombuffer(raw, dtype=dtype).reshape(dims[::-1])


def body_phantom(n):
    z, y, x = np.meshgrid(*(np.arange(n, dtype=np.float32),) * 3, indexing="ij")
    c = n / 2.0
    ct = np.full((n, n, n), -1000.0, np.float32)
    body = ((x - c) / (0.42 * n)) ** 2 + ((y - c) / (0.30 * n)) ** 2 <= 1.0
    ct[body] = 40.0
    lungs = (np.abs(x - c) - 0.18 * n) ** 2 + (y - c) ** 2 + 0.2 * (z - c) ** 2 <= 0.02 * n * n
    ct[body & lungs] = -700.0
    fat = body & (((x - c) / (0.42 * n)) ** 2 + ((y - c) / (0.30 * n)) ** 2 > 0.8)
    ct[fat] = -100.0
    ct[body & (np.abs(x - c) < 0.04 * n) & (y - c > 0.15 * n) & (y - c < 0.24 * n)] = 700.0
    ct[(z < 2) & ~body] = -900.0  # a little air class inside the range as well
    return ct.astype(np.int16)


def kernels(k):
    r = np.arange(k, dtype=np.float32) - (k - 1) / 2
    zz, yy, xx = np.meshgrid(r, r, r, indexing="ij")
    d2 = xx**2 + yy**2 + zz**2
    return [(np.exp(-d2 / (2.0 * (1.5 + i) ** 2)) / (1.0 + i)).astype(np.float32) for i in range(5)]


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    p.add_argument("--build", default="build-h")
    p.add_argument("--size", type=int, default=256)
    p.add_argument("--kernel", type=int, default=31)
    args = p.parse_args()
    exe = os.path.join(args.build, "bin", "merivane")
    n, k = args.size, args.kernel

    ct = body_phantom(n)
    rng = np.random.default_rng(7)
    source = (1000.0 + 200.0 * rng.standard_normal((n, n, n))).astype(np.float32)
    ks = kernels(k)
    with tempfile.TemporaryDirectory() as tmp:
        kdir = os.path.join(tmp, "kernels")
        os.makedirs(kdir)
        for (name, _, _), kernel in zip(TISSUES, ks):
            write_mha(os.path.join(kdir, name + ".mhd"), kernel)
        write_mha(os.path.join(tmp, "ct.mha"), ct, "MET_MOD_CT")
        write_mha(os.path.join(tmp, "source.mha"), source, "MET_MOD_NM")
        out = os.path.join(tmp, "out")
        cmd = [exe, "--quiet", "run", "DoseComputation", "--in", os.path.join(tmp, "ct.mha"),
               "--in", os.path.join(tmp, "source.mha"), "--set", "kernelsDirectory=" + kdir, "--out", out]
        start = time.perf_counter()
        subprocess.run(cmd, check=True)
        ours_s = time.perf_counter() - start
        ours = read_mha(os.path.join(out, "Dose.mha"))

    start = time.perf_counter()
    ref = np.zeros((n, n, n), np.float64)
    for (_, lo, hi), kernel in zip(TISSUES, ks):
        conv = scipy.signal.fftconvolve(source, kernel, mode="same")
        ref += np.where((ct >= lo) & (ct < hi), conv, 0.0)
    scipy_s = time.perf_counter() - start

    diff = float(np.max(np.abs(ours.astype(np.float64) - ref)) / max(np.max(np.abs(ref)), 1e-30))
    print(json.dumps({"size": n, "kernel": k, "ours_process_s": round(ours_s, 3), "scipy_s": round(scipy_s, 3),
                      "speedup": round(scipy_s / ours_s, 2), "max_rel_difference": diff}, indent=1))


if __name__ == "__main__":
    main()
