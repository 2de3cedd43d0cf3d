"""Files: every format round-trips pixels and geometry; failures raise OSError naming the file."""
import os

import numpy as np
import pytest

import merivane
from conftest import rotation_matrix

VOLUME_FORMATS = [".nii", ".nii.gz", ".nrrd", ".nhdr", ".mha", ".mhd"]
DTYPES = ["int8", "uint8", "int16", "uint16", "int32", "uint32", "float32", "float64"]


def sample(dtype, shape=(3, 4, 5)):
    """Distinct values that fill the dtype's range where it is small."""
    n = int(np.prod(shape))
    info = np.iinfo(dtype) if np.dtype(dtype).kind in "iu" else None
    if info is not None:
        values = np.linspace(info.min, info.max, n).round()
    else:
        values = np.linspace(-1e3, 1e3, n) + 0.125
    return values.astype(dtype).reshape(shape)


@pytest.mark.parametrize("ext", VOLUME_FORMATS)
@pytest.mark.parametrize("dtype", DTYPES)
def test_volume_round_trip_keeps_pixels_and_geometry(tmp_path, ext, dtype):
    array = sample(dtype)
    matrix = rotation_matrix()
    path = tmp_path / ("v" + ext)
    merivane.write(array, path, spacing=(0.5, 0.75, 2.0), matrix=matrix)
    back = merivane.read(path)
    assert back.array.dtype == np.dtype(dtype)
    assert back.array.shape == array.shape
    np.testing.assert_array_equal(back.array, array)
    np.testing.assert_allclose(back.spacing, (0.5, 0.75, 2.0), rtol=1e-6)
    np.testing.assert_allclose(back.matrix, matrix, atol=1e-5)


@pytest.mark.parametrize("ext", VOLUME_FORMATS)
def test_shift_and_scale_round_trip(tmp_path, ext):
    path = tmp_path / ("ct" + ext)
    merivane.write(merivane.Image(sample("int16"), shift=1024.0, scale=0.5), path)
    back = merivane.read(path)
    assert back.shift == pytest.approx(1024.0)
    assert back.scale == pytest.approx(0.5)


@pytest.mark.parametrize("ext", VOLUME_FORMATS)
def test_multichannel_volume_round_trip(tmp_path, ext):
    array = sample("float32", (2, 3, 4, 3))
    path = tmp_path / ("rgb" + ext)
    merivane.write(array, path)
    back = merivane.read(path)
    assert back.array.shape == (2, 3, 4, 3)
    np.testing.assert_array_equal(back.array, array)


@pytest.mark.parametrize("ext", VOLUME_FORMATS + [".png"])
def test_label_map_round_trip_keeps_names_and_colours(tmp_path, ext):
    shape = (1, 6, 7) if ext == ".png" else (3, 6, 7)
    values = np.zeros(shape, np.uint8)
    values[..., 1:3] = 1
    values[..., 5] = 7
    labels = {1: ("Liver", (0.25, 0.5, 0.75, 1.0)), 7: ("Left kidney", (1.0, 0.0, 0.5, 0.5))}
    path = tmp_path / ("labels" + ext)
    merivane.write(merivane.Image(values, labels=labels), path)
    back = merivane.read(path)
    assert back.is_label_map
    np.testing.assert_array_equal(back.array, values)
    assert sorted(back.labels) == [1, 7]
    for value, (name, colour) in labels.items():
        assert back.labels[value].name == name
        np.testing.assert_allclose(back.labels[value].color, colour, atol=1e-6)


@pytest.mark.parametrize("dtype", ["uint8", "uint16"])
@pytest.mark.parametrize("channels", [1, 2, 3, 4])
def test_png_round_trip(tmp_path, dtype, channels):
    shape = (1, 5, 6) if channels == 1 else (1, 5, 6, channels)
    array = sample(dtype, shape)
    path = tmp_path / "frame.png"
    merivane.write(array, path, spacing=(0.5, 0.25, 1.0))
    back = merivane.read(path)
    np.testing.assert_array_equal(back.array, array)
    np.testing.assert_allclose(back.spacing[:2], (0.5, 0.25), rtol=1e-3)


