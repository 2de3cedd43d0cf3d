"""Cohorts: one merivane algorithm over many cases, locally or on a Dask cluster.

    python3 -m merivane.batch NAME --cases TABLE.csv --out DIR [--scheduler ADDRESS] [...]

takes the arguments of ``merivane batch`` (see ``merivane batch --help``). The ``merivane``
program reads the case table or pattern and checks the algorithm and its parameters
(``merivane batch --dry-run``), so that a bad command stops before any case starts; this module
then runs every case as ``merivane run`` in a child process, on a Dask worker when given
``--scheduler`` (``tcp://host:8786``, or ``local[:N]`` for a cluster of N worker processes on
this machine), else in up to ``--jobs`` threads here.

Each case follows the protocol of the C++ runner (cli/Batch.h), which makes its task
idempotent: the run writes into ``OUT/.tmp-<case>-<unique>/``; on success the completion
marker is written there last and the folder renamed to ``OUT/<case>/``. A task that finds the
marker returns the recorded result, so a task that Dask retries after its worker died runs the
case again only if the first run never finished. ``OUT/summary.csv`` gets one row per case.

The ``merivane`` program is the one passed with ``--merivane``, else ``$MERIVANE_EXE``, else
``merivane`` on PATH; workers fall back to their own ``$MERIVANE_EXE`` or PATH when the path
given does not exist on their machine.
"""

from __future__ import annotations

import collections
import concurrent.futures
import csv
import io
import os
import shutil
import signal
import socket
import subprocess
import sys
import time
import uuid
from dataclasses import dataclass, field
from pathlib import Path
from typing import Optional, Sequence

DONE_MARKER = ".merivane-done"
SUMMARY_COLUMNS = ["case", "status", "exit_code", "seconds", "message", "outputs"]

EXIT_SUCCESS = 0
EXIT_FAILED = 1
EXIT_USAGE = 2
EXIT_FILE_ERROR = 3
EXIT_CANCELED = 130

__all__ = ["CaseResult", "DONE_MARKER", "find_merivane", "main", "plan", "read_marker", "run", "run_case",
           "write_summary"]


@dataclass
class CaseResult:
    name: str
    status: str  # "ok", "failed" or "skipped"
    exit_code: int
    seconds: float
    message: str = ""
    outputs: list = field(default_factory=list)  # relative to the case folder


class UsageError(Exception):
    pass


def find_merivane(path: Optional[str] = None) -> str:
    """The merivane program: `path` if it exists here, else $MERIVANE_EXE, else PATH."""
    for candidate in (path, os.environ.get("MERIVANE_EXE")):
        if candidate and os.access(candidate, os.X_OK):
            return candidate
    found = shutil.which("merivane")
    if found:
        return found
    raise FileNotFoundError("no merivane program: pass --merivane PATH or set MERIVANE_EXE")


def read_marker(case_dir) -> Optional[CaseResult]:
    """The record of a finished case, or None when its folder holds no completion marker."""
    marker = Path(case_dir) / DONE_MARKER
    try:
        text = marker.read_text()
    except OSError:
        return None
    values = {}
    for line in text.splitlines():
        key, sep, value = line.partition("=")
        if sep:
            values[key] = value
    return CaseResult(name=Path(case_dir).name, status="ok", exit_code=int(values.get("exit", "0") or 0),
                      seconds=float(values.get("seconds", "0") or 0.0),
                      outputs=[o for o in values.get("outputs", "").split(";") if o])


def _write_atomically(path: Path, text: str) -> None:
    tmp = path.with_name(path.name + ".tmp")
    with open(tmp, "w") as f:
        f.write(text)
        f.flush()
        os.fsync(f.fileno())
    os.replace(tmp, path)


def _outputs_in(folder: Path) -> list:
    skip = {"run.log", DONE_MARKER, DONE_MARKER + ".tmp"}
    files = []
    for root, _, names in os.walk(folder):
        for n in names:
            rel = os.path.relpath(os.path.join(root, n), folder).replace(os.sep, "/")
            if rel not in skip:
                files.append(rel)
    return sorted(files)


