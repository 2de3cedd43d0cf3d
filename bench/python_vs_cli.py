#!/usr/bin/python3
"""Seg.GraphBasedSegmentation from Python against `merivane run`, doing the same work.

  bench/python_vs_cli.py [--build build] [--repeat 5] [--image FILE] [--seeds FILE]

Both sides read the demo brain (Colin27 T1 of Debian's mricron-data) and its ventricle seeds,
segment with the default settings and "Export Probability" on, and write the probability map
as .nii.gz. They run alternately, each in a fresh process:

  cli             wall time of the `merivane run` process (plug-in load, read, compute, write)
  python call     time of merivane.read x 2 + merivane.run + merivane.write inside Python,
                  with the plug-in already loaded (the cost of the Python call itself)
  python process  wall time of a `python3` process that imports merivane and does the same
                  (interpreter and NumPy start included)

The goal is python call <= 1.05 x cli. The outputs of both sides are compared voxel for voxel.
Needs the package built (MERIVANE_PYTHON, the default) in the build folder.
"""
import argparse
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time

BRAIN = "/usr/share/mricron/templates/ch2.nii.gz"
ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SEEDS = os.path.join(ROOT, "data", "demo", "ch2_ventricle_seeds.nii.gz")

CHILD = r"""
import json, sys, time
t0 = time.perf_counter()
import merivane
merivane.set_log_level("error")
merivane.algorithms()  # loads the plug-in
image_path, seeds_path, out_path = sys.argv[1:4]
t1 = time.perf_counter()
image = merivane.read(image_path)
seeds = merivane.read(seeds_path)
(probability,) = merivane.run("Seg.GraphBasedSegmentation", [image, seeds], {"Export Probability": True})
merivane.write(probability, out_path)
t2 = time.perf_counter()
print(json.dumps({"call": t2 - t1, "start": t1 - t0}))
"""


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--build", default=os.path.join(ROOT, "build"))
    ap.add_argument("--repeat", type=int, default=5)
    ap.add_argument("--image", default=BRAIN)
    ap.add_argument("--seeds", default=SEEDS)
    args = ap.parse_args()

    cli = os.path.join(args.build, "bin", "merivane")
    package = os.path.join(args.build, "python")
    for path, what in ((cli, "the merivane command"), (os.path.join(package, "merivane"), "the Python package"),
                       (args.image, "the image"), (args.seeds, "the seeds")):
        if not os.path.exists(path):
            sys.exit(f"python_vs_cli: {what} is missing: {path}")
    python = sys.executable
    env = dict(os.environ, PYTHONPATH=package + os.pathsep + os.environ.get("PYTHONPATH", ""))

    rows = {"cli": [], "python call": [], "python process": []}
    with tempfile.TemporaryDirectory() as tmp:
        for i in range(args.repeat + 1):  # the first round warms the file cache and is dropped
            out_cli = os.path.join(tmp, f"cli{i}")
            t = time.perf_counter()
            subprocess.run([cli, "--quiet", "run", "Seg.GraphBasedSegmentation", "--in", args.image, "--in",
                            args.seeds, "--set", "Export Probability=true", "--format", ".nii.gz", "--out", out_cli],
                           check=True, stdout=subprocess.DEVNULL)
            cli_s = time.perf_counter() - t

            out_py = os.path.join(tmp, f"py{i}.nii.gz")
            t = time.perf_counter()
            done = subprocess.run([python, "-c", CHILD, args.image, args.seeds, out_py], check=True, env=env,
                                  capture_output=True, text=True)
            process_s = time.perf_counter() - t
            call_s = json.loads(done.stdout.strip().splitlines()[-1])["call"]
            if i == 0:
                continue
            rows["cli"].append(cli_s)
            rows["python call"].append(call_s)
            rows["python process"].append(process_s)
            print(f"round {i}: cli {cli_s:.3f} s, python call {call_s:.3f} s, python process {process_s:.3f} s",
                  flush=True)

        # Same result on both sides.
        sys.path.insert(0, package)
        import numpy as np
        import merivane
        written = [f for f in os.listdir(os.path.join(tmp, "cli1")) if "robab" in f]
        a = merivane.read(os.path.join(tmp, "cli1", written[0])).array
        b = merivane.read(os.path.join(tmp, "py1.nii.gz")).array
        same = a.shape == b.shape and np.array_equal(a, b)

    cli_m = statistics.median(rows["cli"])
    print()
    print(f"{'':16} {'median s':>9} {'min s':>7} {'vs cli':>7}")
    for name, values in rows.items():
        m = statistics.median(values)
        print(f"{name:16} {m:9.3f} {min(values):7.3f} {m / cli_m:7.3f}")
    ratio = statistics.median(rows["python call"]) / cli_m
    print(f"\npython call / cli = {ratio:.3f} (goal <= 1.05): {'met' if ratio <= 1.05 else 'NOT met'}")
    print(f"outputs voxel for voxel equal: {same}")
    return 0 if same else 1


if __name__ == "__main__":
    sys.exit(main())
