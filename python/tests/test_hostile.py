"""Hostile input, one row per bad call: the identifier (or exit status and
message) it must give, and for every row the caller's arrays, files and
existing outputs unchanged. An error must also survive pickling with its
identifier (a process-based Dask cluster pickles it). The rows are what
the front ends check themselves, and a few of the library's refusals on
their way through (the library's own table: tests/test_denoise.cpp)."""

import os
import pickle

import numpy as np
import pytest

from conftest import need
from test_denoise import sample_image

Z = sample_image()  # 24 x 20, values in 0..255
NAN = Z.copy()
NAN[3, 4] = np.nan
K = np.ones((3, 3))
RGB = np.stack([Z, Z[::-1], 255 - Z], axis=2)

CALLS = [
    # The image: what is not a real 2-D array is refused before any copy.
    ("bool image", "denoise", dict(z=Z > 100, sigma=1.0), "image:notNumeric"),
    ("object image", "denoise", dict(z=Z.astype(object), sigma=1.0), "image:notNumeric"),
    ("complex image", "denoise", dict(z=Z + 1j, sigma=1.0), "image:complex"),
    ("two channels", "denoise", dict(z=np.zeros((4, 4, 2)), sigma=1.0), "image:channels"),
    ("five channels", "denoise", dict(z=np.zeros((4, 4, 5)), sigma=1.0), "image:channels"),
    ("4-D image", "denoise", dict(z=np.zeros((4, 4, 3, 1)), sigma=1.0), "image:size"),
    ("NaN pixel", "denoise", dict(z=NAN, sigma=12.0), "image:notFinite"),
    ("int64 beyond 2^53", "denoise", dict(z=-(2**53) - 1 - Z.astype(np.int64), sigma=1.0),
     "image:inexact"),
    ("50000 x 50000 view, refused before the 20 GB copy", "denoise",
     dict(z=np.broadcast_to(np.uint8(7), (50000, 50000)), sigma=1.0), "image:tooLarge"),
    # The noise.
    ("transposed psd", "denoise", dict(z=Z, psd=np.ones((20, 24))), "noise:psdSize"),
    ("psd and sigma", "denoise", dict(z=Z, psd=np.ones((24, 20)), sigma=1.0), "noise:conflict"),
    ("kernel without sigma", "denoise", dict(z=Z, kernel=K), "noise:missing"),
    ("sigma as text", "denoise", dict(z=Z, sigma="abc"), "sigma:notScalar"),
    ("sigma a list", "denoise", dict(z=Z, sigma=[1.0, 2.0]), "sigma:notScalar"),
    ("complex kernel", "denoise", dict(z=Z, kernel=K + 1j, sigma=1.0), "kernel:complex"),
    # Colour noise.
    ("covariance on grey", "denoise", dict(z=Z, channel_covariance=np.eye(3)), "noise:covariance"),
    ("covariance and sigma", "denoise", dict(z=RGB, sigma=1.0, channel_covariance=np.eye(3)),
     "noise:conflict"),
    ("covariance 2 x 2", "denoise", dict(z=RGB, channel_covariance=np.eye(2)), "noise:covariance"),
    ("two sigmas for three channels", "denoise", dict(z=RGB, sigma=[1.0, 2.0]), "noise:channels"),
    ("psd of two channels", "denoise", dict(z=RGB, psd=np.ones((24, 20, 2))), "noise:psdSize"),
    # No noise given: the estimate's refusals.
    ("blind call on an image below 16 x 16", "denoise", dict(z=Z[:15, :]), "image:tooSmall"),
    ("estimate: complex image", "estimate", dict(z=Z + 1j), "image:complex"),
    ("estimate: threads as text", "estimate", dict(z=Z, threads="2"), "threads:outOfRange"),
    ("dask, blind: NaN pixel", "dask", dict(array=NAN, chunks=8), "image:notFinite"),
    # Options.
    ("negative threads", "denoise", dict(z=Z, sigma=1.0, threads=-1), "threads:outOfRange"),
    ("fractional threads", "denoise", dict(z=Z, sigma=1.0, threads=2.5), "threads:outOfRange"),
    # Dask: the same refusals, before any task runs.
    ("dask: complex image", "dask", dict(array=Z + 1j, sigma=1.0, chunks=8), "image:complex"),
    ("dask: NaN pixel", "dask", dict(array=NAN, sigma=12.0, chunks=8), "image:notFinite"),
    ("dask: uint64 beyond 2^53", "dask",
     dict(array=Z.astype(np.uint64) + np.uint64(2**53 + 1), sigma=1.0, chunks=8), "image:inexact"),
    ("dask: transposed psd", "dask", dict(array=Z, psd=np.ones((20, 24)), chunks=8),
     "noise:psdSize"),
    ("dask: fractional halo", "dask", dict(array=Z, sigma=1.0, chunks=8, halo=2.5),
     "halo:outOfRange"),
    ("dask: negative threads", "dask", dict(array=Z, sigma=1.0, chunks=8, threads=-1),
     "threads:outOfRange"),
    ("dask: two channels", "dask", dict(array=np.zeros((20, 20, 2)), sigma=1.0, chunks=8),
     "image:channels"),
    ("dask: covariance on grey", "dask", dict(array=Z, channel_covariance=np.eye(3), chunks=8),
     "noise:covariance"),
    ("estimate: five channels", "estimate", dict(z=np.zeros((20, 20, 5))), "image:channels"),
]


