#!/usr/bin/python3
"""Test cases for bench/denoise_variants: centred SIZE x SIZE crops of scikit-image's sample
images with Gaussian noise of standard deviation 0.1 of seven spectra, written as NAME_clean.npy,
NAME_KIND_noisy.npy and KIND_psd.npy (full-size PSD, white noise of variance s^2 has PSD == s^2).
Usage: denoise_cases.py OUTDIR [SIZE] [KINDS] [IMAGES]   (comma-separated lists)"""
import os
import sys

import numpy as np
import skimage.color
import skimage.data

out = sys.argv[1]
S = int(sys.argv[2]) if len(sys.argv) > 2 else 128
kinds = (sys.argv[3] if len(sys.argv) > 3 else 'white,box,gauss,hline,pink,ring,narrow').split(',')
names = (sys.argv[4] if len(sys.argv) > 4 else 'camera,astronaut,gravel').split(',')
os.makedirs(out, exist_ok=True)


def grey(name):
    x = np.asarray(getattr(skimage.data, name)())
    if x.ndim == 3:
        x = skimage.color.rgb2gray(x[..., :3])
    x = x.astype(float)
    if x.max() > 1.5:
        x /= 255.0
    r0, c0 = (x.shape[0] - S) // 2, (x.shape[1] - S) // 2
    return x[r0:r0 + S, c0:c0 + S]


u = np.fft.fftfreq(S)[:, None]
v = np.fft.fftfreq(S)[None, :]


def kernel_psd(k):
    K = np.zeros((S, S))
    K[:k.shape[0], :k.shape[1]] = k
    K = np.roll(K, (-(k.shape[0] // 2), -(k.shape[1] // 2)), (0, 1))
    return np.abs(np.fft.fft2(K)) ** 2


def psd(kind):
    f = np.sqrt(u ** 2 + v ** 2)
    r = np.arange(-16, 17)
    R, C = np.meshgrid(r, r, indexing='ij')
    g = np.arange(9) - 4
    P = {
        'white': lambda: np.ones((S, S)),
        'box': lambda: kernel_psd(np.ones((3, 3))),
        'gauss': lambda: kernel_psd(np.exp(-(g[:, None] ** 2 + g[None, :] ** 2) / 2)),
        'hline': lambda: kernel_psd(np.ones((1, 9))),
        'pink': lambda: 1 / np.where(f == 0, 1 / S, f),
        'ring': lambda: np.exp(-((f - 0.25) / 0.05) ** 2),
        'narrow': lambda: kernel_psd(np.cos(2 * np.pi * 0.2 * (R + C)) * np.exp(-(R ** 2 + C ** 2) / 128.0)),
    }[kind]()
    return P / P.mean()


rng = np.random.default_rng(1)
for name in names:
    x = grey(name)
    np.save(f'{out}/{name}_clean.npy', x)
    for kind in kinds:
        P = psd(kind) * 0.1 ** 2
        n = np.real(np.fft.ifft2(np.sqrt(P) * np.fft.fft2(rng.standard_normal((S, S)))))
        np.save(f'{out}/{name}_{kind}_noisy.npy', x + n)
        np.save(f'{out}/{kind}_psd.npy', P)
