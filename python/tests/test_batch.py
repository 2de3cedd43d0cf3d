"""merivane.batch: cohorts run here and on a Dask cluster whose worker dies mid-run.

Needs MERIVANE_EXE (the built merivane program) and Dask's distributed.
"""

import csv
import gzip
import os
import signal
import struct
import subprocess
import threading
import time
from collections import Counter
from pathlib import Path

import pytest

distributed = pytest.importorskip("distributed")

from merivane import batch  # noqa: E402

EXE = os.environ.get("MERIVANE_EXE", "")
pytestmark = pytest.mark.skipif(not os.access(EXE, os.X_OK), reason="MERIVANE_EXE does not name the merivane program")

WIDTH, HEIGHT, DEPTH = 10, 6, 3


def write_nrrd(path: Path, type_name: str, fmt: str, value):
    data = b"".join(struct.pack("<" + fmt, value(x, y, z))
                    for z in range(DEPTH) for y in range(HEIGHT) for x in range(WIDTH))
    header = (f"NRRD0004\ntype: {type_name}\ndimension: 3\nsizes: {WIDTH} {HEIGHT} {DEPTH}\n"
              "encoding: raw\nendian: little\n\n")
    path.write_bytes(header.encode() + data)


def write_case(folder: Path):
    """Two flat halves with a seed in each: the watershed labels the left half 1, the right 2."""
    folder.mkdir(parents=True, exist_ok=True)
    write_nrrd(folder / "image.nrrd", "float", "f", lambda x, y, z: 100.0 if x < WIDTH // 2 else 300.0)
    write_nrrd(folder / "seeds.nrrd", "uchar", "B",
               lambda x, y, z: (1 if x == 1 else 2 if x == WIDTH - 2 else 0) if (y, z) == (3, 1) else 0)


def cohort(root: Path, names, missing=()):
    """Cases under root/cases and a table root/cases.csv; a case in `missing` lacks its seeds."""
    lines = ["case,in,in-labels"]
    for n in names:
        write_case(root / "cases" / n)
        if n in missing:
            (root / "cases" / n / "seeds.nrrd").unlink()
        lines.append(f"{n},cases/{n}/image.nrrd,cases/{n}/seeds.nrrd")
    (root / "cases.csv").write_text("\n".join(lines) + "\n")
    return root / "cases.csv"


def read_summary(out: Path):
    with open(out / "summary.csv", newline="") as f:
        rows = list(csv.DictReader(f))
    names = [r["case"] for r in rows]
    assert len(names) == len(set(names)), f"a case listed twice: {names}"
    return {r["case"]: r for r in rows}


def labels_split(path: Path) -> bool:
    raw = path.read_bytes()
    header, voxels = raw[:raw.index(b"\n\n")], raw[raw.index(b"\n\n") + 2:]
    if b"encoding: gzip" in header:
        voxels = gzip.decompress(voxels)
    assert len(voxels) == WIDTH * HEIGHT * DEPTH
    return all(v == (1 if i % WIDTH < WIDTH // 2 else 2) for i, v in enumerate(voxels))


def counting_program(root: Path, delay: float) -> Path:
    """A merivane that logs "start CASE PPID" and, once the real run succeeded, "end CASE" (other
    commands, such as the batch's planning, go straight through)."""
    log = root / "runs.log"
    script = root / "counting-merivane.sh"
    script.write_text(f"""#!/bin/sh
for a in "$@"; do case "$a" in */image.nrrd) c=$(basename "$(dirname "$a")");; esac; done
[ -n "$c" ] || exec "{EXE}" "$@"
echo "start $c $PPID" >> {log}
sleep {delay}
"{EXE}" "$@" || exit $?
echo "end $c" >> {log}
""")
    script.chmod(0o755)
    return script


def log_lines(root: Path, word: str):
    try:
        text = (root / "runs.log").read_text()
    except OSError:
        return []
    return [line.split()[1:] for line in text.splitlines() if line.startswith(word + " ")]


RUN = ["WatershedSegmentation", "--write-inputs"]


def test_cluster_worker_killed_mid_run_still_completes_every_case_once(tmp_path):
    names = [f"p{i}" for i in range(6)]
    table = cohort(tmp_path, names)
    program = counting_program(tmp_path, delay=1.0)
    out = tmp_path / "out"
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  dashboard_address=":0") as cluster, distributed.Client(cluster) as client:
        workers = set(client.run(os.getpid).values())
        codes = []
        runner = threading.Thread(target=lambda: codes.append(batch.run(
            RUN + ["--cases", str(table), "--out", str(out), "--scheduler", cluster.scheduler_address,
                   "--merivane", str(program)], quiet=True)))
        runner.start()
        victim = None
        deadline = time.monotonic() + 40
        while victim is None and time.monotonic() < deadline:
            for case, ppid in log_lines(tmp_path, "start"):
                if int(ppid) in workers and [case] not in log_lines(tmp_path, "end"):
                    victim = (case, int(ppid))
                    break
            time.sleep(0.02)
        assert victim is not None, "no run started on a worker"
        os.kill(victim[1], signal.SIGKILL)
        runner.join(timeout=120)
        assert not runner.is_alive()

    assert codes == [0]
    rows = read_summary(out)
    assert sorted(rows) == names
    for n in names:
        assert rows[n]["status"] == "ok", rows[n]
        assert (out / n / batch.DONE_MARKER).exists()
        assert labels_split(out / n / "seeds-updated.nrrd")
    starts = Counter(case for case, _ in log_lines(tmp_path, "start"))
    ends = Counter(case for (case,) in log_lines(tmp_path, "end"))
    assert ends == Counter(names), "every case ran to completion exactly once"
    assert starts[victim[0]] >= 2, "the killed case was started again"
    assert not [p for p in out.iterdir() if p.name.startswith(".tmp-")]


def run_cxx(args):
    return subprocess.run([EXE, "--quiet", "batch", *args], capture_output=True, text=True).returncode


@pytest.mark.parametrize("where", ["threads", "cluster through merivane batch"])
def test_missing_file_fails_its_case_by_name_and_a_rerun_skips_the_done_ones(tmp_path, where):
    names = ["a", "b", "c", "lost"]
    table = cohort(tmp_path, names, missing={"lost"})
    out = tmp_path / "out"
    args = RUN + ["--cases", str(table), "--out", str(out)]
    if where == "threads":
        code = batch.run(args + ["--jobs", "2"], quiet=True)
    else:
        code = run_cxx(args + ["--scheduler", "local:2"])
    assert code == 1
    rows = read_summary(out)
    assert [rows[n]["status"] for n in names] == ["ok", "ok", "ok", "failed"]
    assert "case 'lost'" in rows["lost"]["message"]
    assert str(tmp_path / "cases" / "lost" / "seeds.nrrd") in rows["lost"]["message"]
    assert rows["lost"]["exit_code"] == "3"
    assert not (out / "lost").exists()
    assert rows["a"]["outputs"] == "a/seeds-updated.nrrd"

    write_case(tmp_path / "cases" / "lost")
    assert batch.run(args, quiet=True) == 0
    rows = read_summary(out)
    assert [rows[n]["status"] for n in names] == ["skipped", "skipped", "skipped", "ok"]
    assert rows["a"]["outputs"] == "a/seeds-updated.nrrd", "the record of the earlier run"
    assert labels_split(out / "lost" / "seeds-updated.nrrd")


def test_case_task_is_idempotent_and_replaces_a_folder_that_is_not_done(tmp_path):
    cohort(tmp_path, ["a"])
    program = counting_program(tmp_path, delay=0)
    out = tmp_path / "out"
    (out / "a").mkdir(parents=True)
    (out / "a" / "half-written.nrrd").write_text("left by a run that was killed")
    arguments = ["Seg.WatershedSegmentation", "--in", str(tmp_path / "cases/a/image.nrrd"),
                 "--in-labels", str(tmp_path / "cases/a/seeds.nrrd"), "--write-inputs"]
    first = batch.run_case("a", arguments, str(out), str(program))
    assert first.status == "ok", first.message
    assert first.outputs == ["seeds-updated.nrrd"]
    assert not (out / "a" / "half-written.nrrd").exists()
    again = batch.run_case("a", arguments, str(out), str(program))
    assert (again.status, again.outputs, again.seconds) == ("ok", first.outputs, pytest.approx(first.seconds, abs=1e-3))
    assert len(log_lines(tmp_path, "start")) == 1, "the second call found the marker and ran nothing"


def test_python_and_cxx_runners_write_the_same_summary(tmp_path):
    names = ["a", "b", "lost"]
    table = cohort(tmp_path, names, missing={"lost"})
    assert run_cxx(RUN + ["--cases", str(table), "--out", str(tmp_path / "cxx")]) == 1
    assert batch.run(RUN + ["--cases", str(table), "--out", str(tmp_path / "py")], quiet=True) == 1
    cxx, py = read_summary(tmp_path / "cxx"), read_summary(tmp_path / "py")
    for n in names:
        for column in ("status", "exit_code", "message", "outputs"):
            assert cxx[n][column] == py[n][column], (n, column)


@pytest.mark.parametrize("extra, code, says", [
    (["--set", "NoSuchKey=1"], 2, "'NoSuchKey'"),
    (["--set", "novalue"], 2, "KEY=VALUE"),
    (["--jobs", "0"], 2, "--jobs"),
])
def test_bad_parameters_stop_before_any_case(tmp_path, capsys, extra, code, says):
    table = cohort(tmp_path, ["a"])
    out = tmp_path / "out"
    assert batch.run(RUN + ["--cases", str(table), "--out", str(out)] + extra, quiet=True) == code
    assert says in capsys.readouterr().err
    assert not (out / "summary.csv").exists() and not (out / "a").exists()


def test_unknown_algorithm_stops_before_any_case(tmp_path, capsys):
    table = cohort(tmp_path, ["a"])
    out = tmp_path / "out"
    assert batch.run(["NoSuchAlgorithm", "--cases", str(table), "--out", str(out)], quiet=True) == 4
    assert "NoSuchAlgorithm" in capsys.readouterr().err
    assert not out.exists()


def threads_program(root: Path) -> Path:
    """A merivane that logs "threads CASE $OMP_NUM_THREADS" for every case it runs."""
    script = root / "threads-merivane.sh"
    script.write_text(f"""#!/bin/sh
for a in "$@"; do case "$a" in */image.nrrd) c=$(basename "$(dirname "$a")");; esac; done
[ -n "$c" ] && echo "threads $c ${{OMP_NUM_THREADS:-unset}}" >> {root / "runs.log"}
exec "{EXE}" "$@"
""")
    script.chmod(0o755)
    return script


# Runs side by side share the cores (one run per core with two jobs on two cores), so that
# they do not each start a thread per core and wait at each other's barriers; a thread count
# the user set stands.
@pytest.mark.parametrize("runner", ["python", "cxx"])
@pytest.mark.parametrize("jobs,preset", [(1, None), (2, None), (2, "3")])
def test_runs_side_by_side_share_the_cores(tmp_path, monkeypatch, runner, jobs, preset):
    table = cohort(tmp_path, ["a", "b"])
    program = threads_program(tmp_path)
    if preset is None:
        monkeypatch.delenv("OMP_NUM_THREADS", raising=False)
    else:
        monkeypatch.setenv("OMP_NUM_THREADS", preset)
    args = RUN + ["--cases", str(table), "--out", str(tmp_path / "out"), "--jobs", str(jobs),
                  "--merivane", str(program)]
    code = batch.run(args, quiet=True) if runner == "python" else run_cxx(args)
    assert code == 0
    expected = preset or str(max(1, (os.cpu_count() or 1) // jobs))
    assert sorted(log_lines(tmp_path, "threads")) == [["a", expected], ["b", expected]]


# The keyword form for Python users: a folder pattern with templates, parameters as a dict, and
# the results back as objects; a case that fails is a result, a batch that cannot start raises.
def test_cohort_from_python_returns_one_result_per_case(tmp_path, monkeypatch):
    monkeypatch.setenv("MERIVANE_EXE", EXE)
    cohort(tmp_path, ["p1", "p2", "p3"], missing={"p3"})
    out = tmp_path / "out"
    results = batch.cohort("WatershedSegmentation", str(tmp_path / "cases" / "*") + "/", out,
                           inputs=["{case}/image.nrrd"], labels=["{case}/seeds.nrrd"], write_inputs=True,
                           jobs=2)
    assert [(r.name, r.status) for r in results] == [("p1", "ok"), ("p2", "ok"), ("p3", "failed")]
    assert "case 'p3'" in results[2].message and "seeds.nrrd" in results[2].message
    assert results[0].outputs == ["seeds-updated.nrrd"]
    assert labels_split(out / "p1" / "seeds-updated.nrrd")

    again = batch.cohort("WatershedSegmentation", str(tmp_path / "cases" / "*") + "/", out,
                         inputs=["{case}/image.nrrd"], labels=["{case}/seeds.nrrd"], write_inputs=True)
    assert [r.status for r in again] == ["skipped", "skipped", "failed"]

    with pytest.raises(batch.BatchError) as stopped:
        batch.cohort("NoSuchAlgorithm", tmp_path / "cases.csv", tmp_path / "other")
    assert stopped.value.code == 4 and "NoSuchAlgorithm" in str(stopped.value)
    with pytest.raises(batch.BatchError):
        batch.cohort("WatershedSegmentation", tmp_path / "cases.csv", out, params={"No Such Key": 3})
