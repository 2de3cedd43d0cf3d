#!/usr/bin/env python3
"""Hessian tubularity and fast marching of ours beside scikit-image and ITK.

Tubularity: one 128^3 phantom (Gaussian tubes of widths 1 to 4 voxels along the axes and a
diagonal, on a ramp with noise) goes through `merivane run HessianAnalysis` with the scales
1, 2, 3 and 4 mm, through skimage.filters.frangi with the same sigmas (bright ridges), and
through ITK's multiscale Hessian objectness (bench/itk_peer, built against Debian's ITK). Times are
wall times: for ours the whole process (reading, computing, writing), for the peers the call
alone. Agreement is reported as where the maxima lie: for each tube, the distance from the
tube's axis of the strongest response in a slab across it, and the overlap of the top 1 % of
voxels of each pair of results.

Fast marching: ExtractionBench --march-raw marches a 256^3 speed image from its centre voxel;
ITK's FastMarchingImageFilter (bench/itk_peer) marches the same image from the same trial
point (scikit-image has no fast marching). Reported: both times and the relative
difference of the arrival times over the voxels both reached.

    python3 bench/extraction_vs_peers.py [--build build] [--size 128] [--march-size 256]
"""
import argparse
import gzip
import json
import os
import subprocess
import tempfile
import time

import numpy as np


def tube_phantom(n):
    z, y, x = np.mgrid[0:n, 0:n, 0:n].astype(np.float64)
    rng = np.random.default_rng(7)
    v = 10.0 * x / n + rng.uniform(0, 5, (n, n, n))
    tubes = [  # (name, width, distance to axis)
        ("x-axis, width 1", 1.0, np.hypot(y - 0.3 * n, z - 0.3 * n)),
        ("y-axis, width 2", 2.0, np.hypot(x - 0.7 * n, z - 0.4 * n)),
        ("z-axis, width 3", 3.0, np.hypot(x - 0.5 * n, y - 0.7 * n)),
    ]
    c = n / 2.0
    p = np.stack([x - c, y - c, z - c], axis=-1)
    u = np.ones(3) / np.sqrt(3.0)
    d = np.linalg.norm(np.cross(p, u), axis=-1)
    tubes.append(("diagonal, width 4", 4.0, d))
    for _, w, r in tubes:
        v += 100.0 * np.exp(-r * r / (2 * w * w))
    return v.astype(np.float32), tubes


def write_nrrd(path, a):
    header = ("NRRD0004\ntype: float\ndimension: 3\nsizes: %d %d %d\nspacings: 1 1 1\n"
              "encoding: raw\nendian: little\n\n" % (a.shape[2], a.shape[1], a.shape[0]))
    with open(path, "wb") as f:
        f.write(header.encode())
        f.write(a.astype("<f4").tobytes())


def read_nrrd(path):
    data = open(path, "rb").read()
    cut = data.index(b"\n\n")
    fields = dict(line.split(": ", 1) for line in data[:cut].decode().splitlines()[1:]
                  if ": " in line and not line.startswith("#"))
    body = data[cut + 2:]
    if fields.get("encoding") == "gzip":
        body = gzip.decompress(body)
    sizes = [int(s) for s in fields["sizes"].split()]
    return np.frombuffer(body, dtype="<f4").reshape(sizes[::-1])


def top_overlap(a, b, fraction=0.01):
    ta = a >= np.quantile(a, 1 - fraction)
    tb = b >= np.quantile(b, 1 - fraction)
    return 2.0 * np.count_nonzero(ta & tb) / max(1, np.count_nonzero(ta) + np.count_nonzero(tb))


def maxima_report(name, result, tubes):
    parts = []
    for label, _, r in tubes:
        # Among the voxels within 8 of this tube's axis (and farther from the others), where
        # is the response strongest?
        near = r <= 8
        for other_label, _, other in tubes:
            if other_label != label:
                near &= other > 10
        i = np.argmax(np.where(near, result, -np.inf))
        parts.append("%s: %.1f" % (label, r.flat[i]))
    print("  %-10s strongest response, distance from the axis (voxels): %s" % (name, "; ".join(parts)))


def itk_peer():
    """Builds bench/itk_peer against Debian's ITK (installed when missing) once per checkout, in
    the system's temp folder; None when that fails."""
    here = os.path.dirname(os.path.abspath(__file__))
    build = os.path.join(tempfile.gettempdir(), "merivane-itk-peer")
    exe = os.path.join(build, "itk_peer")
    if os.path.exists(exe):
        return exe
    try:
        if not os.path.isdir("/usr/lib/cmake/ITK-5.2"):
            subprocess.run(["apt-get", "install", "-y", "-qq", "--no-install-recommends", "libinsighttoolkit5-dev"],
                           check=True, capture_output=True, env=dict(os.environ, DEBIAN_FRONTEND="noninteractive"))
        subprocess.run(["cmake", "-S", os.path.join(here, "itk_peer"), "-B", build, "-G", "Ninja",
                        "-DCMAKE_BUILD_TYPE=Release"], check=True, capture_output=True)
        subprocess.run(["cmake", "--build", build], check=True, capture_output=True)
        return exe
    except (subprocess.CalledProcessError, FileNotFoundError) as e:
        print("  (ITK peer not built: %s; ITK is left out)" % e)
        return None