def _last_words(log: Path) -> str:
    try:
        lines = [ln.strip() for ln in log.read_text(errors="replace").splitlines() if ln.strip()]
    except OSError:
        return ""
    mine = [ln[len("merivane: "):] for ln in lines if ln.startswith("merivane: ")]
    words = mine[-1] if mine else (lines[-1] if lines else "")
    return words if len(words) <= 400 else words[:400] + "..."


def _attempt_suffix() -> str:
    # Unique per attempt: a retried task never shares a folder with the attempt it replaces.
    return f"{socket.gethostname()}-{os.getpid()}-{uuid.uuid4().hex[:12]}"


def _die_with_parent() -> None:
    # A worker that dies takes its run with it, instead of leaving it to write on.
    try:
        import ctypes
        ctypes.CDLL(None, use_errno=True).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG
    except Exception:
        pass


def _failure(out: Path, name: str, code: int, seconds: float, message: str, log: Optional[Path]) -> CaseResult:
    kept = out / f"{name}.failed.log"
    try:
        if log is not None and log.exists():
            os.replace(log, kept)
        else:
            kept.write_text(message + "\n")
    except OSError:
        pass
    return CaseResult(name, "failed", code, seconds, message)


def _commit(out: Path, name: str, tmp: Path, seconds: float) -> CaseResult:
    result = CaseResult(name, "ok", 0, seconds, outputs=_outputs_in(tmp))
    marker = "exit=0\nseconds=%.3f\noutputs=%s\n" % (seconds, ";".join(result.outputs))
    try:
        _write_atomically(tmp / DONE_MARKER, marker)
    except OSError as e:
        shutil.rmtree(tmp, ignore_errors=True)
        return CaseResult(name, "failed", EXIT_FILE_ERROR, seconds,
                          f"case '{name}': {tmp / DONE_MARKER}: cannot write the completion marker ({e})")
    target = out / name
    error = None
    for _ in range(2):
        try:
            os.rename(tmp, target)
            error = None
            break
        except OSError as e:
            error = e
        recorded = read_marker(target)
        if recorded is not None:
            # Another attempt finished first; its result stands.
            shutil.rmtree(tmp, ignore_errors=True)
            recorded.name = name
            return recorded
        # A folder without the marker is not a finished case: set it aside and take its place.
        stale = out / f".stale-{name}-{_attempt_suffix()}"
        try:
            os.rename(target, stale)
            shutil.rmtree(stale, ignore_errors=True)
        except OSError:
            pass
    if error is not None:
        shutil.rmtree(tmp, ignore_errors=True)
        return CaseResult(name, "failed", EXIT_FILE_ERROR, seconds,
                          f"case '{name}': {target}: cannot move the outputs into place ({error})")
    try:
        (out / f"{name}.failed.log").unlink()
    except OSError:
        pass
    return result


def _missing_input(name: str, arguments: Sequence[str]) -> str:
    for flag, value in zip(arguments, arguments[1:]):
        if flag in ("--in", "--in-labels"):
            if not value:
                return f"case '{name}': no file in column {flag[2:]}"
            if not os.path.exists(value):
                return f"case '{name}': file '{value}' (column {flag[2:]}) does not exist"
    return ""


