"""shapewiener.denoise: every dtype and memory order gives the float64 call's
bits, the command line program's bits, progress and cancelling (the refused
calls are in test_hostile.py)."""

import subprocess

import numpy as np
import pytest


def sample_image(rows=24, cols=20, seed=5):
    rng = np.random.default_rng(seed)
    r, c = np.meshgrid(np.arange(rows), np.arange(cols), indexing="ij")
    clean = 60.0 + 120.0 * (c > cols // 2) + 2.0 * r
    return np.clip(np.rint(clean + 12.0 * rng.standard_normal((rows, cols))), 0, 255)


def test_every_dtype_and_memory_order_gives_the_float64_bits(denoiser):
    z = sample_image()
    reference = denoiser.denoise(np.ascontiguousarray(z), sigma=12.0, preset="fast")
    assert reference.dtype == np.float64 and reference.shape == z.shape
    assert reference.flags.f_contiguous
    wide = np.zeros((48, 40))
    wide[::2, ::2] = z
    for variant in (z.astype(np.uint8), z.astype(np.uint16), z.astype(np.int32),
                    z.astype(np.float32), np.asfortranarray(z), wide[::2, ::2]):
        out = denoiser.denoise(variant, sigma=12.0, preset="fast")
        assert out.tobytes(order="F") == reference.tobytes(order="F"), variant.dtype


def test_progress_reaches_the_end_and_can_cancel(denoiser):
    z = sample_image()
    seen = []
    denoiser.denoise(z, sigma=12.0, progress=lambda f, phase: seen.append(f))
    assert seen[-1] == 1.0 and seen == sorted(seen)
    with pytest.raises(denoiser.Error) as info:
        denoiser.denoise(z, sigma=12.0, progress=lambda f, phase: f < 0.5)
    assert info.value.identifier.endswith(":interrupted")

    def interrupt(fraction, phase):
        raise KeyboardInterrupt
    with pytest.raises(KeyboardInterrupt):
        denoiser.denoise(z, sigma=12.0, progress=interrupt)


def test_the_command_line_gives_the_same_bits(denoiser, cli, tmp_path):
    z = sample_image(40, 36) / 255.0
    k = np.array([[1.0, 2.0, 1.0], [2.0, 4.0, 2.0], [1.0, 2.0, 1.0]])
    np.save(tmp_path / "in.npy", z)
    np.save(tmp_path / "k.npy", k)
    subprocess.run([cli, "denoise", str(tmp_path / "in.npy"), str(tmp_path / "out.npy"),
                    "--kernel", str(tmp_path / "k.npy"), "--sigma", "0.05", "--quiet"], check=True)
    expected = denoiser.denoise(z, kernel=k, sigma=0.05)
    assert np.load(tmp_path / "out.npy").tobytes(order="F") == expected.tobytes(order="F")


def test_stripes_on_a_real_image_stay_finite_and_are_removed(denoiser):
    """The quality benchmark's astronaut with diagonal stripes (sigma 0.1): the
    residual of the global stage is nearly zero over whole bands, which once
    gave NaN pixels."""
    import os
    import sys
    pytest.importorskip("skimage")
    sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "..", "bench", "quality"))
    import cases
    clean = cases.load_image("astronaut")
    noisy = clean + cases.make_noise("stripes", clean.shape, 0.1,
                                     cases.case_rng(20240607, "astronaut", "stripes", 0.1))
    out = denoiser.denoise(noisy, psd=cases.noise_psd("stripes", clean.shape, 0.1), threads=2)
    assert np.isfinite(out).all()
    assert 10 * np.log10(1 / np.mean((out - clean) ** 2)) > 38.0
