"""Shared fixtures. Outside CI a missing optional piece (the
command-line program, Dask) skips the tests that need it; under CI=true
it fails them."""

import glob
import gzip
import os
import pathlib

import numpy as np
import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("SHAPEWIENER_BUILD_DIR", ROOT / "build"))
WORKLOADS = ROOT / "tests" / "data" / "workloads"


def need(condition, what):
    if condition:
        return
    if os.environ.get("CI") == "true":
        pytest.fail(f"missing under CI: {what}")
    pytest.skip(f"missing: {what}")


@pytest.fixture(scope="session")
def shapewiener():
    import shapewiener as sw
    return sw


@pytest.fixture(scope="session")
def denoiser(shapewiener):
    return shapewiener


@pytest.fixture(scope="session")
def cli():
    found = [p for p in glob.glob(str(BUILD / "**" / "shapewiener"), recursive=True)
             if os.path.isfile(p) and os.access(p, os.X_OK)]
    need(found, f"the shapewiener program under {BUILD}")
    return found[0]


def dct(n):
    f, s = np.meshgrid(np.arange(n), np.arange(n), indexing="ij")
    t = np.cos(np.pi * (2 * s + 1) * f / (2 * n)) * np.sqrt(2.0 / n)
    t[0, :] = np.sqrt(1.0 / n)
    return t


def square_call(m=8, k=6, h=2, seed=1):
    """A small valid call with square shapes of side 2h - 1 (every scale h),
    keys grouping pixels by their clipping at the border."""
    rng = np.random.default_rng(seed)
    w = 2 * h - 1
    masks = []
    for c in range(8 * h * h):  # cell (a, b, d) in column-major cell order
        r = min(c % h, (c // h) % h)
        mask = np.zeros((w, w), np.uint8)
        mask[h - 1 - r:h + r, h - 1 - r:h + r] = 1
        masks.append(mask)
    rows, cols = np.meshgrid(np.arange(m), np.arange(k), indexing="ij")
    clip = (np.minimum(rows, h - 1) * 1000 + np.minimum(m - 1 - rows, h - 1) * 100
            + np.minimum(cols, h - 1) * 10 + np.minimum(k - 1 - cols, h - 1)).ravel(order="F")
    order = np.argsort(clip, kind="stable")
    _, keys = np.unique(clip[order], return_inverse=True)
    plist = np.asfortranarray(np.stack([order + 1, keys + 1], axis=1).astype(np.int32))
    noisy = np.asfortranarray(0.5 + 0.1 * rng.standard_normal((m, k)))
    return [np.arange(1.0, h + 1), np.full((m, k, 8), h, np.uint8, order="F"),
            [dct(n) for n in range(1, w + 1)], masks, None, None, 32.0, np.full((32, 32), 0.01),
            noisy, plist, 1.0, None, float(h), noisy.copy(order="F"), 6.0, 1e9]


def load_workload(name):
    """The sixteen arguments of a shared workload (see its README)."""
    folder = WORKLOADS / name
    m = k = 512
    n = 32
    raw = lambda path, dtype: np.frombuffer(path.read_bytes(), dtype=dtype)  # noqa: E731
    scaleset = raw(folder / "scaleset.f64", "<f8").reshape(1, -1).copy()
    h = int(scaleset.max())
    w = 2 * h - 1
    dsm = np.frombuffer(gzip.decompress((folder / "dsm.u8.gz").read_bytes()), np.uint8)
    plist = np.frombuffer(gzip.decompress((folder / "list.i32.gz").read_bytes()), "<i4")
    tv = raw(folder / "transforms.f64", "<f8")
    bank, pos = [], 0
    for length in range(1, w + 1):
        bank.append(tv[pos:pos + length * length].reshape(length, length, order="F"))
        pos += length * length
    mv = raw(folder / "masks.u8", np.uint8)
    masks = [mv[c * w * w:(c + 1) * w * w].reshape(w, w, order="F") for c in range(h * h * 8)]
    psd = raw(WORKLOADS / "camera512_gauss1_psd32.f64", "<f8").reshape(n, n, order="F")
    noisy = raw(WORKLOADS / "camera512_gauss1_noisy.f64", "<f8").reshape(m, k, order="F").copy(order="F")
    return [scaleset, dsm.reshape(m, k, 8, order="F"), bank, masks, None, None, float(n), psd,
            noisy, plist.reshape(m * k, 2, order="F"), 1.0, None, float(h), noisy.copy(order="F"),
            6.0, 1e9]
