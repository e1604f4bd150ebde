"""Denoises many images on a Dask cluster:

    python3 -m shapewiener.batch 'in/*.png' outdir/                 # noise estimated per image
    python3 -m shapewiener.batch 'in/*.png' outdir/ --sigma 12
    python3 -m shapewiener.batch 'scans/**/*.npy' out/ --kernel k.npy --sigma 0.02 \\
        --scheduler tcp://10.0.0.5:8786
    python3 -m shapewiener.batch 'photos/*.jpg' out/ --format png  # colour, written as PNG

Each input becomes outdir/<path> (same name and format, or the format of
--format), <path> being its path below the deepest folder all inputs
share, so the input folders are mirrored. Grey and colour images (RGB, RGB
and alpha) are taken: PNG, TIFF, JPEG and .npy, as the command line reads
them. Images are read and written by the library's own reader and
writer, the command line program's: values as stored (an 8-bit PNG in
0..255, so sigma is in those units), results written back in the input's
type (rounded, clipped to its range). Without a noise description the
noise is estimated per image, and the report says what it found. Outputs that exist are skipped, so an
interrupted batch resumes where it stopped (an output appears only once
complete). An image that fails is reported and the others go on; the exit
status is 1 when any failed, 2 when the batch could not start.

Without --scheduler a local cluster on 127.0.0.1 runs --workers worker
processes with one thread each; every image runs with --threads library
threads.
"""

import argparse
import glob
import os
import sys
import time

import numpy as np


def _message(e):
    """One line for a failure: the message alone for our own errors."""
    from .errors import Error
    if isinstance(e, Error):
        return str(e)
    if isinstance(e, OSError) and e.strerror:
        return f"{e.filename}: {e.strerror}" if e.filename else e.strerror
    return f"{type(e).__name__}: {e}"


def denoise_file(source, target, noise, preset, threads, quality=95):
    """One image, read and written through the library's image files (the
    command line's reader and writer, as stored, with its memory check);
    returns (source, failure or None, seconds, warnings[, what was
    estimated when no noise was given])."""
    import warnings

    import shapewiener
    from shapewiener import _core
    start = time.monotonic()
    try:
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always", UserWarning)
            pixels, stored = _core.read_channels(source, _core.denoise_bytes_per_pixel(preset))
            image = pixels.astype(stored)  # exact: the values as stored
            del pixels
            estimated = ""
            if all(v is None for v in noise.values()):  # no noise given: estimated per image
                out, e = shapewiener.denoise(image, preset=preset, threads=threads,
                                             _with_estimate=True)
                sigma = ", ".join(f"{s:.4g}" for s in np.atleast_1d(e.sigma))
                estimated = (f" (noise estimated: sigma {sigma}, "
                             f"{'white' if e.white else 'coloured'})")
            else:
                out = shapewiener.denoise(image, **noise, preset=preset, threads=threads)
            os.makedirs(os.path.dirname(target) or ".", exist_ok=True)
            _core.write_channels(target, out, stored, quality)
        note = "; ".join(str(w.message) for w in caught)
        if estimated:
            return source, None, time.monotonic() - start, note, estimated
        return source, None, time.monotonic() - start, note
    except Exception as e:  # noqa: BLE001 - every failure is reported, the batch goes on
        return source, _message(e), time.monotonic() - start, ""


def plan(pattern, outdir, fmt=None):
    """(input, output) pairs to do, and the count of those already done.

    The outputs mirror the inputs' folders below the deepest folder they
    share, so that inputs of the same name in different folders never meet;
    `fmt` (an extension: "png", "tif", "jpg", "npy") replaces theirs.
    Raises shapewiener.Error when nothing matches or an output would
    replace an input.
    """
    from .errors import Error
    sources = sorted(s for s in glob.glob(pattern, recursive=True) if os.path.isfile(s))
    if not sources:
        raise Error("shapewiener:batch:noInput", f"no file matches {pattern!r}.")
    base = os.path.commonpath([os.path.dirname(os.path.abspath(s)) for s in sources])
    todo, done = [], 0
    for source in sources:
        target = os.path.join(outdir, os.path.relpath(os.path.abspath(source), base))
        if fmt:
            target = os.path.splitext(target)[0] + "." + fmt.lstrip(".")
        if os.path.realpath(target) == os.path.realpath(source):
            raise Error("shapewiener:batch:outputIsInput",
                        f"the output for {source} would replace it; choose another output "
                        f"folder.")
        if os.path.exists(target):
            done += 1
        else:
            todo.append((source, target))
    return todo, done


def check_noise(noise, preset):
    """The noise arguments and the preset checked once, before any cluster
    starts (the psd's shape is checked against every image)."""
    from . import _core
    from ._denoise import _noise
    if all(v is None for v in noise.values()):
        return  # no noise given: estimated per image
    psd = noise.get("psd")
    shape = (64, 64) if psd is None else np.shape(psd)
    kind, s, k, p = _noise(noise.get("sigma"), noise.get("kernel"), psd)
    _core.noise_has_peaks(int(shape[0]), int(shape[1]), kind, s, k, p, str(preset))