def _threads_for(share) -> int:
    """Threads for one run: the cores of this machine shared among the runs beside it. `share`
    is a count of runs side by side, or a dict of them per host (Dask workers per host)."""
    if isinstance(share, dict):
        try:
            from distributed import get_worker

            host = get_worker().address.split("://")[-1].rsplit(":", 1)[0]
            share = share.get(host, 1)
        except (ImportError, ValueError):
            share = 1
    return max(1, (os.cpu_count() or 1) // max(1, int(share or 1)))


def run_case(name: str, arguments: Sequence[str], out_dir: str, merivane: Optional[str] = None,
             plugin: Optional[str] = None, problem: str = "", share=1) -> CaseResult:
    """Runs one case: `merivane run ARGUMENTS --out <temporary>`, then commits it as OUT/<name>/.

    Idempotent, and so safe for Dask to retry: a case already done returns its recorded result.
    `problem` is a reason found while planning (a missing input); the case then fails with it.
    The run gets OMP_NUM_THREADS (unless set) from `share`, the runs beside it (see _threads_for),
    so that runs side by side share the cores instead of fighting for them.
    Never raises for a failed run; the result says what went wrong.
    """
    out = Path(out_dir)
    recorded = read_marker(out / name)
    if recorded is not None:
        recorded.name = name
        return recorded
    if problem:
        return _failure(out, name, EXIT_FILE_ERROR, 0.0, problem, None)
    missing = _missing_input(name, list(arguments))
    if missing:
        return _failure(out, name, EXIT_FILE_ERROR, 0.0, missing, None)
    try:
        program = find_merivane(merivane)
    except FileNotFoundError as e:
        return _failure(out, name, 127, 0.0, f"case '{name}': {e} on {socket.gethostname()}", None)
    tmp = out / f".tmp-{name}-{_attempt_suffix()}"
    command = [program] + (["--plugin", plugin] if plugin else []) + ["run", *arguments, "--out", str(tmp)]
    start = time.monotonic()
    try:
        tmp.mkdir(parents=True)
        with open(tmp / "run.log", "wb") as log:
            env = None
            if "OMP_NUM_THREADS" not in os.environ:
                env = dict(os.environ, OMP_NUM_THREADS=str(_threads_for(share)))
            code = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT, env=env,
                                  preexec_fn=_die_with_parent if sys.platform.startswith("linux") else None).returncode
    except OSError as e:
        shutil.rmtree(tmp, ignore_errors=True)
        return _failure(out, name, EXIT_FILE_ERROR, time.monotonic() - start,
                        f"case '{name}': cannot run {program} in {tmp} ({e})", None)
    seconds = time.monotonic() - start
    if code == 0:
        return _commit(out, name, tmp, seconds)
    if code < 0:
        why = f"merivane run was killed by signal {-code} ({signal.strsignal(-code)})"
        code = 128 - code
    else:
        why = _last_words(tmp / "run.log") or f"merivane run ended with exit code {code}"
    result = _failure(out, name, code, seconds, f"case '{name}': {why}", tmp / "run.log")
    shutil.rmtree(tmp, ignore_errors=True)
    return result


def write_summary(out_dir, results: Sequence[CaseResult]) -> Path:
    """Writes OUT/summary.csv (through a temporary file) and returns its path."""
    buffer = io.StringIO()
    writer = csv.writer(buffer, lineterminator="\n")
    writer.writerow(SUMMARY_COLUMNS)
    for r in results:
        writer.writerow([r.name, r.status, r.exit_code, "%.3f" % r.seconds, r.message,
                         ";".join(f"{r.name}/{o}" for o in r.outputs)])
    path = Path(out_dir) / "summary.csv"
    _write_atomically(path, buffer.getvalue())
    return path


def plan(batch_args: Sequence[str], merivane: Optional[str] = None, plugin: Optional[str] = None):
    """Asks `merivane batch --dry-run` for the cases: a list of (name, state, run arguments).

    state is "run", "done" or the reason the case cannot run. Raises UsageError, carrying
    merivane's exit code, when the command, the table or the parameters are bad.
    """
    program = find_merivane(merivane)
    command = [program] + (["--plugin", plugin] if plugin else []) + ["batch", *batch_args, "--dry-run"]
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True)
    if done.returncode != 0:
        error = UsageError(done.stderr.strip() or f"{program} batch --dry-run ended with {done.returncode}")
        error.code = done.returncode
        raise error
    rows = list(csv.reader(io.StringIO(done.stdout)))
    return [(row[0], row[1], row[2:]) for row in rows[1:] if row]


def _remove_leftovers(out: Path) -> None:
    for entry in out.iterdir():
        if entry.name.startswith((".tmp-", ".stale-")):
            shutil.rmtree(entry, ignore_errors=True)


