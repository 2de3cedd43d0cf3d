#!/usr/bin/env python3
"""Our clustering algorithms through `merivane run` against their usual peers, on one volume.

A synthetic U16 volume (N^3, blocks of 16^3 voxels at three or four intensity levels with
Gaussian noise) is written as NRRD. Then, each timed in a fresh process of its own:

- HistogramIntensityClustering (three modes) against skimage.filters.threshold_multiotsu
  with classes=3 followed by np.digitize;
- IntensityClustering (four clusters, NbIterations rounds) against sklearn.cluster.KMeans
  with n_clusters=4, compared by their centres (relative difference of the sorted centres).

The time of `merivane run` includes reading the input and writing the label map; the peers'
times cover the computation only, so the comparison favours the peers. Peers that are not
installed are skipped with a note.

    /usr/bin/python3 bench/clustering_vs_peers.py [--merivane build/bin/merivane] [--size 256]
"""
import atexit
import shutil
import argparse
import gzip
import os
import subprocess
import sys
import tempfile
import time

import numpy as np


def volume(n, modes, seed=7):
    rng = np.random.default_rng(seed)
    z, y, x = np.meshgrid(np.arange(n), np.arange(n), np.arange(n), indexing="ij")
    k = ((x // 16) * 7 + (y // 16) * 3 + (z // 16)) % modes
    v = 1000.0 + 800.0 * k + rng.normal(0.0, 40.0, size=k.shape)
    return np.clip(v, 0, 65535).astype(np.uint16)


def write_nrrd(path, a):
    n = a.shape
    hdr = (f"NRRD0004\ntype: uint16\ndimension: 3\nsizes: {n[2]} {n[1]} {n[0]}\n"
           "endian: little\nencoding: raw\n\n")
    with open(path, "wb") as f:
        f.write(hdr.encode() + a.astype("<u2").tobytes())


def read_nrrd_u8(path, shape):
    data = open(path, "rb").read()
    i = data.index(b"\n\n")
    header, body = data[:i].decode(), data[i + 2:]
    if "encoding: gzip" in header:
        body = gzip.decompress(body)
    return np.frombuffer(body, np.uint8).reshape(shape)


def run_ours(merivane, name, image, out, sets):
    cmd = [merivane, "--quiet", "run", name, "--in", image, "--out", out, "--format", ".nrrd"]
    for s in sets:
        cmd += ["--set", s]
    t = time.perf_counter()
    r = subprocess.run(cmd, capture_output=True, text=True)
    dt = time.perf_counter() - t
    if r.returncode != 0:
        sys.exit(f"{name} failed: {r.stderr.strip()}")
    return dt, r.stdout.split()


def peer(code):
    """Runs `code` in a fresh interpreter; it prints the seconds and a result line."""
    r = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True)
    if r.returncode != 0:
        return None, r.stderr.strip().splitlines()[-1] if r.stderr.strip() else "failed"
    lines = r.stdout.split("\n")
    return float(lines[0]), lines[1]


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--merivane", default=os.path.join(os.path.dirname(__file__), "..", "build", "bin", "merivane"))
    ap.add_argument("--size", type=int, default=256)
    ap.add_argument("--iterations", type=int, default=20, help="NbIterations of IntensityClustering")
    args = ap.parse_args()
    n = args.size
    tmp = tempfile.mkdtemp(prefix="clustering-peers-")
    atexit.register(shutil.rmtree, tmp, ignore_errors=True)

    # Three modes: histogram clustering against multi-Otsu plus digitize.
    a3 = volume(n, 3)
    p3 = os.path.join(tmp, "three.nrrd")
    write_nrrd(p3, a3)
    np.save(os.path.join(tmp, "three.npy"), a3)
    ours, files = run_ours(args.merivane, "HistogramIntensityClustering", p3, os.path.join(tmp, "h"), [])
    labels = read_nrrd_u8(files[-1], a3.shape)
    truth = ((np.indices(a3.shape)[2] // 16) * 7 + (np.indices(a3.shape)[1] // 16) * 3 + np.indices(a3.shape)[0] // 16) % 3
    print(f"histogram clustering, {n}^3, 3 modes: merivane {ours * 1000:.0f} ms (with file I/O), "
          f"{(labels == truth).mean() * 100:.3f}% voxels on their mode")
    t, res = peer(
        "import numpy as np, time\n"
        "from skimage.filters import threshold_multiotsu\n"
        f"a = np.load({os.path.join(tmp, 'three.npy')!r})\n"
        "t = time.perf_counter(); th = threshold_multiotsu(a, classes=3); l = np.digitize(a, bins=th)\n"
        "print(time.perf_counter() - t); print(list(th))\n")
    print(f"  skimage threshold_multiotsu + digitize: {t * 1000:.0f} ms, thresholds {res}" if t is not None
          else f"  skimage: skipped ({res})")

    # Four clusters: intensity clustering against k-means, by their centres.
    a4 = volume(n, 4)
    p4 = os.path.join(tmp, "four.nrrd")
    write_nrrd(p4, a4)
    np.save(os.path.join(tmp, "four.npy"), a4)
    start = [800, 1700, 2600, 3300]
    r = subprocess.run([args.merivane, "run", "IntensityClustering", "--in", p4, "--out", os.path.join(tmp, "i"),
                        "--set", "clustersMeans=" + " ".join(map(str, start)), "--set", "clustersStd=300 300 300 300",
                        "--set", f"NbIterations={args.iterations}"], capture_output=True, text=True)
    t0 = time.perf_counter()
    subprocess.run([args.merivane, "--quiet", "run", "IntensityClustering", "--in", p4, "--out", os.path.join(tmp, "i"),
                    "--set", "clustersMeans=" + " ".join(map(str, start)), "--set", "clustersStd=300 300 300 300",
                    "--set", f"NbIterations={args.iterations}"], check=True, capture_output=True)
    ours = time.perf_counter() - t0
    centres = sorted(float(l.split("mean: ")[1].split(",")[0]) for l in r.stderr.splitlines() if "th, mean: " in l)
    print(f"intensity clustering, {n}^3, 4 clusters, {args.iterations} rounds: merivane {ours * 1000:.0f} ms "
          f"(with file I/O), centres {[round(c, 1) for c in centres]}")
    t, res = peer(
        "import numpy as np, time\n"
        "from sklearn.cluster import KMeans\n"
        f"a = np.load({os.path.join(tmp, 'four.npy')!r}).reshape(-1, 1).astype(np.float64)\n"
        "t = time.perf_counter(); km = KMeans(n_clusters=4, n_init=1, random_state=0).fit(a)\n"
        "print(time.perf_counter() - t); print(' '.join(str(c) for c in sorted(km.cluster_centers_.ravel())))\n")
    if t is None:
        print(f"  sklearn KMeans: skipped ({res})")
    else:
        theirs = [float(c) for c in res.split()]
        worst = max(abs(a - b) / abs(b) for a, b in zip(centres, theirs))
        print(f"  sklearn KMeans: {t * 1000:.0f} ms, centres {[round(c, 1) for c in theirs]}; "
              f"largest relative centre difference {worst * 100:.3f}%, ratio {t / ours:.1f}x")


if __name__ == "__main__":
    main()
