"""Segmentation and labeling of medical images from Python.

Images are NumPy arrays with their geometry::

    import merivane
    img = merivane.read("ct.nii.gz")          # Image: .array (z, y, x), .spacing, .matrix, ...
    seeds = merivane.read("seeds.nrrd")       # a label map: .is_label_map, .labels
    prob, labels = merivane.run("GraphBasedSegmentation", [img, seeds],
                                {"Export Probability": True})
    merivane.write(labels, "labels.nii.gz")

Arrays are shared, not copied: ``img.array`` is a view of the image's buffer, and
``merivane.Image(array)`` uses the array's buffer where it can. Geometry follows the
library: spacing is (x, y, z) in millimetres, and ``matrix`` maps centred image space
(voxel v to (v - (size/2 - 1/2)) * spacing, x fastest) to LPS world millimetres.
"""

try:
    from . import _merivane  # noqa: F401
except ImportError as _missing:
    # merivane.batch drives the command-line program and needs no compiled module; everything
    # else does, and says so when it is asked for.
    _reason = str(_missing)

    def __getattr__(name):
        if name.startswith("__") or name == "batch":  # submodules load as usual
            raise AttributeError(name)
        raise ImportError(f"merivane.{name} needs the compiled module merivane._merivane, which did not load "
                          f"({_reason}); build the project with scripts/setup.sh")
else:
    from ._core import *  # noqa: F401,F403
    from ._core import __all__  # noqa: F401
