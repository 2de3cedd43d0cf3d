#!/usr/bin/env python3
"""Cohort throughput on a local Dask cluster against one case after another.

    PYTHONPATH=python MERIVANE_EXE=build/bin/merivane python3 bench/batch_dask.py [--workers N]

Writes a cohort of small phantoms (two flat halves with a seed in each, 256 x 256 x 64 by
default), runs it once with `merivane batch --jobs 1` (serial) and once through
merivane.batch on a LocalCluster of N single-threaded worker processes started beforehand,
and reports the cluster's wall time against serial / N. Goal: at most 1.3 x (serial / N).
Run it on an otherwise idle machine; the cluster's start-up is reported apart.
"""

import argparse
import array
import os
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "python"))

from merivane import batch  # noqa: E402


def write_nrrd(path: Path, type_name: str, code: str, values, size):
    data = array.array(code, values)
    if sys.byteorder != "little":
        data.byteswap()
    header = (f"NRRD0004\ntype: {type_name}\ndimension: 3\nsizes: {size[0]} {size[1]} {size[2]}\n"
              "encoding: raw\nendian: little\n\n")
    path.write_bytes(header.encode() + data.tobytes())


def write_cohort(root: Path, cases: int, size) -> Path:
    w, h, d = size
    image = [100.0 if x < w // 2 else 300.0 for _ in range(d) for _ in range(h) for x in range(w)]
    seeds = [0] * (w * h * d)
    middle = (d // 2 * h + h // 2) * w
    seeds[middle + 1], seeds[middle + w - 2] = 1, 2
    lines = ["case,in,in-labels"]
    for i in range(cases):
        folder = root / "cases" / f"case{i:02d}"
        folder.mkdir(parents=True)
        write_nrrd(folder / "image.nrrd", "float", "f", image, size)
        write_nrrd(folder / "seeds.nrrd", "uchar", "B", seeds, size)
        lines.append(f"case{i:02d},cases/case{i:02d}/image.nrrd,cases/case{i:02d}/seeds.nrrd")
    (root / "cases.csv").write_text("\n".join(lines) + "\n")
    return root / "cases.csv"


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--cases", type=int, default=16)
    parser.add_argument("--workers", type=int, default=os.cpu_count() or 1)
    parser.add_argument("--size", type=int, nargs=3, default=[256, 256, 64], metavar=("W", "H", "D"))
    parser.add_argument("--algorithm", default="WatershedSegmentation")
    parser.add_argument("--merivane", default=None, help="the program (default: $MERIVANE_EXE, then build/bin/merivane, then PATH)")
    args = parser.parse_args()
    built = Path(__file__).resolve().parents[1] / "build" / "bin" / "merivane"
    if args.merivane is None and not os.environ.get("MERIVANE_EXE") and built.exists():
        args.merivane = str(built)
    program = batch.find_merivane(args.merivane)
    from distributed import Client, LocalCluster

    root = Path(tempfile.mkdtemp(prefix="merivane-batch-bench-"))
    try:
        table = write_cohort(root, args.cases, args.size)
        common = [args.algorithm, "--write-inputs", "--cases", str(table)]

        start = time.perf_counter()
        code = subprocess.run([program, "--quiet", "batch", *common, "--jobs", "1", "--out", str(root / "serial")]).returncode
        serial = time.perf_counter() - start
        if code != 0:
            print(f"serial batch failed with exit code {code}", file=sys.stderr)
            return 1

        # The same cases side by side here, one process per case, for what the machine itself
        # gives two runs at once.
        start = time.perf_counter()
        code = subprocess.run([program, "--quiet", "batch", *common, "--jobs", str(args.workers), "--out",
                               str(root / "local")]).returncode
        local = time.perf_counter() - start

        start = time.perf_counter()
        cluster = LocalCluster(n_workers=args.workers, threads_per_worker=1, processes=True, dashboard_address=":0")
        client = Client(cluster)
        startup = time.perf_counter() - start
        try:
            start = time.perf_counter()
            code = batch.run(common + ["--out", str(root / "dask"), "--scheduler", cluster.scheduler_address,
                                       "--merivane", program], quiet=True)
            clustered = time.perf_counter() - start
        finally:
            client.close()
            cluster.close()
        if code != 0:
            print(f"batch on the cluster failed with exit code {code}", file=sys.stderr)
            return 1

        ideal = serial / args.workers
        ratio = clustered / ideal
        print(f"cases {args.cases} of {args.size[0]}x{args.size[1]}x{args.size[2]}, {args.algorithm}, "
              f"{args.workers} workers")
        print(f"serial (merivane batch --jobs 1)  {serial:8.2f} s  ({serial / args.cases * 1000:.0f} ms a case)")
        print(f"local (--jobs {args.workers})                {local:8.2f} s  ({local / (serial / args.workers):.2f} x serial / workers)")
        print(f"cluster start-up                  {startup:8.2f} s  (not counted)")
        print(f"Dask cluster                      {clustered:8.2f} s")
        print(f"serial / workers                  {ideal:8.2f} s")
        print(f"ratio                             {ratio:8.2f}  (goal <= 1.30: {'met' if ratio <= 1.3 else 'missed'})")
        return 0
    finally:
        shutil.rmtree(root, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
