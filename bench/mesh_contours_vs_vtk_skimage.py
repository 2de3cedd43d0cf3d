#!/usr/bin/env python3
"""Label meshes against VTK, label contours against scikit-image, on the same label maps.

LabelMapBench writes a 256^3 label map of 10 blobs and a 2048^2 label map of 10 discs as raw
bytes (x fastest), then runs LabelToMeshAlgorithm (with vertex normals) and
LabelMapToContoursAlgorithm on them once per fresh process. In other processes VTK's
vtkDiscreteFlyingEdges3D extracts all 10 labels from the same volume with normals on, and
scikit-image's find_contours traces each label (labels == L at level 0.5). Each process
reports the time of the extraction call alone and its own peak resident memory; each side
runs --repeat times and the median is reported, with the ratios ours / theirs.

For the meshes the script also reports, per label, whether each side's surface is closed
(VTK: no boundary or non-manifold edges by vtkFeatureEdges; ours: every edge in exactly two
faces, checked in the C++ run).

    python3 bench/mesh_contours_vs_vtk_skimage.py [--bench build/bin/LabelMapBench] [--repeat 3]

Neither VTK nor scikit-image is a dependency of the project; the script installs the Debian
packages python3-vtk9 and python3-skimage when they are missing.
"""
import argparse
import json
import os
import statistics
import subprocess
import sys
import tempfile

CHILD = "--child"


def interpreter_with(module, package):
    """This interpreter or the system's, whichever imports `module`; installs `package` if none."""
    candidates = [sys.executable, "/usr/bin/python3"]
    for python in candidates:
        if os.path.exists(python) and subprocess.run([python, "-c", f"import {module}"],
                                                     capture_output=True).returncode == 0:
            return python
    print(f"installing {package} for the comparison", file=sys.stderr)
    sudo = [] if os.geteuid() == 0 else ["sudo"]
    env = dict(os.environ, DEBIAN_FRONTEND="noninteractive")
    subprocess.run(sudo + ["apt-get", "install", "-y", "-qq", "--no-install-recommends", package], check=True, env=env)
    return "/usr/bin/python3"


def vtk_child(directory):
    import resource
    import time

    import numpy as np
    import vtk
    from vtk.util import numpy_support

    n = 256
    data = np.fromfile(os.path.join(directory, "labels3d.raw"), dtype=np.uint8)
    image = vtk.vtkImageData()
    image.SetDimensions(n, n, n)
    array = numpy_support.numpy_to_vtk(data, deep=True, array_type=vtk.VTK_UNSIGNED_CHAR)
    image.GetPointData().SetScalars(array)
    fe = vtk.vtkDiscreteFlyingEdges3D()
    fe.SetInputData(image)
    fe.ComputeNormalsOn()
    fe.ComputeGradientsOff()
    fe.ComputeScalarsOn()
    for i, label in enumerate(range(1, 11)):
        fe.SetValue(i, label)
    start = time.perf_counter()
    fe.Update()
    seconds = time.perf_counter() - start
    maxrss_kb = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    out = fe.GetOutput()
    closed = {}
    for label in range(1, 11):
        th = vtk.vtkThreshold()
        th.SetInputData(out)
        th.SetLowerThreshold(label - 0.5)
        th.SetUpperThreshold(label + 0.5)
        th.SetThresholdFunction(vtk.vtkThreshold.THRESHOLD_BETWEEN)
        th.SetInputArrayToProcess(0, 0, 0, vtk.vtkDataObject.FIELD_ASSOCIATION_POINTS, "ImageScalars")
        geo = vtk.vtkGeometryFilter()
        geo.SetInputConnection(th.GetOutputPort())
        clean = vtk.vtkCleanPolyData()
        clean.SetInputConnection(geo.GetOutputPort())
        edges = vtk.vtkFeatureEdges()
        edges.SetInputConnection(clean.GetOutputPort())
        edges.BoundaryEdgesOn()
        edges.NonManifoldEdgesOn()
        edges.FeatureEdgesOff()
        edges.ManifoldEdgesOff()
        edges.Update()
        closed[label] = {"faces": clean.GetOutput().GetNumberOfPolys(), "closed": edges.GetOutput().GetNumberOfLines() == 0}
    print(json.dumps({"seconds": seconds, "maxrss_kb": maxrss_kb, "faces": out.GetNumberOfPolys(), "labels": closed}))


