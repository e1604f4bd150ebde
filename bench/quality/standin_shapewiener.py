#!/usr/bin/python3
"""Stand-in for the command line tool, for testing the benchmark harness:

    standin_shapewiener.py denoise IN.npy OUT.npy (--psd P.npy | --sigma S
                           [--kernel K.npy]) [--preset NAME] [--threads N]

It runs the global Fourier Wiener filter (smoothing 4 bins), whatever the
preset; its figures say nothing about shapewiener.
"""
import argparse
import os
import sys

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from cases import kernel_transfer  # noqa: E402
from peers import fourier_wiener  # noqa: E402


def main():
    p = argparse.ArgumentParser()
    p.add_argument("command", choices=["denoise"])
    p.add_argument("src")
    p.add_argument("dst")
    p.add_argument("--psd")
    p.add_argument("--sigma", type=float)
    p.add_argument("--kernel")
    p.add_argument("--preset", default="default")
    p.add_argument("--threads", type=int, default=0)
    a = p.parse_args()
    img = np.load(a.src)
    if a.psd:
        psd = np.load(a.psd)
    elif a.sigma is not None:
        psd = np.full(img.shape, a.sigma ** 2)
        if a.kernel:
            k = np.load(a.kernel)
            psd = a.sigma ** 2 * np.abs(kernel_transfer(k, img.shape)) ** 2 / np.sum(k * k)
    else:
        sys.exit("give --psd, or --sigma [--kernel]")
    if psd.shape != img.shape:
        sys.exit(f"PSD is {psd.shape}, image {img.shape}")
    np.save(a.dst, fourier_wiener(img, psd, 4.0))


if __name__ == "__main__":
    main()