def run(pattern, outdir, noise, preset="default", threads=1, scheduler=None, workers=2,
        processes=True, out=sys.stderr, fmt=None, quality=95):
    """Runs a batch; returns the list of (input, message) that failed.

    Raises shapewiener.Error before anything starts for an argument that
    would fail every image.
    """
    from .errors import Error
    from ._denoise import threads_count
    if scheduler is None and (isinstance(workers, bool) or not isinstance(workers, int)
                              or workers < 1):
        raise Error("shapewiener:batch:workers",
                    f"workers takes a whole number of processes, 1 or more; got {workers!r}.")
    threads = threads_count(threads)
    check_noise(noise, preset)
    todo, done = plan(pattern, outdir, fmt)
    blind = all(v is None for v in noise.values())
    out.write(f"shapewiener batch: {len(todo)} to do, {done} already done"
              f"{'; no noise given: estimated per image' if blind else ''}\n")
    if not todo:
        return []
    from distributed import Client, LocalCluster, as_completed

    os.makedirs(outdir, exist_ok=True)
    cluster = None
    if scheduler is None:
        cluster = LocalCluster(host="127.0.0.1", protocol="tcp://", n_workers=workers,
                               threads_per_worker=1,
                               processes=processes, dashboard_address="127.0.0.1:0")
        client = Client(cluster)
    else:
        client = Client(scheduler)
    failed = []
    try:
        futures = [client.submit(denoise_file, s, t, noise, preset, threads, quality, pure=False)
                   for s, t in todo]
        for count, future in enumerate(as_completed(futures), 1):
            source, message, seconds, note, *estimated = future.result()
            status = "ok" + "".join(estimated) if message is None else f"FAILED: {message}"
            if note:
                status += f" (warning: {note})"
            out.write(f"[{count}/{len(todo)}] {source} {seconds:.1f} s {status}\n")
            out.flush()
            if message is not None:
                failed.append((source, message))
    finally:
        client.close()
        if cluster is not None:
            cluster.close()
    out.write(f"shapewiener batch: {len(todo) - len(failed)} done, {len(failed)} failed\n")
    return failed


def _count(low):
    def parse(text):
        try:
            value = int(text)
        except ValueError:
            value = None
        if value is None or value < low:
            raise argparse.ArgumentTypeError(f"takes a whole number, {low} or more; got {text!r}")
        return value
    return parse


def _load_array(path, what):
    from .errors import Error
    try:
        return np.load(path, allow_pickle=False)
    except (OSError, ValueError) as e:
        raise Error(f"shapewiener:{what}:unreadable", f"cannot read the {what} {path}: {e}")


def main(argv=None):
    p = argparse.ArgumentParser(prog="python3 -m shapewiener.batch",
                                description="Denoise many images on a Dask cluster.")
    p.add_argument("pattern", help="input files, a glob pattern in quotes ('in/*.png', "
                                   "'in/**/*.tif'); outputs mirror their folders")
    p.add_argument("outdir", help="output folder (outputs that exist are skipped)")
    p.add_argument("--sigma", type=float,
                   help="noise standard deviation, in the images' units as stored (0..255 for "
                        "8-bit images); without --sigma, --kernel or --psd the noise is "
                        "estimated per image")
    p.add_argument("--kernel", help=".npy file: the noise's colouring kernel (with --sigma)")
    p.add_argument("--psd", help=".npy file: the noise power spectrum (instead of --sigma)")
    p.add_argument("--preset", default="default", choices=["fast", "default"])
    p.add_argument("--format", choices=["png", "tif", "tiff", "jpg", "jpeg", "npy"],
                   help="write every output in this format (default: its input's)")
    p.add_argument("--quality", type=_count(1), default=95,
                   help="JPEG outputs' quality, 1 to 100 (default 95)")
    p.add_argument("--threads", type=_count(0), default=1,
                   help="library threads per image (default 1)")
    p.add_argument("--scheduler", help="address of a running Dask scheduler (default: a local "
                                       "cluster on 127.0.0.1)")
    p.add_argument("--workers", type=_count(1), default=2,
                   help="local cluster's worker processes (default 2)")
    a = p.parse_args(argv)
    from .errors import Error
    try:
        noise = {"sigma": a.sigma,
                 "kernel": None if a.kernel is None else _load_array(a.kernel, "kernel"),
                 "psd": None if a.psd is None else _load_array(a.psd, "psd")}
        if a.quality > 100:
            raise Error("shapewiener:batch:quality", f"--quality takes 1 to 100; got {a.quality}.")
        failed = run(a.pattern, a.outdir, noise, a.preset, a.threads, a.scheduler, a.workers,
                     fmt=a.format, quality=a.quality)
    except (Error, OSError) as e:
        sys.stderr.write(f"shapewiener batch: {_message(e)}\n")
        return 2
    except KeyboardInterrupt:
        sys.stderr.write("shapewiener batch: interrupted; run it again to resume\n")
        return 130
    for source, message in failed:
        sys.stderr.write(f"failed: {source}: {message}\n")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
