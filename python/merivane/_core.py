"""The parts of merivane that stand on the compiled module: images, files and runs."""


import collections
import errno
import os

import numpy

from . import _merivane
from ._merivane import Data, Image, Mesh, PointSet

__all__ = [
    "AlgorithmError",
    "AlgorithmInfo",
    "Data",
    "Image",
    "Label",
    "Mesh",
    "Parameter",
    "PointSet",
    "DicomSeries",
    "algorithms",
    "dicom_series",
    "parameters",
    "read",
    "run",
    "set_log_level",
    "write",
]

Label = collections.namedtuple("Label", "name color")
Label.__doc__ = "Name and colour (r, g, b, a in 0..1) of a label value."
DicomSeries = collections.namedtuple("DicomSeries", "uid modality description number width height slices files")
DicomSeries.__doc__ = "An image series of a DICOM folder: its Series Instance UID, what it is, its size and files."
AlgorithmInfo = collections.namedtuple("AlgorithmInfo", "name menu_path")
AlgorithmInfo.__doc__ = "A registered algorithm: factory name and menu path."
Parameter = collections.namedtuple("Parameter", "name value default text attributes")
Parameter.__doc__ = """A setting of an algorithm.

value and default are read from the configuration text (bool, int, float, a tuple of
numbers or str); text is the value exactly as the algorithm writes it; attributes hold
'min', 'max', 'label', 'type' where the algorithm declares them."""


class AlgorithmError(RuntimeError):
    """An algorithm ended with an error status.

    ``status`` is the algorithm's status (1 error, 2 invalid input, 3 incomplete input,
    1000 canceled) and the message is its first error line."""

    def __init__(self, message, status):
        super().__init__(message)
        self.status = status


# ----------------------------------------------------------------------------------------
# Image conveniences (the compiled class gets them here).

def _labels(self):
    """Names and colours of the label values, {value: Label(name, (r, g, b, a))}.

    Assigning a dict {value: name} or {value: (name, (r, g, b[, a]))} makes the image a
    label map (uint8, one channel) with exactly these labels."""
    return {v: Label(n, c) for v, (n, c) in self._labels().items()}


def _set_labels(self, labels):
    self._set_labels(dict(labels))


def _image_array(self, dtype=None, copy=None):
    a = self.array
    return a if dtype is None else a.astype(dtype)


def _image_repr(self):
    a = self.array
    frames = f", {self.frames} frames" if self.frames > 1 else ""
    kind = "label map" if self.is_label_map else (self.modality or "image")
    name = f" '{self.name}'" if self.name else ""
    return f"<merivane.Image{name} {kind} {a.shape} {a.dtype}, spacing {self.spacing}{frames}>"


Data.__repr__ = lambda self: f"<merivane.{type(self).__name__} {self.describe()}>"
Image.labels = property(_labels, _set_labels)
Image.__array__ = _image_array
Image.__repr__ = _image_repr
Image.__len__ = lambda self: self.frames


# ----------------------------------------------------------------------------------------
# Files.

def _file_error(message, path):
    path = os.fspath(path)
    if not os.path.lexists(path):
        return FileNotFoundError(errno.ENOENT, message, path)
    error = OSError(message)
    error.filename = path
    return error


def read(path, *, label_map=False, series=None):
    """Reads an image, a mesh (.ply .stl .obj) or points (.csv) as the command line does.

    Images: .nii .nii.gz .nrrd .nhdr .mha .mhd .png, and DICOM: a folder or a file of a
    series (``series`` picks one by its Series Instance UID where a folder holds several; see
    dicom_series), or a Segmentation object (.seg.dcm). An image whose header marks it as a
    label map is one; ``label_map=True`` reads any one-channel image with whole values 0..255
    as a label map. Raises OSError (FileNotFoundError) naming the file."""
    path = os.fspath(path)
    data, error = _merivane._read(path, bool(label_map), series or "")
    if data is None:
        raise _file_error(error, path)
    return data


def dicom_series(path):
    """The image series of a DICOM folder (searched with its subfolders) or of one file, as
    DicomSeries tuples ordered by series number. Raises OSError naming the folder when it holds
    none."""
    path = os.fspath(path)
    found, error = _merivane._dicom_series(path)
    if found is None:
        raise _file_error(error, path)
    return [DicomSeries(*s) for s in found]


def _as_image(data, **geometry):
    """An Image for write(): arrays are wrapped, images given geometry overrides are
    re-wrapped around the same pixels."""
    overrides = {k: v for k, v in geometry.items() if v is not None}
    if isinstance(data, Image):
        if not overrides:
            return data
        if data.frames != 1:
            raise ValueError("merivane: geometry overrides need an image of one frame")
        keep = dict(spacing=data.spacing, matrix=data.matrix, shift=data.shift, scale=data.scale,
                    modality=data.modality, name=data.name)
        if data.is_label_map and "labels" not in overrides:
            keep["labels"] = {v: (l.name, l.color) for v, l in data.labels.items()}
            keep["label_map"] = True
        keep.update(overrides)
        return Image(data.array, **keep)
    return Image(data, **overrides)


