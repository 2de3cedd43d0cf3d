#!/usr/bin/python3
"""Random walker side by side: our full-resolution solve against scikit-image's random_walker.

Both run on the same noisy 128^3 two-region phantom with the same two seed blobs, each in its
own process so that peak memory is its own. Accuracy is the largest absolute difference of the
object probability from a tightly converged solve of the same system, each method against its
own (the two weight the edges differently, so their systems differ).

  bench/rw_vs_skimage.py [--size 128] [--solver 2] [--tol-log -8] [--iterations 40]
                         [--build build] [--repeat 3] [--all-ids]

The two sides run --repeat times each, alternating, so that both see the same load on the
machine; the medians are compared, and the ratio of each pair is shown too.

Needs Debian's python3-skimage, which this script installs when missing; it is not a
dependency of the project.
"""
import atexit
import shutil
import argparse, json, os, resource, statistics, subprocess, sys, tempfile, time

def ensure_packages():
    try:
        import skimage  # noqa: F401
    except ImportError:
        subprocess.run(["apt-get", "install", "-y", "-qq", "--no-install-recommends", "python3-skimage"], check=True,
                       env=dict(os.environ, DEBIAN_FRONTEND="noninteractive"))

def phantom(n):
    """A ball of 1 in 0 with Gaussian noise of 0.2; object seeds in a blob at the centre,
    background seeds in blobs near the eight corners. Same as bench/Phantoms.h."""
    import numpy as np
    rng = np.random.default_rng(42)
    z, y, x = np.mgrid[0:n, 0:n, 0:n]
    c = (n - 1) / 2
    d = np.sqrt((x - c) ** 2 + (y - c) ** 2 + (z - c) ** 2)
    img = (d < n * 0.3).astype(np.float32) + rng.normal(0, 0.2, (n, n, n)).astype(np.float32)
    lab = np.zeros((n, n, n), np.uint8)
    blob = max(2, n / 16)
    lab[d < blob] = 1
    for cz in (n // 8, n - 1 - n // 8):
        for cy in (n // 8, n - 1 - n // 8):
            for cx in (n // 8, n - 1 - n // 8):
                lab[np.sqrt((x - cx) ** 2 + (y - cy) ** 2 + (z - cz) ** 2) < blob] = 2
    return img, lab, d < n * 0.3

SKIMAGE_CHILD = r"""
import sys, time, resource, warnings, numpy as np
warnings.filterwarnings("ignore")
from skimage.segmentation import random_walker
n, mode, tol, img_path, lab_path, out_path = sys.argv[1:7]
n = int(n); tol = float(tol)
img = np.fromfile(img_path, np.float32).reshape(n, n, n)
lab = np.fromfile(lab_path, np.uint8).reshape(n, n, n)
base = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
t = time.time()
p = random_walker(img, lab, mode=mode, tol=tol, return_full_prob=True)[0]
sec = time.time() - t
p.astype(np.float32).tofile(out_path)
print("seconds=%.3f peak_mib=%.1f" % (sec, resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024))
"""

SKIMAGE_SYSTEM_CHILD = r"""
import sys, subprocess, numpy as np
from skimage.util import img_as_float
from skimage.segmentation.random_walker_segmentation import _preprocess, _build_linear_system
n, img_path, lab_path, out_path, refsolve, tmp = sys.argv[1:7]
n = int(n)
img = np.fromfile(img_path, np.float32).reshape(n, n, n)
lab = np.fromfile(lab_path, np.uint8).reshape(n, n, n)
data = np.atleast_3d(img_as_float(img))[..., np.newaxis]
labels, nlabels, mask, _, _ = _preprocess(lab.copy())
A, B = _build_linear_system(data, np.ones(3), labels, nlabels, mask, 130, False)
A = A.tocsr()
A.sort_indices()
rhs = np.asarray(B[:, 0].toarray()).ravel().astype(np.float64)
A.indptr.astype(np.int32).tofile(tmp + "/sk_indptr.i32")
A.indices.astype(np.int32).tofile(tmp + "/sk_indices.i32")
A.data.astype(np.float64).tofile(tmp + "/sk_data.f64")
rhs.tofile(tmp + "/sk_rhs.f64")
subprocess.run([refsolve, "csr", str(A.shape[0]), str(A.nnz), tmp + "/sk_indptr.i32", tmp + "/sk_indices.i32",
                tmp + "/sk_data.f64", tmp + "/sk_rhs.f64", tmp + "/sk_x.f64"], check=True)
x = np.fromfile(tmp + "/sk_x.f64", np.float64)
flat = labels.ravel()
out = np.zeros(n * n * n, np.float32)
out[flat == 0] = x
out[flat == 1] = 1
out.tofile(out_path)
"""

def parse(line):
    return {k: float(v) for k, v in (kv.split("=") for kv in line.split())}

def run_ours(runner, n, files, out, solver, iterations, tol_log):
    r = subprocess.run([runner, str(n), str(n), str(n), files[0], files[1], out, str(solver), str(iterations),
                        str(tol_log)], capture_output=True, text=True)
    if r.returncode != 0:
        raise RuntimeError(r.stderr)
    return parse(r.stdout.strip().splitlines()[-1])

def run_skimage(n, mode, tol, files, out):
    r = subprocess.run([sys.executable, "-c", SKIMAGE_CHILD, str(n), mode, str(tol), files[0], files[1], out],
                       capture_output=True, text=True)
    if r.returncode != 0:
        raise RuntimeError(r.stderr)
    return parse(r.stdout.strip().splitlines()[-1])

def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--size", type=int, default=128)
    ap.add_argument("--solver", type=int, default=2)
    ap.add_argument("--tol-log", type=int, default=-8)
    ap.add_argument("--iterations", type=int, default=40)
    ap.add_argument("--build", default=os.path.join(os.path.dirname(__file__), "..", "build"))
    ap.add_argument("--repeat", type=int, default=3, help="alternating runs of each side")
    ap.add_argument("--all-ids", action="store_true", help="also time every solver id at these settings")
    args = ap.parse_args()
    ensure_packages()
    import numpy as np
    runner = os.path.join(args.build, "bin", "rw_runner")
    n = args.size
    img, lab, truth = phantom(n)
    tmp = tempfile.mkdtemp(prefix="rw_")
    atexit.register(shutil.rmtree, tmp, ignore_errors=True)
    files = (os.path.join(tmp, "img.f32"), os.path.join(tmp, "seeds.u8"))
    img.tofile(files[0]); lab.tofile(files[1])
    load = lambda p: np.fromfile(p, np.float32).reshape(n, n, n)
    dice = lambda p: 2 * ((p >= 0.5) & truth).sum() / ((p >= 0.5).sum() + truth.sum())

    # Alternating, so that both sides see the same load on the machine; medians are reported.
    ours_runs, sk_runs = [], []
    for _ in range(args.repeat):
        ours_runs.append(run_ours(runner, n, files, os.path.join(tmp, "ours.f32"), args.solver, args.iterations,
                                  args.tol_log))
        sk_runs.append(run_skimage(n, "cg_j", 1e-3, files, os.path.join(tmp, "sk.f32")))
    median = lambda runs, key: statistics.median(r[key] for r in runs)
    ours = dict(ours_runs[0], seconds=median(ours_runs, "seconds"), peak_mib=max(r["peak_mib"] for r in ours_runs))
    sk = dict(sk_runs[0], seconds=median(sk_runs, "seconds"), peak_mib=max(r["peak_mib"] for r in sk_runs))
    pairs = sorted(s["seconds"] / o["seconds"] for o, s in zip(ours_runs, sk_runs))
    # Tight references of both systems: double-precision multigrid-preconditioned CG to 1e-8.
    refsolve = os.path.join(args.build, "bin", "rw_refsolve")
    t = time.time()
    subprocess.run([refsolve, "ours", str(n), str(n), str(n), files[0], files[1], os.path.join(tmp, "ours_ref.f32")],
                   check=True, capture_output=True)
    ref = {"seconds": time.time() - t}
    t = time.time()
    subprocess.run([sys.executable, "-c", SKIMAGE_SYSTEM_CHILD, str(n), files[0], files[1],
                    os.path.join(tmp, "sk_ref.f32"), refsolve, tmp], check=True, capture_output=True)
    skref = {"seconds": time.time() - t}

    p_ours, p_ref = load(os.path.join(tmp, "ours.f32")), load(os.path.join(tmp, "ours_ref.f32"))
    p_sk, p_skref = load(os.path.join(tmp, "sk.f32")), load(os.path.join(tmp, "sk_ref.f32"))
    err_ours, err_sk = float(np.abs(p_ours - p_ref).max()), float(np.abs(p_sk - p_skref).max())

    print(f"phantom {n}^3, ours: solver {args.solver}, tolerance 1e{args.tol_log}, at most {args.iterations} iterations")
    print(f"  ours     {ours['seconds']:8.2f} s  peak {ours['peak_mib']:7.1f} MiB  iterations {int(ours['iterations'])}"
          f"  residual {ours['residual']:.3g}  max |p - p_tight| {err_ours:.2e}  Dice {dice(p_ours):.4f}")
    print(f"  skimage  {sk['seconds']:8.2f} s  peak {sk['peak_mib']:7.1f} MiB  (cg_j, tol 1e-3)"
          f"              max |p - p_tight| {err_sk:.2e}  Dice {dice(p_sk):.4f}")
    print(f"  speed-up {sk['seconds'] / ours['seconds']:.1f}x of the medians of {args.repeat} alternating runs "
          f"({statistics.median(pairs):.1f}x median of the pairs, {pairs[0]:.1f} to {pairs[-1]:.1f})"
          f"   memory ratio {ours['peak_mib'] / sk['peak_mib']:.2f}"
          f"   accuracy {'equal or better' if err_ours <= err_sk else 'WORSE'}")
    print(f"  tight references took {ref['seconds']:.1f} s (ours) and {skref['seconds']:.1f} s (skimage's system)")
    if args.all_ids:
        print("every solver id at these settings:")
        for sid in range(8):
            if sid in (0, 1) and n ** 3 > 100000:
                print(f"  id {sid}: skipped, a direct factorisation of {n}^3 unknowns does not fit")
                continue
            r = run_ours(runner, n, files, os.path.join(tmp, f"id{sid}.f32"), sid, args.iterations, args.tol_log)
            e = float(np.abs(load(os.path.join(tmp, f"id{sid}.f32")) - p_ref).max())
            print(f"  id {sid}: {r['seconds']:7.2f} s  peak {r['peak_mib']:7.1f} MiB  iterations {int(r['iterations'])}"
                  f"  residual {r['residual']:.3g}  max |p - p_tight| {e:.2e}  speed-up {sk['seconds'] / r['seconds']:.1f}x")

if __name__ == "__main__":
    main()
