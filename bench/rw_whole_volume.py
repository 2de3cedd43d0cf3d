#!/usr/bin/python3
"""Graph-based segmentation with default settings, through `merivane run`, on whole volumes.

  bench/rw_whole_volume.py brain   [--build build] [--repeat 1] [--busy] [--threads N]
  bench/rw_whole_volume.py phantom [--size 128] [--build build] [--repeat 3] [--busy] [--threads N]

brain: the Colin27 T1 brain of Debian's mricron-data (181 x 217 x 181, 7.1 M voxels), with
seeds on every 10th axial slice: white matter (bright, eroded) as the object and everything
clearly not white matter (background, CSF, grey matter, eroded) as the background. The seed box
is then the whole image, so the finest level has about 7 M unknowns.

phantom: the noisy 128^3 ball of bench/rw_vs_skimage.py, run side by side with scikit-image's
random_walker (mode "cg_j", tol 1e-3) on the same seeds, alternating the two sides. Both sides
read and write uncompressed volumes (.nii here, raw floats there).

For each run: wall time of the whole command, peak memory of the process, iterations of each
level (from the verbose log), and label agreement with a tight solve of the full-resolution
system (double-precision multigrid CG to 1e-8, bench/rw_refsolve), i.e. the share of voxels
whose label at p >= 0.5 matches. --busy keeps the other core spinning in a separate process
during the runs, to see how the solver copes with a shared machine.

Needs Debian's python3-nibabel and python3-skimage, which this script installs when missing;
they are not dependencies of the project.
"""
import atexit
import shutil
import argparse, hashlib, os, re, statistics, subprocess, sys, tempfile, time

BRAIN = "/usr/share/mricron/templates/ch2.nii.gz"

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from rw_vs_skimage import phantom  # noqa: E402  the same noisy ball and seeds


def ensure_packages():
    try:
        import nibabel, skimage, scipy  # noqa: F401
    except ImportError:
        subprocess.run(["apt-get", "install", "-y", "-qq", "--no-install-recommends", "python3-nibabel",
                        "python3-skimage"], check=True, env=dict(os.environ, DEBIAN_FRONTEND="noninteractive"))
    if not os.path.exists(BRAIN):
        subprocess.run(["apt-get", "install", "-y", "-qq", "--no-install-recommends", "mricron-data"], check=True,
                       env=dict(os.environ, DEBIAN_FRONTEND="noninteractive"))


def brain_seeds(img):
    """Seeds on every 10th axial slice (z = 5, 15, ...): white matter as object (label 1), and
    what is clearly not white matter as background (label 2), each eroded in the slice."""
    import numpy as np
    from scipy import ndimage
    lab = np.zeros(img.shape, np.uint8)
    st = np.ones((5, 5), bool)
    for z in range(5, img.shape[2], 10):
        s = img[:, :, z]
        wm = ndimage.binary_erosion(s >= 105, st)
        other = ndimage.binary_erosion(s < 80, st)
        lab[:, :, z][wm] = 1
        lab[:, :, z][other] = 2
    return lab


def timed(cmd, env=None):
    """Runs cmd; returns (seconds, peak MiB of the child, stderr)."""
    t = time.time()
    p = subprocess.Popen(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, env=env)
    err = p.stderr.read()
    _, status, usage = os.wait4(p.pid, 0)
    sec = time.time() - t
    if os.waitstatus_to_exitcode(status) != 0:
        raise RuntimeError(f"{cmd[0]} failed:\n{err[-3000:]}")
    return sec, usage.ru_maxrss / 1024, err


def levels_of(log):
    """Iterations of each level solved, coarsest first, from the verbose log."""
    return [int(m) for m in re.findall(r"(\d+) iterations", log)]


