#!/usr/bin/env python3
"""Our 3D flood fill against scikit-image's flood_fill on the same volume and seed.

Both fill the phantom of FloodFillBench (an ellipsoid of label 1 riddled with a lattice of
label 2, 0 outside), built here in numpy from the same formula, from the same seed, with the
same neighbourhood: the four in-plane face neighbours and the eight edge neighbours across z
(given to scikit-image as its footprint). The filled voxel counts must agree. Times are the
median of --repeat runs of the fill call alone; ours come from FloodFillBench's JSON output.

    python3 bench/floodfill_vs_skimage.py [--bench build/bin/FloodFillBench] [--xy 512 --z 300]

scikit-image and numpy are for this script only, not dependencies of the project.
"""
import argparse
import json
import statistics
import subprocess
import time

import numpy as np
from skimage.segmentation import flood_fill


def phantom(xy, z):
    zz, yy, xx = np.meshgrid(np.arange(z), np.arange(xy), np.arange(xy), indexing="ij")
    c = (np.array([xy, xy, z], dtype=float) - 1) * 0.5
    r = np.array([xy, xy, z], dtype=float) * 0.48
    inside = ((xx - c[0]) / r[0]) ** 2 + ((yy - c[1]) / r[1]) ** 2 + ((zz - c[2]) / r[2]) ** 2 <= 1.0
    obstacle = (xx * 7 + yy * 13 + zz * 5) % 17 == 0
    v = np.zeros((z, xy, xy), dtype=np.uint8)
    v[inside] = 1
    v[inside & obstacle] = 2
    return v


def footprint():
    f = np.zeros((3, 3, 3), dtype=bool)  # (z, y, x)
    f[1, 1, 0] = f[1, 1, 2] = f[1, 0, 1] = f[1, 2, 1] = True
    for dz in (0, 2):
        f[dz, 1, 0] = f[dz, 1, 2] = f[dz, 0, 1] = f[dz, 2, 1] = True
    f[1, 1, 1] = True
    return f


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--bench", default="build/bin/FloodFillBench")
    ap.add_argument("--xy", type=int, default=512)
    ap.add_argument("--z", type=int, default=300)
    ap.add_argument("--repeat", type=int, default=3)
    a = ap.parse_args()

    v = phantom(a.xy, a.z)
    seed = (a.z // 2, a.xy // 2, a.xy // 2 + 1)  # (z, y, x), as the benchmark's n / 2 + (1, 0, 0)
    times, filled = [], None
    for _ in range(a.repeat):
        t = time.perf_counter()
        out = flood_fill(v, seed, 5, footprint=footprint())
        times.append(time.perf_counter() - t)
        filled = int((out != v).sum())
    sk = statistics.median(times)

    ours = subprocess.run(
        [a.bench, f"--benchmark_filter=BM_FloodFill/xy:{a.xy}/z:{a.z}/", "--benchmark_format=json",
         f"--benchmark_repetitions={a.repeat}", "--benchmark_report_aggregates_only=true"],
        check=True, capture_output=True, text=True)
    report = json.loads(ours.stdout)
    for b in report["benchmarks"]:
        if b.get("aggregate_name") != "median":
            continue
        ms = b["real_time"]
        agree = "same count" if int(b["filled"]) == filled else f"COUNT DIFFERS ({int(b['filled'])})"
        print(f"{b['run_name']}: ours {ms:.0f} ms, scikit-image {sk * 1000:.0f} ms, "
              f"{sk * 1000 / ms:.1f}x faster; {filled} voxels filled, {agree}")


if __name__ == "__main__":
    main()