def test_read_as_label_map_takes_whole_values_of_any_integer_type(tmp_path):
    path = tmp_path / "seeds.nrrd"
    values = np.array([[[0, 1, 2], [3, 255, 0]]], np.int32)
    merivane.write(values, path)
    assert not merivane.read(path).is_label_map
    labels = merivane.read(path, label_map=True)
    assert labels.is_label_map and labels.array.dtype == np.uint8
    np.testing.assert_array_equal(labels.array, values)


@pytest.mark.parametrize("ext", [".ply", ".stl", ".obj"])
def test_mesh_round_trip(tmp_path, ext):
    vertices = np.array([[0, 0, 0], [10, 0, 0], [0, 10, 0], [0, 0, 10]], np.float32)
    faces = np.array([[0, 2, 1], [0, 1, 3], [0, 3, 2], [1, 2, 3]])
    path = tmp_path / ("tetra" + ext)
    merivane.write(merivane.Mesh(vertices, faces), path)
    back = merivane.read(path)
    assert isinstance(back, merivane.Mesh)
    # Formats may reorder corners; the triangles as point sets must survive.
    got = sorted(tuple(sorted(map(tuple, back.vertices[f]))) for f in back.faces)
    want = sorted(tuple(sorted(map(tuple, vertices[f]))) for f in faces)
    assert got == want


def test_points_and_fiducials_round_trip(tmp_path):
    points = np.array([[1.5, -2.0, 3.25], [4.0, 5.0, -6.5]])
    merivane.write(merivane.PointSet(points), tmp_path / "p.csv")
    np.testing.assert_allclose(merivane.read(tmp_path / "p.csv").points, points)
    fiducials = merivane.PointSet(points, radii=[1.0, 2.5])
    merivane.write(fiducials, tmp_path / "f.txt")
    text = (tmp_path / "f.txt").read_text().split()
    np.testing.assert_allclose([float(t) for t in text], [1.5, -2.0, 3.25, 1.0, 4.0, 5.0, -6.5, 2.5])


def test_missing_file_raises_file_not_found_naming_it(tmp_path):
    path = tmp_path / "absent.nii.gz"
    with pytest.raises(FileNotFoundError) as info:
        merivane.read(path)
    assert info.value.filename == str(path)
    assert "absent.nii.gz" in str(info.value)


@pytest.mark.parametrize("name,content", [
    ("broken.nrrd", b"NRRD0004\ntype: float\ndimension: 3\nsizes: 4 4 4\nencoding: bzip2\n\n"),
    ("short.mha", b"ObjectType = Image\nNDims = 3\nDimSize = 8 8 8\nElementType = MET_FLOAT\n"
                  b"ElementDataFile = LOCAL\n\x00\x00"),
    ("noise.nii", b"\x01" * 100),
])
def test_damaged_file_raises_os_error_naming_it(tmp_path, name, content):
    path = tmp_path / name
    path.write_bytes(content)
    with pytest.raises(OSError) as info:
        merivane.read(path)
    assert name in str(info.value)
    assert info.value.filename == str(path)


def test_failed_write_raises_and_leaves_nothing(tmp_path):
    target = tmp_path / "missing-folder" / "x.nrrd"
    with pytest.raises(OSError) as info:
        merivane.write(np.zeros((2, 2, 2), np.float32), target)
    assert "x.nrrd" in str(info.value)
    assert not target.exists()


def test_write_overrides_do_not_change_the_image(tmp_path):
    img = merivane.Image(np.ones((2, 3, 4), np.float32), spacing=(1, 1, 1))
    merivane.write(img, tmp_path / "a.nrrd", spacing=(2, 3, 4))
    assert img.spacing == (1.0, 1.0, 1.0)
    assert merivane.read(tmp_path / "a.nrrd").spacing == (2.0, 3.0, 4.0)