def _run_on_dask(cases, out: Path, scheduler: str, merivane, plugin, report):
    from distributed import Client, LocalCluster, as_completed

    cluster = None
    if scheduler == "local" or scheduler.startswith("local:"):
        workers = int(scheduler.partition(":")[2] or os.cpu_count() or 1)
        cluster = LocalCluster(n_workers=workers, threads_per_worker=1, processes=True, dashboard_address=":0")
        scheduler = cluster.scheduler_address
    results = {}
    try:
        with Client(scheduler) as client:
            batch = uuid.uuid4().hex[:8]
            per_host = collections.Counter(w.get("host") for w in client.scheduler_info()["workers"].values())
            futures = {}
            for name, state, arguments in cases:
                problem = "" if state == "run" else state
                # pure=False and a key of our own: a case is one task, whatever its arguments.
                future = client.submit(run_case, name, arguments, str(out), merivane, plugin, problem, dict(per_host),
                                       key=f"merivane-case-{name}-{batch}", pure=False, retries=1)
                futures[future] = name
            for future in as_completed(futures):
                name = futures[future]
                try:
                    results[name] = future.result()
                except Exception as e:  # the task's workers died too often, or it could not be sent
                    results[name] = CaseResult(name, "failed", EXIT_FAILED, 0.0,
                                               f"case '{name}': the cluster gave up on it ({type(e).__name__}: {e})")
                report(results[name])
    finally:
        if cluster is not None:
            cluster.close()
    return results


def _run_here(cases, out: Path, jobs: int, merivane, plugin, report):
    results = {}
    with concurrent.futures.ThreadPoolExecutor(max_workers=jobs) as pool:
        futures = {pool.submit(run_case, name, arguments, str(out), merivane, plugin,
                               "" if state == "run" else state, jobs): name
                   for name, state, arguments in cases}
        for future in concurrent.futures.as_completed(futures):
            results[futures[future]] = future.result()
            report(results[futures[future]])
    return results


def run(argv: Sequence[str], quiet: bool = False) -> int:
    """Runs a batch from the arguments of `merivane batch`; returns the exit code."""
    scheduler, merivane, plugin, out_dir = "", None, None, None
    jobs = os.cpu_count() or 1
    dry_run = False
    rest = []
    args = list(argv)
    i = 0
    while i < len(args):
        a = args[i]
        has_value = i + 1 < len(args)
        if a in ("--scheduler", "--merivane", "--plugin", "--jobs") and has_value:
            value = args[i + 1]
            i += 2
            if a == "--scheduler":
                scheduler = value
            elif a == "--merivane":
                merivane = value
            elif a == "--plugin":
                plugin = value
            else:
                if not value.isdigit() or int(value) < 1:
                    print(f"merivane.batch: --jobs needs a count of 1 or more, not '{value}'", file=sys.stderr)
                    return EXIT_USAGE
                jobs = int(value)
            continue
        if a == "--dry-run":
            dry_run = True
        elif a in ("-h", "--help"):
            print(__doc__)
            return EXIT_SUCCESS
        else:
            if a == "--out" and has_value:
                out_dir = args[i + 1]
            rest.append(a)
        i += 1

    try:
        cases = plan(rest, merivane, plugin)
    except UsageError as e:
        print(str(e), file=sys.stderr)
        return getattr(e, "code", EXIT_USAGE)
    except FileNotFoundError as e:
        print(f"merivane.batch: {e}", file=sys.stderr)
        return EXIT_USAGE
    if dry_run:
        writer = csv.writer(sys.stdout, lineterminator="\n")
        writer.writerow(["case", "state", "arguments"])
        for name, state, arguments in cases:
            writer.writerow([name, state, *arguments])
        return EXIT_SUCCESS

    out = Path(out_dir).absolute()
    try:
        out.mkdir(parents=True, exist_ok=True)
    except OSError as e:
        print(f"merivane.batch: {out}: cannot create the output folder ({e})", file=sys.stderr)
        return EXIT_FILE_ERROR
    _remove_leftovers(out)

    results = {}
    progress = {"done": 0}

    def report(r: CaseResult):
        progress["done"] += 1
        if r.status == "failed":
            print(f"batch: [{progress['done']}/{len(cases)}] {r.name} failed: {r.message}", file=sys.stderr)
        elif not quiet:
            print(f"batch: [{progress['done']}/{len(cases)}] {r.name} {r.status} ({r.seconds:.2f} s)",
                  file=sys.stderr)

    pending = []
    for name, state, arguments in cases:
        recorded = read_marker(out / name)
        if recorded is not None:
            recorded.name, recorded.status, recorded.message = name, "skipped", "done in an earlier run"
            results[name] = recorded
            report(recorded)
        else:
            pending.append((name, state, arguments))

    interrupted = False
    try:
        if pending and scheduler:
            results.update(_run_on_dask(pending, out, scheduler, merivane, plugin, report))
        elif pending:
            results.update(_run_here(pending, out, jobs, merivane, plugin, report))
    except KeyboardInterrupt:
        interrupted = True
    except OSError as e:  # the scheduler cannot be reached
        print(f"merivane.batch: {scheduler}: {e}", file=sys.stderr)
        return EXIT_FAILED

    # A run whose worker died leaves its temporary folder behind.
    _remove_leftovers(out)
    ordered = []
    for name, _, _ in cases:
        ordered.append(results.get(name) or CaseResult(name, "failed", EXIT_CANCELED, 0.0,
                                                       f"case '{name}': not run, the batch was interrupted"))
    summary = write_summary(out, ordered)
    failed = sum(r.status == "failed" for r in ordered)
    if not quiet:
        print(f"batch: {failed} of {len(ordered)} cases failed; summary in {summary}", file=sys.stderr)
    if interrupted:
        return EXIT_CANCELED
    return EXIT_FAILED if failed else EXIT_SUCCESS