def _kept(value):
    if isinstance(value, np.ndarray) and value.flags.writeable:
        return value.copy()
    return value


@pytest.mark.parametrize("where, kwargs, identifier",
                         [pytest.param(*row[1:], id=row[0]) for row in CALLS])
def test_a_bad_call_is_refused_and_changes_nothing(denoiser, where, kwargs, identifier):
    if where == "dask":
        try:
            import dask  # noqa: F401
        except ImportError:
            need(False, "python3-dask")
        import shapewiener.dask
        call = shapewiener.dask.denoise
    elif where == "estimate":
        call = denoiser.estimate_noise
    else:
        call = denoiser.denoise
    before = {name: _kept(value) for name, value in kwargs.items()}
    with pytest.raises(denoiser.Error) as info:
        call(**kwargs)
    assert info.value.identifier == "shapewiener:" + identifier, str(info.value)
    assert "\n" not in str(info.value)
    copy = pickle.loads(pickle.dumps(info.value))
    assert type(copy) is denoiser.Error and copy.identifier == info.value.identifier
    for name, value in kwargs.items():
        if isinstance(value, np.ndarray) and value.flags.writeable:
            assert value.dtype == before[name].dtype
            assert np.array_equal(value, before[name], equal_nan=value.dtype.kind == "f"), name


BATCH = [
    # (id, pattern, output folder, options, exit status, text on stderr)
    ("no worker", "in/*.npy", "out", ["--workers", "0"], 2, "--workers"),
    ("negative threads", "in/*.npy", "out", ["--threads", "-1"], 2, "--threads"),
    ("sigma 0, refused before a cluster starts", "in/*.npy", "out", ["--sigma", "0"], 2,
     "above 0"),
    ("missing kernel file", "in/*.npy", "out", ["--kernel", "none.npy"], 2,
     "cannot read the kernel"),
    ("pattern matching nothing", "in/*.tif", "out", [], 2, "no file matches"),
    ("outputs that would replace the inputs", "in/*.npy", "in", [], 2, "would replace it"),
]


def _snapshot(folder):
    return {os.path.relpath(os.path.join(d, f), folder): open(os.path.join(d, f), "rb").read()
            for d, _, files in os.walk(folder) for f in files}


@pytest.mark.parametrize("pattern, outdir, options, status, text",
                         [pytest.param(*row[1:], id=row[0]) for row in BATCH])
def test_a_bad_batch_stops_before_it_starts(denoiser, tmp_path, capsys, monkeypatch, pattern,
                                            outdir, options, status, text):
    from shapewiener import batch
    (tmp_path / "in").mkdir()
    (tmp_path / "out").mkdir()
    np.save(tmp_path / "in" / "a.npy", Z)
    np.save(tmp_path / "out" / "old.npy", Z[:4])
    monkeypatch.chdir(tmp_path)
    before = _snapshot(tmp_path)
    try:
        code = batch.main([pattern, outdir, "--sigma", "12"] + options)
    except SystemExit as e:  # argparse
        code = e.code
    assert code == status
    err = capsys.readouterr().err
    assert text in err and "Traceback" not in err and "http" not in err
    assert _snapshot(tmp_path) == before