SKIMAGE_CHILD = r"""
import sys, warnings, numpy as np
warnings.filterwarnings("ignore")
from skimage.segmentation import random_walker
n, img_path, lab_path, out_path = sys.argv[1:5]
n = int(n)
img = np.fromfile(img_path, np.float32).reshape(n, n, n)
lab = np.fromfile(lab_path, np.uint8).reshape(n, n, n)
p = random_walker(img, lab, mode="cg_j", tol=1e-3, return_full_prob=True)[0]
p.astype(np.float32).tofile(out_path)
"""


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("case", choices=["brain", "phantom"])
    ap.add_argument("--size", type=int, default=128)
    ap.add_argument("--build", default=os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "build"))
    ap.add_argument("--repeat", type=int, default=None)
    ap.add_argument("--busy", action="store_true", help="keep the other core busy during the runs")
    ap.add_argument("--threads", type=int, default=None, help="OMP_NUM_THREADS for our runs")
    ap.add_argument("--set", action="append", default=[], help="extra --set KEY=VALUE for our runs")
    args = ap.parse_args()
    ensure_packages()
    import nibabel as nib
    import numpy as np

    tmp = tempfile.mkdtemp(prefix="rw_whole_")
    atexit.register(shutil.rmtree, tmp, ignore_errors=True)
    merivane = os.path.join(args.build, "bin", "merivane")
    refsolve = os.path.join(args.build, "bin", "rw_refsolve")
    if args.case == "brain":
        nii = nib.load(BRAIN)
        img = np.asanyarray(nii.dataobj)
        lab = brain_seeds(img)
        img_path = BRAIN
        repeat = args.repeat or 1
    else:
        n = args.size
        img, lab, _ = phantom(n)
        # x fastest on disk: numpy's (z, y, x) array is NIfTI's (x, y, z) after a transpose.
        img, lab = img.transpose(2, 1, 0), lab.transpose(2, 1, 0)
        nii = nib.Nifti1Image(np.ascontiguousarray(img), np.eye(4))
        # Uncompressed, as scikit-image gets its input and writes its output: the comparison is
        # of the segmentations, not of gzip (8 MB of probabilities take 0.3 s to compress).
        img_path = os.path.join(tmp, "phantom.nii")
        nib.save(nii, img_path)
        repeat = args.repeat or 3
    seeds_path = os.path.join(tmp, "seeds.nii" if args.case == "phantom" else "seeds.nii.gz")
    nib.save(nib.Nifti1Image(np.ascontiguousarray(lab), nii.affine), seeds_path)
    shape = img.shape
    nvox = int(np.prod(shape))

    # Raw copies (x fastest) for the reference solve and scikit-image.
    raw_img, raw_lab = os.path.join(tmp, "img.f32"), os.path.join(tmp, "seeds.u8")
    np.asarray(img, np.float32).transpose(2, 1, 0).tofile(raw_img)
    np.asarray(lab, np.uint8).transpose(2, 1, 0).tofile(raw_lab)
    # The tight solve takes minutes at 7 M unknowns: it is kept per input in the system's temp folder.
    key = hashlib.sha1(open(raw_img, "rb").read() + open(raw_lab, "rb").read()).hexdigest()[:16]
    cache = os.path.join(tempfile.gettempdir(), "merivane-rw-ref")
    os.makedirs(cache, exist_ok=True)
    ref_path = os.path.join(cache, key + ".f32")
    t = time.time()
    if not os.path.exists(ref_path):
        subprocess.run([refsolve, "ours", str(shape[0]), str(shape[1]), str(shape[2]), raw_img, raw_lab,
                        ref_path + ".part"], check=True, capture_output=True)
        os.replace(ref_path + ".part", ref_path)
    ref_seconds = time.time() - t
    ref = np.fromfile(ref_path, np.float32).reshape(shape[2], shape[1], shape[0]).transpose(2, 1, 0) >= 0.5

    busy = None
    if args.busy:
        busy = subprocess.Popen([sys.executable, "-c", "while True: pass"])
    env = dict(os.environ)
    if args.threads:
        env["OMP_NUM_THREADS"] = str(args.threads)
    try:
        ours, sk = [], []
        for r in range(repeat):
            out = os.path.join(tmp, f"out{r}")
            cmd = [merivane, "run", "GraphBasedSegmentation", "--in", img_path, "--in-labels", seeds_path,
                   "--set", "Export Probability=true", "--out", out]
            for s in args.set:
                cmd += ["--set", s]
            sec, mib, log = timed(cmd, env)
            prob = [f for f in os.listdir(out) if "robab" in f]
            p = np.asanyarray(nib.load(os.path.join(out, prob[0])).dataobj) if prob else None
            agree = float(((p >= 0.5) == ref).mean()) if p is not None else float("nan")
            ours.append(dict(seconds=sec, peak=mib, levels=levels_of(log), agree=agree))
            if args.case == "phantom":
                sk_out = os.path.join(tmp, "sk.f32")
                sec, mib, _ = timed([sys.executable, "-c", SKIMAGE_CHILD, str(args.size), raw_img, raw_lab, sk_out])
                psk = np.fromfile(sk_out, np.float32).reshape(shape[2], shape[1], shape[0]).transpose(2, 1, 0)
                sk.append(dict(seconds=sec, peak=mib, agree=float(((psk >= 0.5) == ref).mean())))
    finally:
        if busy:
            busy.kill()

    load = "other core busy" if args.busy else "quiet"
    print(f"{args.case} {shape[0]}x{shape[1]}x{shape[2]} ({nvox / 1e6:.1f} M voxels), "
          f"{int((lab == 1).sum())} object and {int((lab == 2).sum())} background seeds; {load}"
          + (f", OMP_NUM_THREADS={args.threads}" if args.threads else ""))
    for r in ours:
        print(f"  merivane run  {r['seconds']:7.2f} s  peak {r['peak']:7.1f} MiB  agreement {100 * r['agree']:.3f} %"
              f"  iterations per level (coarse to fine) {r['levels']}")
    for r in sk:
        print(f"  random_walker {r['seconds']:7.2f} s  peak {r['peak']:7.1f} MiB  agreement {100 * r['agree']:.3f} %")
    if sk:
        pairs = sorted(s["seconds"] / o["seconds"] for o, s in zip(ours, sk))
        print(f"  speed-up {statistics.median(s['seconds'] for s in sk) / statistics.median(o['seconds'] for o in ours):.1f}x"
              f" of the medians of {repeat} alternating runs (pairs {pairs[0]:.1f} to {pairs[-1]:.1f})")
    print(f"  agreement: labels at p >= 0.5 against a tight solve of the full-resolution system ({ref_seconds:.0f} s)")


if __name__ == "__main__":
    main()