class BatchError(Exception):
    """A batch that stopped before running its cases: a bad command, table or scheduler."""

    def __init__(self, message: str, code: int):
        super().__init__(message)
        self.code = code


def read_summary(out_dir) -> list:
    """The CaseResults of OUT/summary.csv, in table order."""
    results = []
    with open(Path(out_dir) / "summary.csv", newline="") as f:
        for row in csv.DictReader(f):
            prefix = row["case"] + "/"
            outputs = [o[len(prefix):] if o.startswith(prefix) else o for o in row["outputs"].split(";") if o]
            results.append(CaseResult(row["case"], row["status"], int(row["exit_code"]), float(row["seconds"]),
                                      row["message"], outputs))
    return results


def cohort(algorithm: str, cases, out, *, inputs: Sequence[str] = (), labels: Sequence[str] = (),
           params: Optional[dict] = None, jobs: Optional[int] = None, scheduler: Optional[str] = None,
           write_inputs: bool = False, format: Optional[str] = None, merivane: Optional[str] = None,
           quiet: bool = True) -> list:
    """Runs `algorithm` over a cohort and returns one CaseResult per case, in table order.

    `cases` is a case table (.csv) or a folder pattern; with a pattern, `inputs` and `labels`
    are the templates of the images and label maps of a case (``{case}`` stands for the match,
    ``{name}`` for the case's name). `params` maps parameter names to values, as --set does.
    `scheduler` is a Dask scheduler address (or ``local:N``); without it the cases run here,
    `jobs` at a time. Failed cases are results like the others (status "failed", message naming
    the case and the file); a batch that cannot start raises BatchError.

        results = merivane.batch.cohort("GraphBasedSegmentation", "study/*/", "results",
                                        inputs=["{case}/t1.nii.gz"], labels=["{case}/seeds.nii.gz"],
                                        params={"Export Probability": True}, scheduler="local:4")
    """
    argv = [algorithm, "--cases", os.fspath(cases), "--out", os.fspath(out)]
    for template in inputs:
        argv += ["--in", template]
    for template in labels:
        argv += ["--in-labels", template]
    for key, value in (params or {}).items():
        text = ("true" if value else "false") if isinstance(value, bool) else str(value)
        argv += ["--set", f"{key}={text}"]
    if jobs is not None:
        argv += ["--jobs", str(jobs)]
    if scheduler:
        argv += ["--scheduler", scheduler]
    if write_inputs:
        argv.append("--write-inputs")
    if format:
        argv += ["--format", format]
    if merivane:
        argv += ["--merivane", merivane]
    stderr = io.StringIO()
    saved, sys.stderr = sys.stderr, stderr if quiet else sys.stderr
    started = time.time()
    try:
        code = run(argv, quiet=quiet)
    finally:
        sys.stderr = saved
    summary = Path(out) / "summary.csv"
    # A summary older than this call is an earlier batch's: this one stopped before writing.
    if code in (EXIT_SUCCESS, EXIT_FAILED) and summary.exists() and summary.stat().st_mtime >= started - 1:
        return read_summary(out)
    raise BatchError(stderr.getvalue().strip() or f"the batch stopped with exit code {code}", code)


def main() -> None:
    sys.exit(run(sys.argv[1:]))


if __name__ == "__main__":
    main()