def write(data, path, *, spacing=None, matrix=None, labels=None, shift=None, scale=None, compress=True,
          reference=None):
    """Writes an Image (or a NumPy array), a Mesh or a PointSet; the format follows the
    extension. spacing, matrix, labels, shift and scale override the image's own for this
    file. A label map written as .seg.dcm becomes a DICOM Segmentation object that refers to
    `reference`, an Image read from a DICOM series (without one: to the series the label map
    was read from, if any, else a study of its own). The file appears complete or not at all.
    Raises OSError naming the file."""
    path = os.fspath(path)
    if not isinstance(data, Data) or isinstance(data, Image):
        data = _as_image(data, spacing=spacing, matrix=matrix, labels=labels, shift=shift, scale=scale)
        if data.frames != 1:
            raise ValueError(f"merivane: {path}: an image file holds one frame; write img.frame(i) for each")
    elif any(v is not None for v in (spacing, matrix, labels, shift, scale)):
        raise TypeError("merivane: spacing, matrix, labels, shift and scale apply to images only")
    # Other data without a file format are refused by the writer, naming the file.
    if reference is not None and not isinstance(reference, Image):
        raise TypeError("merivane: reference is an Image read from a DICOM series")
    error = _merivane._write(data, path, bool(compress), reference)
    if error:
        raise _file_error(error, path)


# ----------------------------------------------------------------------------------------
# Algorithms.

def algorithms():
    """The registered algorithms, as AlgorithmInfo(name, menu_path) in registry order."""
    return [AlgorithmInfo(n, p) for n, p in _merivane._algorithms()]


def _unknown(name):
    return ValueError(f"merivane: unknown algorithm '{name}' (see merivane.algorithms())")


def _from_text(text):
    if text is None:
        return None
    t = text.strip()
    if t in ("true", "false"):
        return t == "true"
    parts = t.split()
    values = []
    for p in parts:
        try:
            values.append(int(p))
        except ValueError:
            try:
                values.append(float(p))
            except ValueError:
                return text
    if len(values) == 1:
        return values[0]
    return tuple(values) if values else text


def _to_text(value):
    if isinstance(value, (bool, numpy.bool_)):
        return "true" if value else "false"
    if isinstance(value, (int, numpy.integer)):
        return str(int(value))
    if isinstance(value, (float, numpy.floating)):
        return repr(float(value))
    if isinstance(value, (str, os.PathLike)):
        return os.fspath(value)
    if isinstance(value, (list, tuple, numpy.ndarray)):
        items = numpy.asarray(value).ravel().tolist() if isinstance(value, numpy.ndarray) else list(value)
        if all(isinstance(v, str) for v in items):
            return " ".join('"' + v.replace('"', '\\"') + '"' for v in items)
        return " ".join(_to_text(v) for v in items)
    raise TypeError(f"merivane: no text form for a parameter value of type {type(value).__name__}")


def _inputs(inputs):
    """Data objects for a run: Images, Meshes and PointSets as they are, NumPy arrays
    wrapped, paths read as the command line reads them."""
    if isinstance(inputs, (Data, numpy.ndarray, str, os.PathLike)):
        inputs = [inputs]
    out = []
    for item in inputs:
        if isinstance(item, Data):
            out.append(item)
        elif isinstance(item, (str, os.PathLike)):
            out.append(read(item))
        else:
            out.append(Image(item))
    return out


def parameters(name, inputs=None):
    """The parameters of an algorithm, {key: Parameter(name, value, default, text,
    attributes)}, as its configuration gives them. The algorithm is created on small
    stand-in images, or on ``inputs`` for one that needs particular data."""
    found = _merivane._parameters(name, _inputs(inputs) if inputs is not None else [])
    if found is None:
        raise _unknown(name)
    _, rows = found
    return {key: Parameter(key, _from_text(value), _from_text(default), value, attributes)
            for key, value, default, attributes in rows}


def run(name, inputs, params=None, *, progress=None):
    """Runs an algorithm by factory name ("Seg." may be left out) and returns its outputs
    in order: Image, Mesh, PointSet (or Data for other kinds).

    inputs: one item or a list of Images, NumPy arrays (wrapped without a copy), Meshes,
    PointSets or file paths. Inputs that the algorithm edits in place (a label map it paints)
    change in place, arrays included. params: {key: value} as listed by parameters(name);
    bool, numbers, strings and sequences of numbers are accepted.
    progress: called as progress(fraction, task) at most about ten times a second from the
    calling thread; an exception it raises cancels the run and is raised here. Ctrl-C cancels
    the run the same way and raises KeyboardInterrupt once it has stopped.

    Raises ValueError for an unknown algorithm, inputs that it does not accept or a parameter
    value of the wrong type, AlgorithmError when it fails, OSError when a path cannot be read.
    """
    data = _inputs(inputs)
    texts = {str(k): _to_text(v) for k, v in (params or {}).items()}
    code, status, message, outputs = _merivane._run(name, data, texts, progress)
    if code == 0:
        return outputs
    if code == 4 and message.startswith("unknown algorithm"):
        raise _unknown(name)
    if code in (2, 4):
        raise ValueError("merivane: " + message)
    if code == 130:
        raise AlgorithmError("merivane: " + message, status if status >= 0 else 1000)
    raise AlgorithmError("merivane: " + message, status)


_LEVELS = {"debug": 1, "info": 2, "warning": 3, "error": 4}


def set_log_level(level):
    """Log lines at or above level ('debug', 'info', 'warning', 'error') go to stderr."""
    if isinstance(level, str):
        if level.lower() not in _LEVELS:
            raise ValueError(f"merivane: log level is one of {', '.join(_LEVELS)}")
        level = _LEVELS[level.lower()]
    _merivane._set_log_level(int(level))
