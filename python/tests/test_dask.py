"""Dask: tiles with their halo give the whole image's bits; a batch with a
corrupt file reports it, finishes the others and resumes. Clusters run on
127.0.0.1 only."""

import os

import numpy as np
import pytest

from conftest import need
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


@pytest.mark.parametrize("noise", ["kernel", "stripes"])
def test_tiles_give_the_whole_images_bits(denoiser, client, noise):
    """Chunks smaller than twice the halo; the default preset: tests/test_tile.cpp.
    Stripes go through the global first stage before the tiles."""
    import shapewiener.dask
    preset, chunks = "fast", (10, 13)
    z = np.tile(sample_image(), (2, 3))[:80, :72] / 255.0
    if noise == "kernel":
        args = {"kernel": np.array([[1.0, 2.0, 1.0], [2.0, 4.0, 2.0], [1.0, 2.0, 1.0]]),
                "sigma": 0.05}
    else:
        args = {"psd": stripes_psd(z.shape, 0.05)}
        assert denoiser.remove_noise_peaks(z, **args) is not None
    whole = denoiser.denoise(z, **args, preset=preset)
    tiled = shapewiener.dask.denoise(z, chunks=chunks, **args, preset=preset).compute()
    mismatched = np.count_nonzero(tiled != whole)
    assert mismatched == 0, f"{mismatched} of {z.size} pixels differ"


def test_a_batch_reports_a_corrupt_file_and_resumes(denoiser, client, tmp_path):
    import imageio
    from shapewiener import batch
    src, out = tmp_path / "in", tmp_path / "out"
    src.mkdir()
    z = sample_image()
    imageio.imwrite(src / "a.png", z.astype(np.uint8))
    np.save(src / "b.npy", z / 255.0)
    (src / "c.png").write_bytes(b"\x89PNG\r\n\x1a\n not really")
    (src / "sub").mkdir()
    np.save(src / "sub" / "b.npy", z / 510.0)  # the same name in another folder
    noise = {"sigma": 0.05, "kernel": None, "psd": None}
    pattern = str(src / "**" / "*.*")
    failed = batch.run(pattern, str(out), noise, preset="fast",
                       scheduler=client.scheduler.address, out=open(os.devnull, "w"))
    assert [os.path.basename(f) for f, _ in failed] == ["c.png"]
    assert sorted(os.listdir(out)) == ["a.png", "b.npy", "sub"]
    for name, scale in (("b.npy", 255.0), ("sub/b.npy", 510.0)):
        expected = denoiser.denoise(z / scale, sigma=0.05, preset="fast")
        assert np.load(out / name).tobytes() == expected.tobytes()
    assert imageio.imread(out / "a.png").dtype == np.uint8
    assert batch.plan(pattern, str(out)) == ([(str(src / "c.png"), str(out / "c.png"))], 3)