def tubularity(args):
    n = args.size
    image, tubes = tube_phantom(n)
    sigmas = [1.0, 2.0, 3.0, 4.0]
    results, times = {}, {}
    with tempfile.TemporaryDirectory() as tmp:
        src = os.path.join(tmp, "tubes.nrrd")
        write_nrrd(src, image)
        merivane = os.path.join(args.build, "bin", "merivane")
        start = time.perf_counter()
        subprocess.run([merivane, "--quiet", "run", "HessianAnalysis", "--in", src, "--set",
                        "Scales=" + " ".join(str(s) for s in sigmas), "--out", os.path.join(tmp, "out")],
                       check=True, stdout=subprocess.DEVNULL)
        times["ours (CLI)"] = time.perf_counter() - start
        results["ours (CLI)"] = read_nrrd(os.path.join(tmp, "out", "Tubularity.nrrd"))

    from skimage.filters import frangi
    start = time.perf_counter()
    results["skimage"] = frangi(image, sigmas=sigmas, black_ridges=False)
    times["skimage"] = time.perf_counter() - start

    peer = itk_peer()
    if peer:
        with tempfile.TemporaryDirectory() as tmp:
            image.astype(np.float32).tofile(os.path.join(tmp, "in.raw"))
            out = subprocess.run([peer, "hessian", str(n), os.path.join(tmp, "in.raw"), os.path.join(tmp, "out.raw")]
                                 + [str(s) for s in sigmas], check=True, capture_output=True, text=True)
            times["ITK"] = json.loads(out.stdout)["seconds"]
            results["ITK"] = np.fromfile(os.path.join(tmp, "out.raw"), np.float32).reshape(n, n, n)

    print("Hessian tubularity, %d^3, scales %s" % (n, sigmas))
    for name, t in times.items():
        print("  %-10s %8.3f s" % (name, t))
    for name, r in results.items():
        maxima_report(name, r, tubes)
    names = list(results)
    for i in range(len(names)):
        for j in range(i + 1, len(names)):
            print("  top 1 %% overlap (Dice) %s / %s: %.3f" % (names[i], names[j],
                                                              top_overlap(results[names[i]], results[names[j]])))


def marching(args):
    n = args.march_size
    z, y, x = np.mgrid[0:n, 0:n, 0:n].astype(np.float64)
    speed = (0.6 + 0.4 * np.sin(0.11 * x) * np.cos(0.07 * y + 0.05 * z)).astype(np.float32)
    bench = os.path.join(args.build, "bin", "ExtractionBench")
    with tempfile.TemporaryDirectory() as tmp:
        speed.tofile(os.path.join(tmp, "speed.raw"))
        out = subprocess.run([bench, "--march-raw=" + tmp, "--size=%d" % n], check=True, capture_output=True, text=True)
        ours_time = json.loads(out.stdout)["seconds"]
        ours = np.fromfile(os.path.join(tmp, "ours.raw"), dtype=np.float32).reshape(n, n, n)
    print("Fast marching, %d^3, from the centre voxel" % n)
    print("  %-10s %8.3f s" % ("ours", ours_time))
    peer = itk_peer()
    if not peer:
        return
    with tempfile.TemporaryDirectory() as tmp:
        speed.tofile(os.path.join(tmp, "speed.raw"))
        out = subprocess.run([peer, "march", str(n), os.path.join(tmp, "speed.raw"), os.path.join(tmp, "itk.raw")],
                             check=True, capture_output=True, text=True)
        theirs_time = json.loads(out.stdout)["seconds"]
        theirs = np.fromfile(os.path.join(tmp, "itk.raw"), np.float32).reshape(n, n, n)
    both = np.isfinite(ours) & (theirs < 1e30) & (theirs > 0)
    rel = np.abs(ours[both] - theirs[both]) / theirs[both]
    print("  %-10s %8.3f s   (ratio %.1fx)" % ("ITK", theirs_time, theirs_time / ours_time))
    print("  relative difference of arrival times: median %.2e, 99th percentile %.2e, max %.2e"
          % (np.median(rel), np.quantile(rel, 0.99), rel.max()))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default=os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "build"))
    parser.add_argument("--size", type=int, default=128)
    parser.add_argument("--march-size", type=int, default=256)
    args = parser.parse_args()
    tubularity(args)
    marching(args)


if __name__ == "__main__":
    main()
