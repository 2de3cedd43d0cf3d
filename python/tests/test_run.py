"""Algorithms: listing, parameters, runs equal to the command line's, progress, cancellation,
errors."""
import os
import signal
import threading
import time

import numpy as np
import pytest

import merivane
from conftest import BRAIN, BRAIN_SEEDS, phantom, rotation_matrix

GRAPH = "Seg.GraphBasedSegmentation"


@pytest.fixture
def phantom_files(tmp_path):
    image, seeds = phantom()
    merivane.write(merivane.Image(image, spacing=(0.8, 1.0, 1.25), matrix=rotation_matrix(), modality="CT"),
                   tmp_path / "image.nrrd")
    merivane.write(merivane.Image(seeds, spacing=(0.8, 1.0, 1.25), matrix=rotation_matrix(),
                                  labels={1: "Ball", 2: "Background"}), tmp_path / "seeds.nrrd")
    return tmp_path / "image.nrrd", tmp_path / "seeds.nrrd"


def test_algorithms_lists_factory_names_and_menu_paths():
    listed = merivane.algorithms()
    names = [a.name for a in listed]
    assert GRAPH in names and "Seg.LabelToMesh" in names
    assert len(set(names)) == len(names)
    assert all(";" in a.menu_path for a in listed)


def test_parameters_give_values_defaults_and_ranges():
    params = merivane.parameters("GraphBasedSegmentation")
    levels = params["Num Levels"]
    assert levels.value == levels.default and isinstance(levels.value, int)
    assert float(levels.attributes["min"]) == 1
    assert isinstance(params["Export Probability"].value, bool)


@pytest.mark.parametrize("name", ["NoSuchAlgorithm", "Seg.NoSuchAlgorithm", ""])
def test_unknown_algorithm_raises_value_error_naming_it(name):
    for call in (lambda: merivane.run(name, [np.zeros((2, 2, 2), np.float32)]),
                 lambda: merivane.parameters(name)):
        with pytest.raises(ValueError) as info:
            call()
        assert f"'{name}'" in str(info.value) and "unknown algorithm" in str(info.value)


@pytest.mark.parametrize("with_paths", [False, True])
def test_run_equals_the_command_line_voxel_for_voxel(cli, phantom_files, tmp_path, with_paths):
    image_path, seeds_path = phantom_files
    out = tmp_path / "cli"
    done = cli("run", GRAPH, "--in", image_path, "--in", seeds_path, "--set", "Export Probability=true",
               "--out", out, "--write-inputs")
    assert done.returncode == 0, done.stderr
    written = done.stdout.split()
    cli_probability = merivane.read([p for p in written if "Probability" in p][0])
    cli_labels = merivane.read([p for p in written if "updated" in p][0])

    seeds = merivane.read(seeds_path)
    inputs = [str(image_path), seeds] if with_paths else [merivane.read(image_path), seeds]
    outputs = merivane.run("GraphBasedSegmentation", inputs, {"Export Probability": True})
    assert len(outputs) == 1
    probability = outputs[0]
    assert probability.array.dtype == cli_probability.array.dtype
    np.testing.assert_array_equal(probability.array, cli_probability.array)
    np.testing.assert_allclose(probability.matrix, cli_probability.matrix, atol=1e-6)
    assert probability.spacing == pytest.approx(cli_probability.spacing)
    # The seeds were changed in place, as the command line's written input shows.
    np.testing.assert_array_equal(seeds.array, cli_labels.array)
    assert (seeds.array == 255).any()


def test_in_place_edits_reach_the_callers_array():
    image, seeds = phantom()
    before = seeds.copy()
    merivane.run(GRAPH, [image, merivane.Image(seeds, label_map=True)])
    assert (seeds != before).any()
    # Seeds the user painted stay where they are: the outline goes onto free voxels only.
    assert (seeds[before > 0] == before[before > 0]).all()


def test_mesh_output_equals_the_command_line(cli, tmp_path):
    labels = np.zeros((10, 12, 14), np.uint8)
    labels[3:7, 4:9, 5:10] = 1
    img = merivane.Image(labels, spacing=(1.0, 0.5, 2.0), labels={1: "Box"})
    merivane.write(img, tmp_path / "box.nrrd")
    done = cli("run", "LabelToMesh", "--in", tmp_path / "box.nrrd", "--out", tmp_path / "cli")
    assert done.returncode == 0, done.stderr
    cli_mesh = merivane.read(done.stdout.split()[0])
    mesh = [o for o in merivane.run("LabelToMesh", img) if isinstance(o, merivane.Mesh)][0]
    np.testing.assert_allclose(mesh.vertices, cli_mesh.vertices, atol=1e-5)
    np.testing.assert_array_equal(mesh.faces, cli_mesh.faces)
    assert mesh.faces.min() >= 0 and mesh.faces.max() < len(mesh.vertices)


