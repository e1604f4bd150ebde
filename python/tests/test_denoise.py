"""shapewiener.denoise: the unit rule for every dtype and memory order, the
command line program's bits, the plausibility warning, progress and
cancelling (the refused calls are in test_hostile.py)."""

import _thread
import subprocess
import threading
import warnings

import numpy as np
import pytest


def sample_image(rows=24, cols=20, seed=5):
    rng = np.random.default_rng(seed)
    r, c = np.meshgrid(np.arange(rows), np.arange(cols), indexing="ij")
    clean = 60.0 + 120.0 * (c > cols // 2) + 2.0 * r
    return np.clip(np.rint(clean + 12.0 * rng.standard_normal((rows, cols))), 0, 255)


def test_every_dtype_and_memory_order_follows_the_unit_rule(denoiser):
    """Values are used as stored, whatever the memory order; integer input
    comes back in its type, rounded half to even and clipped to its range,
    signed values with their sign."""
    z = sample_image()
    wide = np.zeros((48, 40))
    wide[::2, ::2] = z
    for variant, values in ((np.asfortranarray(z), z), (wide[::2, ::2], z),
                            (z.astype(np.float32), z), (z.astype(np.uint8), z),
                            (z.astype(np.uint16), z), ((z - 128).astype(np.int8), z - 128),
                            ((z - 1000).astype(np.int32), z - 1000)):
        expected = denoiser.denoise(np.ascontiguousarray(values), sigma=12.0, preset="fast")
        assert expected.dtype == np.float64 and expected.flags.f_contiguous
        if variant.dtype.kind in "iu":
            info = np.iinfo(variant.dtype)
            expected = np.clip(np.rint(expected), info.min, info.max).astype(variant.dtype)
        out = denoiser.denoise(variant, sigma=12.0, preset="fast")
        assert out.dtype == expected.dtype, variant.dtype
        assert out.tobytes(order="F") == expected.tobytes(order="F"), variant.dtype


@pytest.mark.parametrize("dtype, sigma, text", [
    (np.uint8, 0.1, "sigma 0.1 on uint8 values 0..255: noise levels are in the image's units; "
                    "did you mean 25.5?"),
    (np.float64, 25.0, "did you mean 0.098"),   # values in [0, 1], a level for 0..255
    (np.float64, 1e-7, "below 1e-4"),
    (np.uint8, 12.0, None),
])
def test_an_implausible_noise_level_warns_and_the_call_still_runs(denoiser, dtype, sigma, text):
    z = sample_image()
    z = z.astype(np.uint8) if dtype == np.uint8 else z / 255.0
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        out = denoiser.denoise(z, sigma=sigma, preset="fast")
    assert out.shape == z.shape and out.dtype == z.dtype
    shown = [w for w in caught if issubclass(w.category, UserWarning)]
    if text is None:
        assert shown == []
    else:
        assert len(shown) == 1 and text in str(shown[0].message)
        assert shown[0].filename == __file__  # it points at the caller's line


def test_progress_reaches_the_end_and_can_cancel(denoiser):
    z = sample_image()
    seen = []
    denoiser.denoise(z, sigma=12.0, progress=lambda f, phase: seen.append(f))
    assert seen[-1] == 1.0 and seen == sorted(seen)
    with pytest.raises(denoiser.Error) as info:
        denoiser.denoise(z, sigma=12.0, progress=lambda f, phase: f < 0.5)
    assert info.value.identifier.endswith(":interrupted")



def test_ctrl_c_in_the_middle_of_a_long_preparation(denoiser):
    """A kernel as large as the image keeps the noise description busy for
    seconds before any pass; Ctrl-C 0.1 s into it ends the call there."""
    rng = np.random.default_rng(0)
    z, k = rng.random((384, 384)), rng.random((384, 384))
    seen = []

    def record(fraction, phase):
        if not seen:
            threading.Timer(0.1, _thread.interrupt_main).start()
        seen.append(phase)
    with pytest.raises(KeyboardInterrupt):
        denoiser.denoise(z, kernel=k, sigma=0.1, threads=1, progress=record)
    assert set(seen) == {"noise"} and len(seen) > 1, seen


@pytest.mark.parametrize("name, stored", [
    ("in.png", "uint8"),     # an 8-bit PNG, its noise in grey levels
    ("in.tif", "int16"),     # signed values keep their sign
])
def test_the_command_line_gives_the_same_bits(denoiser, cli, tmp_path, name, stored):
    """(A .npy file with a kernel, and a blind call: tests/test_cli.cpp.)"""
    from shapewiener import _core
    z = sample_image(40, 36)
    z = (z if stored == "uint8" else z - 128).astype(stored)
    source, target = tmp_path / name, tmp_path / ("out" + name[2:])
    _core.write_channels(str(source), z, stored)
    subprocess.run([cli, "denoise", str(source), str(target), "--quiet", "--sigma", "25"], check=True)
    expected = denoiser.denoise(z, sigma=25.0)
    written, written_type = _core.read_channels(str(target))
    assert written_type == stored
    assert written.astype(stored).tobytes(order="F") == expected.tobytes(order="F")


def test_blind_is_the_estimate_then_its_spectrum(denoiser, tmp_path):
    """denoise(z) without noise: estimate_noise(z)'s psd handed to denoise,
    its phase first; the batch does the same per image and reports it."""
    from shapewiener import _core, batch
    z = sample_image(48, 40).astype(np.uint8)
    phases = []
    out = denoiser.denoise(z, preset="fast", progress=lambda f, phase: phases.append(phase))
    e = denoiser.estimate_noise(z, threads=1)
    assert e.psd.shape == z.shape and e.psd.dtype == np.float64
    assert e.sigma == pytest.approx(np.sqrt(e.psd.mean()), rel=1e-12)
    assert repr(e).startswith(f"NoiseEstimate(sigma={e.sigma:.6g}, ")
    assert out.tobytes() == denoiser.denoise(z, psd=e.psd, preset="fast").tobytes()
    assert phases[0] == "noise estimate" and phases[-1] == "done"
    _core.write_channels(str(tmp_path / "a.png"), z, "uint8")
    result = batch.denoise_file(str(tmp_path / "a.png"), str(tmp_path / "out" / "a.png"),
                                {"sigma": None, "kernel": None, "psd": None}, "fast", 1)
    assert result[1] is None and f"sigma {e.sigma:.4g}" in result[4], result
    written, _ = _core.read_channels(str(tmp_path / "out" / "a.png"))
    assert written.astype(np.uint8).tobytes(order="F") == out.tobytes(order="F")


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
