"""The complete denoiser for NumPy arrays."""

import sys

import numpy as np

from . import _core
from .errors import Error


def _as_matrix(x, what):
    a = np.asarray(x)
    if a.dtype.kind == "c":
        raise Error(f"shapewiener:{what}:complex", f"the {what} must be real; got a complex array.")
    if a.dtype.kind not in "fiub":
        raise Error(f"shapewiener:{what}:notNumeric",
                    f"the {what} must be a numeric array; got dtype {a.dtype}.")
    if a.ndim != 2:
        raise Error(f"shapewiener:{what}:size",
                    f"the {what} must be a 2-D array; got {a.ndim} dimension(s).")
    return a if a.dtype == np.float64 else a.astype(np.float64)


def _noise(sigma, kernel, psd):
    if psd is not None:
        if sigma is not None or kernel is not None:
            raise Error("shapewiener:noise:conflict",
                        "give the noise as sigma, as kernel and sigma, or as psd alone.")
        return "psd", 0.0, None, np.asfortranarray(_as_matrix(psd, "psd"))
    if sigma is None:
        raise Error("shapewiener:noise:missing",
                    "no noise given: pass sigma, kernel and sigma, or psd.")
    k = None if kernel is None else np.asfortranarray(_as_matrix(kernel, "kernel"))
    return ("white" if k is None else "kernel"), float(sigma), k, None


class _ProgressLine:
    """A one-line progress display on stderr."""

    def __init__(self):
        self.shown = -1

    def __call__(self, fraction, phase):
        percent = int(fraction * 100)
        if percent != self.shown:
            self.shown = percent
            sys.stderr.write(f"\rshapewiener: {phase:<8} {percent:3d}%")
            if fraction >= 1.0:
                sys.stderr.write("\n")
            sys.stderr.flush()


def denoise(z, *, sigma=None, kernel=None, psd=None, preset="default", threads=None,
            progress=False, _tile=None, _peaks=True):
    """Denoises a grey-scale image corrupted by white or coloured noise.

    z:       2-D array of any real dtype (float, integer or bool) in any memory
             order; the values are used as given, converted to float64 (an
             8-bit image stays in 0..255: give sigma in those units).
    sigma:   the noise's per-pixel standard deviation (white noise, or with
             ``kernel``: noise = sigma * (kernel * w) / ||kernel|| for standard
             white noise w).
    kernel:  2-D array, the noise's colouring kernel, centred at
             ((rows - 1) // 2, (cols - 1) // 2).
    psd:     the noise's power spectrum, z's size, DC at [0, 0], unshifted,
             scaled so that white noise of variance s**2 has psd == s**2;
             given alone.
    preset:  "fast", "default" or "best".
    threads: worker threads (None: SHAPEWIENER_THREADS or all cores).
    progress: True for a progress line on stderr, or a callable
             f(fraction, phase); returning False from it cancels the call.

    Returns the estimate as a float64 array of z's shape (column-major,
    not clipped). The GIL is released while the library runs; Ctrl-C stops
    the call with KeyboardInterrupt. Raises shapewiener.Error (a ValueError)
    with identifier "shapewiener:<what>:<reason>".
    """
    if not _core.have_denoise:
        raise Error("shapewiener:denoise:unavailable", "this build has no denoiser.")
    image = _as_matrix(z, "image")
    noise, s, k, p = _noise(sigma, kernel, psd)
    callback = _ProgressLine() if progress is True else (progress or None)
    out, _report = _core.denoise(image, noise, s, k, p, str(preset),
                                 0 if threads is None else int(threads), callback, _tile,
                                 bool(_peaks))
    return out


def remove_noise_peaks(z, *, sigma=None, kernel=None, psd=None, preset="default"):
    """The denoiser's global first stage alone: for noise whose spectrum has
    narrow peaks (stripes, moire) returns (image, residual_psd), the image
    with those peaks removed over the whole image and the spectrum of the
    noise left in it; None for any other noise. denoise(z, ...) equals
    denoise(image, psd=residual_psd) without this stage (what the tiles of
    shapewiener.dask get)."""
    image = _as_matrix(z, "image")
    noise, s, k, p = _noise(sigma, kernel, psd)
    return _core.remove_noise_peaks(image, noise, s, k, p, str(preset))