def skimage_child(directory):
    import resource
    import time

    import numpy as np
    from skimage.measure import find_contours

    n = 2048
    labels = np.fromfile(os.path.join(directory, "labels2d.raw"), dtype=np.uint8).reshape(n, n)
    start = time.perf_counter()
    count = 0
    points = 0
    for label in range(1, 11):
        for c in find_contours((labels == label).astype(np.uint8), 0.5):
            count += 1
            points += len(c)
    seconds = time.perf_counter() - start
    maxrss_kb = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    print(json.dumps({"seconds": seconds, "maxrss_kb": maxrss_kb, "contours": count, "points": points}))


def run_json(cmd):
    out = subprocess.run(cmd, check=True, capture_output=True, text=True).stdout
    return json.loads(out.strip().splitlines()[-1])


def median_of(runs, key="seconds"):
    return statistics.median(r[key] for r in runs)


def main():
    if len(sys.argv) > 2 and sys.argv[1] == CHILD:
        {"vtk": vtk_child, "skimage": skimage_child}[sys.argv[2]](sys.argv[3])
        return
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--bench", default=os.path.join(os.path.dirname(__file__), "..", "build", "bin", "LabelMapBench"))
    parser.add_argument("--repeat", type=int, default=3)
    args = parser.parse_args()
    vtk_python = interpreter_with("vtk", "python3-vtk9")
    skimage_python = interpreter_with("skimage", "python3-skimage")
    with tempfile.TemporaryDirectory() as d:
        subprocess.run([args.bench, f"--write-input={d}"], check=True)
        me = [run_json([args.bench, f"--mesh-raw={d}"]) for _ in range(args.repeat)]
        vt = [run_json([vtk_python, __file__, CHILD, "vtk", d]) for _ in range(args.repeat)]
        mc = [run_json([args.bench, f"--contours-raw={d}"]) for _ in range(args.repeat)]
        sk = [run_json([skimage_python, __file__, CHILD, "skimage", d]) for _ in range(args.repeat)]
    ours_m, vtk_m = median_of(me), median_of(vt)
    ours_c, sk_c = median_of(mc), median_of(sk)
    print(f"meshes 256^3, 10 labels: ours {ours_m * 1e3:.1f} ms, VTK flying edges {vtk_m * 1e3:.1f} ms, "
          f"ratio ours/VTK {ours_m / vtk_m:.2f} (goal <= 2)")
    print(f"  peak memory: ours {me[0]['maxrss_kb'] / 1024:.0f} MiB, VTK {vt[0]['maxrss_kb'] / 1024:.0f} MiB")
    ours_faces = sum(m["faces"] for m in me[0]["meshes"])
    print(f"  faces: ours {ours_faces}, VTK {vt[0]['faces']}")
    bad = []
    for i, m in enumerate(me[0]["meshes"]):
        v = vt[0]["labels"][str(i + 1)]
        if v["closed"] and not m["closed"]:
            bad.append(m["name"])
        print(f"  {m['name']}: ours closed {m['closed']} (euler {m['euler']}), VTK closed {v['closed']}")
    print("  closed wherever VTK's are:", "yes" if not bad else "NO: " + ", ".join(bad))
    print(f"contours 2048^2, 10 labels: ours {ours_c * 1e3:.1f} ms, scikit-image {sk_c * 1e3:.1f} ms, "
          f"speed-up {sk_c / ours_c:.1f}x (goal >= 3)")
    print(f"  peak memory: ours {mc[0]['maxrss_kb'] / 1024:.0f} MiB, scikit-image {sk[0]['maxrss_kb'] / 1024:.0f} MiB")
    print(f"  contours: ours {mc[0]['contours']} ({mc[0]['points']} spline points), "
          f"scikit-image {sk[0]['contours']} ({sk[0]['points']} points)")


if __name__ == "__main__":
    main()
