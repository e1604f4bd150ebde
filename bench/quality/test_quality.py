"""Checks of the quality benchmark's noise generator and Wiener peer.

    /usr/bin/python3 -m pytest -q bench/quality
"""
import os
import sys

import numpy as np
import pytest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import cases  # noqa: E402
import peers  # noqa: E402

SHAPE = (96, 128)
SIGMA = 0.1


@pytest.mark.parametrize("noise", list(cases.NOISES))
def test_noise_has_its_psd_and_std(noise):
    psd = cases.noise_psd(noise, SHAPE, SIGMA)
    assert psd.min() >= 0
    assert psd.mean() == pytest.approx(SIGMA ** 2, rel=1e-12)
    # real noise: PSD(u, v) == PSD(-u, -v)
    mirrored = np.roll(psd[::-1, ::-1], (1, 1), axis=(0, 1))
    np.testing.assert_allclose(psd, mirrored, rtol=1e-9, atol=1e-18)

    rng = np.random.default_rng(5)
    draws = [cases.make_noise(noise, SHAPE, SIGMA, rng) for _ in range(24)]
    # per-pixel standard deviation over the ensemble
    assert np.sqrt(np.mean([np.mean(d * d) for d in draws])) == pytest.approx(SIGMA, rel=0.04)
    # periodogram / PSD averages to 1 bin by bin: the spectrum's shape is right
    keep = psd > 1e-9 * psd.max()
    ratio = [np.mean(np.abs(np.fft.fft2(d))[keep] ** 2 / d.size / psd[keep]) for d in draws]
    assert np.mean(ratio) == pytest.approx(1.0, abs=0.02)


def test_search_finds_interior_maximum_and_expands_outwards():
    def score(x):
        return -(np.log(x) - np.log(10.0)) ** 2

    seen = []
    best = peers.search_log(lambda x: seen.append(x) or score(x), 1.0, 2.0, expand=6, refine=True)
    assert best == max(map(score, seen))
    assert 8.0 <= max(seen, key=score) <= 11.4  # 2^3 .. 2^3.5, around the true 10
    assert max(seen) < 2.0 ** 5  # stops expanding once the best is inside


def test_prewhitening_round_trip_is_exact():
    psd = cases.noise_psd("ring", SHAPE, SIGMA)
    y = np.random.default_rng(2).standard_normal(SHAPE)
    g = peers.whitening(psd, 0.3)
    back = np.fft.ifft2(np.fft.fft2(np.fft.ifft2(np.fft.fft2(y) * g).real) / g).real
    np.testing.assert_allclose(back, y, atol=1e-12)


def test_harness_end_to_end_is_cached_and_deterministic(tmp_path):
    import quality
    stand_in = os.path.join(os.path.dirname(quality.__file__), "standin_shapewiener.py")
    args = ["--images", "coins", "--noises", "hline9", "--levels", "0.1", "--peers", "wiener",
            "--cache", str(tmp_path / "c"), "--ours-command", f"{sys.executable} {stand_in}",
            "--results", str(tmp_path / "r.md"), "--noise-form", "native"]
    quality.main(args)
    first = (tmp_path / "r.csv").read_text()
    stamps = sorted(p.stat().st_mtime_ns for p in (tmp_path / "c").rglob("*.json"))
    quality.main(args)
    assert sorted(p.stat().st_mtime_ns for p in (tmp_path / "c").rglob("*.json")) == stamps
    strip = lambda t: [line.rsplit(",", 2)[0] for line in t.splitlines()]  # drop the times
    assert strip((tmp_path / "r.csv").read_text()) == strip(first)
    # the stand-in is the Wiener filter at smoothing 4: given the kernel, it must match
    # the peer when the peer's best smoothing is 4, and can never beat the tuned peer
    rows = {line.split(",")[3]: float(line.split(",")[4]) for line in first.splitlines()[1:]}
    assert rows["ours"] <= rows["wiener"] + 1e-9 and rows["ours"] > rows["noisy"] + 2