def test_label_map_round_trips_through_a_dicom_segmentation(tmp_path):
    from conftest import rotation_matrix

    values = np.zeros((4, 6, 7), np.uint8)
    values[1:3, 2:5, 1:4] = 1
    values[3, 0, :] = 9
    labels = {1: ("Liver", (0.8, 0.2, 0.1, 1.0)), 9: ("Spleen", (0.1, 0.6, 0.9, 1.0))}
    image = merivane.Image(values, labels=labels, spacing=(0.7, 0.8, 2.5), matrix=rotation_matrix())
    path = tmp_path / "labels.seg.dcm"
    merivane.write(image, path)
    back = merivane.read(path)
    assert back.is_label_map
    np.testing.assert_array_equal(back.array, values)
    np.testing.assert_allclose(back.spacing, (0.7, 0.8, 2.5), rtol=1e-5)
    np.testing.assert_allclose(back.matrix, image.matrix, atol=1e-4)
    for value, (name, colour) in labels.items():
        assert back.labels[value].name == name
        np.testing.assert_allclose(back.labels[value].color[:3], colour[:3], atol=2 / 255)


def test_dicom_folders_without_series_are_refused_by_name(tmp_path):
    (tmp_path / "notes.txt").write_text("not an image")
    with pytest.raises(OSError, match=str(tmp_path)):
        merivane.dicom_series(tmp_path)
    with pytest.raises(OSError, match=str(tmp_path)):
        merivane.read(tmp_path, series="1.2.3")


def test_dicom_series_reads_in_slice_order_and_a_segmentation_refers_to_it(tmp_path, cli):
    from conftest import write_dicom_series

    values = (np.arange(4 * 5 * 6).reshape(4, 5, 6) * 7 - 50).astype(np.int16)
    write_dicom_series(tmp_path / "ct", values, slope=2.0, intercept=-1024.0)
    [series] = merivane.dicom_series(tmp_path / "ct")
    assert (series.uid, series.modality, series.slices, series.files) == ("1.2.826.0.1.3680043.2.1125.77.1", "CT", 4, 4)
    ct = merivane.read(tmp_path / "ct", series=series.uid)
    np.testing.assert_array_equal(ct.array.astype(np.int32), values)  # stored values, z ascending
    np.testing.assert_allclose(ct.spacing, (0.5, 0.75, 2.0), rtol=1e-6)
    # physical = stored * 2 - 1024, that is stored = (physical + shift) * scale
    assert (ct.shift, ct.scale) == (pytest.approx(1024.0), pytest.approx(0.5))

    labels = np.zeros(values.shape, np.uint8)
    labels[1:3, 1:4, 2:5] = 3
    seg = tmp_path / "liver.seg.dcm"
    merivane.write(merivane.Image(labels, spacing=ct.spacing, matrix=ct.matrix, labels={3: ("Liver", (1, 0, 0))}),
                   seg, reference=ct)
    back = merivane.read(seg)
    np.testing.assert_array_equal(back.array, labels)
    np.testing.assert_allclose(back.matrix, ct.matrix, atol=1e-5)
    assert back.labels[3].name == "Liver"
    # The object belongs to its series: read after it, it takes the series' grid; after another
    # series of the same size it is refused.
    assert cli("run", "LabelStatistics", "--in", tmp_path / "ct", "--in", seg, "--out", tmp_path / "o1").returncode == 0
    write_dicom_series(tmp_path / "other", values, series_uid="1.2.826.0.1.3680043.2.1125.78.1")
    assert cli("run", "LabelStatistics", "--in", tmp_path / "other", "--in", seg, "--out", tmp_path / "o2").returncode != 0

    with pytest.raises(TypeError, match="reference"):
        merivane.write(labels, tmp_path / "x.seg.dcm", reference="ct")
    plain = merivane.Image(values.astype(np.float32))
    with pytest.raises(OSError, match="DICOM series"):
        merivane.write(merivane.Image(labels, labels={3: ("Liver", (1, 0, 0))}), tmp_path / "y.seg.dcm", reference=plain)
