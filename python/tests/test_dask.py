"""Dask: tiles with their halo give the whole image's bits; a batch with a
corrupt file reports it, finishes the others and resumes. Clusters run on
127.0.0.1 only."""

import os

import numpy as np
import pytest

from conftest import ROOT, need
from test_denoise import sample_image


@pytest.fixture(scope="module")
def client():
    try:
        from distributed import Client, LocalCluster
    except ImportError:
        need(False, "python3-distributed")
    cluster = LocalCluster(host="127.0.0.1", protocol="tcp://", n_workers=2, threads_per_worker=1,
                           processes=False,
                           dashboard_address="127.0.0.1:0")
    with Client(cluster) as c:
        yield c
    cluster.close()


def stripes_psd(shape, sigma):
    """Diagonal stripes under a wide window: narrow spectral peaks."""
    r = np.arange(-16, 17)
    k = np.exp(-(r[:, None] ** 2 + r[None, :] ** 2) / 72.0) * np.cos(r[:, None] + r[None, :])
    pad = np.zeros(shape)
    pad[:33, :33] = k
    p = np.abs(np.fft.fft2(pad)) ** 2
    return p * (sigma * sigma / p.mean())


@pytest.mark.parametrize("noise", ["kernel", "stripes", "uint8", "blind", "photo flat psd",
                                   "rgb correlated", "rgb flat psd per channel", "rgb blind"])
def test_tiles_give_the_whole_images_bits(denoiser, client, noise):
    """Chunks smaller than twice the halo; the default preset: tests/test_tile.cpp.
    Stripes go through the global first stage before the tiles; a uint8
    image comes back as uint8, with its noise in grey levels; without a
    noise description every tile gets the whole image's estimate. A noisy
    photo's 8-bit values leave some coefficients exactly 0: a key whose
    first entry in a tile is not its first in the whole image keeps the
    whole image's levels all the same. Colour
    images are cut over their two spatial axes only (the chunks asked for
    along the channels are ignored)."""
    import shapewiener.dask
    preset, chunks = "fast", (10, 13)
    z = np.tile(sample_image(), (2, 3))[:80, :72] / 255.0
    if noise.startswith("rgb"):
        z = np.stack([z, z[::-1], 1 - z], axis=2)
        chunks = (10, 13, 1)
        args = {"channel_covariance": 4e-4 * np.array([[4, 2, 1], [2, 4, 2], [1, 2, 4]])}
        if noise == "rgb blind":
            z, args = (z * 255).astype(np.uint8), {}
        elif noise == "rgb flat psd per channel":
            args = {"psd": np.full(z.shape, 1e-3)}
    elif noise == "photo flat psd":
        from shapewiener import _core
        rgb, _ = _core.read_channels(str(ROOT / "data" / "astronaut.png"))
        noisy = rgb[:80, :72, 2] + 15 * np.random.default_rng(7).standard_normal((80, 72))
        z = np.clip(np.rint(noisy), 0, 255) / 255
        args = {"psd": np.full(z.shape, 1e-3)}
    elif noise in ("uint8", "blind"):
        z = (z * 255).astype(np.uint8)
        args = {"sigma": 12.0} if noise == "uint8" else {}
    elif noise == "kernel":
        args = {"kernel": np.array([[1.0, 2.0, 1.0], [2.0, 4.0, 2.0], [1.0, 2.0, 1.0]]),
                "sigma": 0.05}
    else:
        args = {"psd": stripes_psd(z.shape, 0.05)}
        assert denoiser.remove_noise_peaks(z, **args) is not None
    whole = denoiser.denoise(z, **args, preset=preset)
    tiled = shapewiener.dask.denoise(z, chunks=chunks, **args, preset=preset).compute()
    assert tiled.dtype == whole.dtype == (np.float64 if z.dtype == np.float64 else z.dtype)
    mismatched = np.count_nonzero(tiled != whole)
    assert mismatched == 0, f"{mismatched} of {z.size} pixels differ"


def test_a_batch_reports_a_corrupt_file_mirrors_folders_and_resumes(denoiser, client, tmp_path):
    """The files go through the library's reader and writer: an 8-bit PNG,
    an RGB one and a signed 16-bit TIFF come back in their type with their
    noise in their units; an input of the same name in a sub-folder gets its
    own output; --format names another output format."""
    from shapewiener import _core, batch
    src, out = tmp_path / "in", tmp_path / "out"
    (src / "sub").mkdir(parents=True)
    z = sample_image()
    inputs = {"a.png": z.astype(np.uint8), "b.npy": z, "sub/b.npy": z / 2,
              "d.tif": (z - 128).astype(np.int16),
              "g.png": np.stack([z, z[::-1], 255 - z], axis=2).astype(np.uint8)}
    for name, values in inputs.items():
        _core.write_channels(str(src / name), values, values.dtype.name)
    (src / "c.png").write_bytes(b"\x89PNG\r\n\x1a\n not really")
    np.save(src / "e.npy", z + 1j)            # complex values: refused, not cut to real
    np.save(src / "f.npy", z > 100)           # a mask: refused, not written back as 0/255
    noise = {"sigma": 12.0, "kernel": None, "psd": None}
    pattern = str(src / "**" / "*.*")
    failed = batch.run(pattern, str(out), noise, preset="fast",
                       scheduler=client.scheduler.address, out=open(os.devnull, "w"))
    assert sorted(os.path.basename(f) for f, _ in failed) == ["c.png", "e.npy", "f.npy"]
    assert all("\n" not in message and "http" not in message for _, message in failed)
    for name, values in inputs.items():
        written, stored = _core.read_channels(str(out / name))
        expected = denoiser.denoise(values, **noise, preset="fast")
        assert stored == values.dtype.name, name
        assert np.array_equal(written.astype(stored), expected), name
    assert batch.plan(pattern, str(out))[1] == 5
    todo, _ = batch.plan(str(src / "*.npy"), str(out), "png")
    assert sorted(os.path.basename(t) for _, t in todo) == ["b.png", "e.png", "f.png"]
