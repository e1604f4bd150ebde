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


def test_fourier_wiener_improves_psnr():
    clean = cases.load_image("camera")[128:256, 192:320]
    psd = cases.noise_psd("gauss1", clean.shape, SIGMA)
    noisy = clean + cases.make_noise("gauss1", clean.shape, SIGMA, cases.case_rng(1, "t", "g", 0.1))
    assert peers.psnr(clean, peers.fourier_wiener(noisy, psd, 2.0)) > peers.psnr(clean, noisy) + 2.0
