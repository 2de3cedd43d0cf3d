"""NumPy arrays and images share their buffers; dtypes without a pixel type are refused."""
import gc
import sys

import numpy as np
import pytest

import merivane
from conftest import rotation_matrix

SUPPORTED = ["int8", "uint8", "int16", "uint16", "int32", "uint32", "float32", "float64"]


@pytest.mark.parametrize("dtype", SUPPORTED)
def test_image_borrows_a_contiguous_array(dtype):
    array = np.arange(2 * 3 * 4, dtype=dtype).reshape(2, 3, 4)
    img = merivane.Image(array)
    assert np.shares_memory(img.array, array)
    assert img.array.dtype == np.dtype(dtype)
    array[1, 2, 3] = 9
    assert img.array[1, 2, 3] == 9


def test_writes_through_the_view_reach_the_cpp_buffer(tmp_path):
    array = np.zeros((2, 3, 4), np.float32)
    img = merivane.Image(array)
    img.array[0, 1, 2] = 5.0
    assert array[0, 1, 2] == 5.0
    # The writer reads the C++ buffer: the value is in the file.
    merivane.write(img, tmp_path / "w.nrrd")
    assert merivane.read(tmp_path / "w.nrrd").array[0, 1, 2] == 5.0


def test_views_of_a_read_image_share_one_buffer(tmp_path):
    merivane.write(np.zeros((2, 2, 2), np.int16), tmp_path / "z.nii")
    img = merivane.read(tmp_path / "z.nii")
    a, b = img.array, img.array
    assert np.shares_memory(a, b)
    a[1, 1, 1] = 42
    assert img.array[1, 1, 1] == 42


def test_view_outlives_the_image_and_borrowed_array_outlives_its_name():
    img = merivane.Image(np.full((2, 2, 2), 3, np.uint16))  # the only reference is the image's
    view = img.array
    del img
    gc.collect()
    assert view.sum() == 24
    view[0, 0, 0] = 1
    assert view[0, 0, 0] == 1


def test_image_holds_a_reference_on_the_array_until_it_goes():
    array = np.zeros((4, 4, 4), np.float32)
    before = sys.getrefcount(array)
    img = merivane.Image(array)
    assert sys.getrefcount(array) > before
    del img
    gc.collect()
    assert sys.getrefcount(array) == before


@pytest.mark.parametrize("make", [
    lambda a: a[:, ::2, :],          # strided
    lambda a: a.transpose(2, 1, 0),  # Fortran order
    lambda a: a[..., 1:],            # offset rows
])
def test_non_contiguous_arrays_are_copied(make):
    base = np.arange(4 * 6 * 8, dtype=np.float32).reshape(4, 6, 8)
    view = make(base)
    img = merivane.Image(view)
    assert not np.shares_memory(img.array, base)
    np.testing.assert_array_equal(img.array, view)


def test_read_only_arrays_are_copied():
    array = np.ones((2, 2, 2), np.uint8)
    array.setflags(write=False)
    img = merivane.Image(array)
    assert not np.shares_memory(img.array, array)
    np.testing.assert_array_equal(img.array, array)


def test_big_endian_arrays_are_converted():
    array = np.arange(8, dtype=">i4").reshape(2, 2, 2)
    img = merivane.Image(array)
    assert img.array.dtype == np.dtype("int32")
    np.testing.assert_array_equal(img.array, array)


def test_bool_arrays_become_uint8():
    img = merivane.Image(np.array([[True, False], [False, True]]))
    assert img.array.dtype == np.uint8
    np.testing.assert_array_equal(img.array, [[[1, 0], [0, 1]]])


@pytest.mark.parametrize("dtype", ["float16", "complex64", "complex128", "int64", "uint64", "object", "U3",
                                   "datetime64[s]"])
def test_unsupported_dtypes_raise_type_error_naming_them(dtype):
    array = np.zeros((2, 2, 2), dtype=dtype)
    with pytest.raises(TypeError) as info:
        merivane.Image(array)
    message = str(info.value)
    assert str(np.dtype(dtype)) in message
    assert "float32" in message  # says what would be accepted


@pytest.mark.parametrize("shape,expected", [
    ((5, 6), (1, 5, 6)),
    ((4, 5, 6), (4, 5, 6)),
    ((4, 5, 6, 3), (4, 5, 6, 3)),
    ((4, 5, 6, 1), (4, 5, 6)),
])
def test_shapes_map_to_z_y_x_and_channels(shape, expected):
    img = merivane.Image(np.zeros(shape, np.float32))
    assert img.array.shape == expected


@pytest.mark.parametrize("shape", [(5,), (1, 2, 3, 4, 5), (0, 3, 3), ()])
def test_unusable_shapes_raise_value_error(shape):
    with pytest.raises(ValueError):
        merivane.Image(np.zeros(shape, np.float32))


def test_geometry_is_kept_and_checked():
    m = rotation_matrix()
    img = merivane.Image(np.zeros((2, 3, 4), np.float32), spacing=(0.5, 1.0, 2.0), matrix=m, shift=3.0, scale=2.0,
                         modality="ct", name="phantom")
    assert img.spacing == (0.5, 1.0, 2.0)
    np.testing.assert_allclose(img.matrix, m)
    assert (img.shift, img.scale, img.modality, img.name) == (3.0, 2.0, "CT", "phantom")
    for bad in [dict(spacing=(1, 0, 1)), dict(spacing=(1, 1)), dict(matrix=np.eye(3)),
                dict(matrix=np.full((4, 4), np.nan)), dict(scale=0.0), dict(modality="XYZ")]:
        with pytest.raises(ValueError):
            merivane.Image(np.zeros((2, 2, 2), np.float32), **bad)


def test_label_maps_are_uint8_with_one_channel_and_whole_values():
    seeds = np.zeros((2, 3, 4), np.uint8)
    seeds[0, 0, 0] = 1
    labels = merivane.Image(seeds, label_map=True)
    assert labels.is_label_map and labels.modality == "LABEL"
    assert np.shares_memory(labels.array, seeds)  # uint8 stays borrowed
    converted = merivane.Image(np.array([[0, 3], [255, 1]], np.int16), label_map=True)
    assert converted.array.dtype == np.uint8
    with pytest.raises(ValueError):
        merivane.Image(np.array([[0.5, 1.0]], np.float32), label_map=True)
    with pytest.raises(ValueError):
        merivane.Image(np.zeros((1, 2, 2, 3), np.uint8), label_map=True)


def test_assigning_labels_names_them():
    img = merivane.Image(np.zeros((1, 2, 2), np.uint8))
    img.labels = {1: "Tumour", 2: ("Vessel", (0, 0, 1))}
    assert img.is_label_map
    assert img.labels[1].name == "Tumour"
    assert img.labels[2] == merivane.Label("Vessel", (0.0, 0.0, 1.0, 1.0))
    with pytest.raises(ValueError):
        img.labels = {300: "out of range"}


def test_numpy_sees_an_image_as_its_array():
    img = merivane.Image(np.arange(8, dtype=np.float64).reshape(2, 2, 2))
    assert np.asarray(img).sum() == 28
    assert len(img) == 1 and img.frame(0).array.shape == (2, 2, 2)