def test_progress_values_rise_within_each_task():
    image, seeds = phantom((40, 48, 56))
    calls = []
    merivane.run(GRAPH, [image, merivane.Image(seeds, label_map=True)],
                 progress=lambda fraction, task: calls.append((fraction, task)))
    assert calls, "the callback was never called"
    assert calls[-1][0] == 1.0
    for (f0, t0), (f1, t1) in zip(calls, calls[1:]):
        assert 0.0 <= f1 <= 1.0
        if t0 == t1:
            assert f1 >= f0


def test_exception_in_progress_callback_cancels_the_run_and_leaves_inputs_alone():
    image, seeds = phantom((40, 48, 56))
    before = seeds.copy()

    def stop(fraction, task):
        raise KeyboardInterrupt

    with pytest.raises(KeyboardInterrupt):
        merivane.run(GRAPH, [image, merivane.Image(seeds, label_map=True)], progress=stop)
    np.testing.assert_array_equal(seeds, before)


@pytest.mark.skipif(not BRAIN.exists(), reason="the demo brain (mricron-data) is not installed")
def test_sigint_during_a_long_run_raises_keyboard_interrupt_and_the_process_goes_on():
    image, seeds = merivane.read(BRAIN), merivane.read(BRAIN_SEEDS)
    before = seeds.array.copy()
    timer = threading.Timer(0.3, os.kill, (os.getpid(), signal.SIGINT))
    timer.start()
    started = time.monotonic()
    with pytest.raises(KeyboardInterrupt):
        merivane.run(GRAPH, [image, seeds])
    timer.join()
    assert time.monotonic() - started < 30
    np.testing.assert_array_equal(seeds.array, before)
    # Still usable: the next run completes.
    small, small_seeds = phantom()
    assert merivane.run(GRAPH, [small, merivane.Image(small_seeds, label_map=True)],
                        {"Export Probability": True})


@pytest.mark.parametrize("params,status,words", [
    ({"Num Levels": -3}, 2, "Num Levels"),
    ({"Solver ID": 99}, 2, "Solver ID"),
])
def test_algorithm_failure_raises_algorithm_error_with_status(params, status, words):
    image, seeds = phantom()
    with pytest.raises(merivane.AlgorithmError) as info:
        merivane.run(GRAPH, [image, merivane.Image(seeds, label_map=True)], params)
    assert info.value.status == status
    assert words in str(info.value)


def test_unreadable_parameter_value_stops_before_the_run():
    image, seeds = phantom()
    with pytest.raises(ValueError) as info:
        merivane.run(GRAPH, [image, merivane.Image(seeds, label_map=True)], {"Solver ID": "abc"})
    assert "Solver ID" in str(info.value)


def test_inputs_the_algorithm_does_not_accept_raise_value_error():
    with pytest.raises(ValueError) as info:
        merivane.run("LabelToMesh", [merivane.Mesh(np.zeros((3, 3)), [[0, 1, 2]])])
    assert "does not accept" in str(info.value)


def test_unreadable_input_path_raises_os_error(tmp_path):
    with pytest.raises(FileNotFoundError):
        merivane.run(GRAPH, [tmp_path / "nothing.nii", tmp_path / "seeds.nii"])


def test_runs_from_several_threads_equal_a_single_run():
    image, seeds = phantom()
    (reference,) = merivane.run(GRAPH, [image, merivane.Image(seeds.copy(), label_map=True)],
                                {"Export Probability": True})
    results = [None] * 4

    def work(k):
        (results[k],) = merivane.run(GRAPH, [image, merivane.Image(seeds.copy(), label_map=True)],
                                     {"Export Probability": True})

    threads = [threading.Thread(target=work, args=(k,)) for k in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    for r in results:
        np.testing.assert_array_equal(r.array, reference.array)


def test_a_run_cannot_start_from_its_own_progress_callback():
    image, seeds = phantom((40, 48, 56))

    def nested(fraction, task):
        merivane.run(GRAPH, [image, merivane.Image(seeds.copy(), label_map=True)])

    with pytest.raises(RuntimeError, match="progress callback"):
        merivane.run(GRAPH, [image, merivane.Image(seeds.copy(), label_map=True)], progress=nested)
