#!/usr/bin/env python3
"""Our Watershed::run against scikit-image's watershed on the same input.

WatershedBench writes its cell phantom (N^3 bytes, x fastest) and the markers as raw files,
then floods them in a process of its own; scikit-image floods the same arrays with
connectivity 1 in another process. Each process reports the time of the flooding call alone
and its own peak resident memory; each side runs --repeat times (fresh processes, the two
alternating so that both see the same load on the machine) and the median time is reported,
with the ratio of each pair. The two label images are then compared: over all voxels,
and outside ties, that is without the voxels where the outcome is decided by an order rule
(a voxel with a face neighbour of another label in either result, where the two methods break
ties differently).

Note that the two methods rank voxels differently: ours floods by the largest channel
difference between neighbours, scikit-image by the grey value of the voxel reached. On this
phantom (dark cells, bright walls) both put the borders inside the walls.

    python3 bench/watershed_vs_skimage.py [--bench build/bin/WatershedBench] [--size 256]

scikit-image is not a dependency of the project; when no interpreter here has it, the script
installs the Debian package python3-skimage.
"""
import argparse
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile

SKIMAGE_CHILD = "--skimage-child"


def skimage_child(directory, n, compare):
    """Runs in the interpreter that has scikit-image: flood, measure, maybe compare, print JSON."""
    import resource
    import time

    import numpy as np
    from skimage.segmentation import watershed

    shape = (n, n, n)  # z, y, x: the raw files have x fastest
    image = np.fromfile(os.path.join(directory, "source.raw"), dtype=np.uint8).reshape(shape)
    markers = np.fromfile(os.path.join(directory, "markers.raw"), dtype=np.uint8).reshape(shape)
    start = time.perf_counter()
    theirs = watershed(image, markers, connectivity=1)
    seconds = time.perf_counter() - start
    maxrss_kb = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    del image, markers
    if not compare:
        print(json.dumps({"seconds": seconds, "maxrss_kb": maxrss_kb}))
        return

    ours = np.fromfile(os.path.join(directory, "ours.raw"), dtype=np.uint8).reshape(shape)
    theirs = theirs.astype(np.uint8)
    agree = ours == theirs

    def on_border(labels):
        border = np.zeros(shape, dtype=bool)
        for axis in range(3):
            a = [slice(None)] * 3
            b = [slice(None)] * 3
            a[axis] = slice(1, None)
            b[axis] = slice(None, -1)
            differs = labels[tuple(a)] != labels[tuple(b)]
            border[tuple(a)] |= differs
            border[tuple(b)] |= differs
        return border

    clear = ~(on_border(ours) | on_border(theirs))
    print(json.dumps({
        "seconds": seconds,
        "maxrss_kb": maxrss_kb,
        "agree_all": float(agree.mean()),
        "agree_outside_ties": float(agree[clear].mean()),
        "outside_ties_share": float(clear.mean()),
    }))


def skimage_python():
    """An interpreter that imports skimage, installing the Debian package when none does."""
    candidates = [sys.executable, "/usr/bin/python3"]
    for python in candidates:
        if shutil.which(python) or os.path.exists(python):
            if subprocess.run([python, "-c", "import skimage"], capture_output=True).returncode == 0:
                return python
    print("scikit-image missing: installing python3-skimage", file=sys.stderr)
    subprocess.run(["apt-get", "install", "-y", "python3-skimage"], check=True, stdout=subprocess.DEVNULL)
    return "/usr/bin/python3"


def run_json(command):
    out = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    return json.loads(out.strip().splitlines()[-1])


def main():
    if len(sys.argv) == 5 and sys.argv[1] == SKIMAGE_CHILD:
        skimage_child(sys.argv[2], int(sys.argv[3]), sys.argv[4] == "compare")
        return
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--bench", default=os.path.join(root, "build", "bin", "WatershedBench"))
    parser.add_argument("--size", type=int, default=256)
    parser.add_argument("--repeat", type=int, default=5)
    args = parser.parse_args()
    if not os.path.exists(args.bench):
        sys.exit(f"{args.bench}: not built (ninja WatershedBench)")
    python = skimage_python()

    with tempfile.TemporaryDirectory(prefix="watershed_vs_skimage_") as directory:
        size = f"--size={args.size}"
        subprocess.run([args.bench, f"--write-input={directory}", size], check=True)
        child = [python, os.path.abspath(__file__), SKIMAGE_CHILD, directory, str(args.size)]
        # Alternating, so that both sides see the same load on the machine.
        ours_runs, their_runs = [], []
        for i in range(args.repeat):
            ours_runs.append(run_json([args.bench, f"--flood-raw={directory}", size]))
            their_runs.append(run_json(child + ["compare" if i == 0 else "time"]))
    ours = {"seconds": statistics.median(r["seconds"] for r in ours_runs),
            "maxrss_kb": max(r["maxrss_kb"] for r in ours_runs)}
    theirs = dict(their_runs[0])
    theirs["seconds"] = statistics.median(r["seconds"] for r in their_runs)
    theirs["maxrss_kb"] = max(r["maxrss_kb"] for r in their_runs)

    voxels = args.size ** 3
    print(f"input: {args.size}^3 cell phantom, {voxels} voxels; median of {args.repeat} runs each")
    print("ours runs:    " + " ".join(f"{r['seconds']:.3f}" for r in ours_runs) + " s")
    print("skimage runs: " + " ".join(f"{r['seconds']:.3f}" for r in their_runs) + " s")
    print(f"ours:    {ours['seconds']:8.3f} s  {voxels / ours['seconds'] / 1e6:8.2f} Mvoxel/s  "
          f"peak {ours['maxrss_kb'] / 1024:7.1f} MiB")
    print(f"skimage: {theirs['seconds']:8.3f} s  {voxels / theirs['seconds'] / 1e6:8.2f} Mvoxel/s  "
          f"peak {theirs['maxrss_kb'] / 1024:7.1f} MiB")
    pairs = sorted(t["seconds"] / o["seconds"] for o, t in zip(ours_runs, their_runs))
    print(f"speed ratio (skimage / ours): {theirs['seconds'] / ours['seconds']:.1f} of the medians; "
          f"{statistics.median(pairs):.1f} median of the {len(pairs)} pairs, {pairs[0]:.1f} to {pairs[-1]:.1f}")
    print(f"peak memory ratio (ours / skimage): {ours['maxrss_kb'] / theirs['maxrss_kb']:.3f}")
    print(f"labels agree on {100 * theirs['agree_all']:.2f}% of all voxels, "
          f"{100 * theirs['agree_outside_ties']:.2f}% outside ties "
          f"({100 * theirs['outside_ties_share']:.1f}% of the voxels)")


if __name__ == "__main__":
    main()
