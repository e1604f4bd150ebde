"""The complete denoiser for NumPy arrays."""

import sys
import warnings

import numpy as np

from . import _colour, _core
from .errors import Error

# The library's pixel limit (its pixel indices are 32-bit signed).
MAX_PIXELS = 2**31 - 1


def check_dtype(dtype, what):
    """Refuses every dtype that is not a real number: complex values would
    lose their imaginary part and bool or object arrays hold no image."""
    dtype = np.dtype(dtype)
    if dtype.kind == "c":
        raise Error(f"shapewiener:{what}:complex",
                    f"the {what} must be real; got a complex array ({dtype}).")
    if dtype.kind not in "fiu":
        hint = " (convert a mask with .astype(float) first)" if dtype.kind == "b" else ""
        raise Error(f"shapewiener:{what}:notNumeric",
                    f"the {what} must be an array of real numbers; got dtype {dtype}{hint}.")


def check_shape(shape, what):
    """A 2-D shape within the library's pixel limit, checked before any copy."""
    if len(shape) != 2:
        raise Error(f"shapewiener:{what}:size",
                    f"the {what} must be a 2-D array; got {len(shape)} dimension(s).")
    if int(shape[0]) * int(shape[1]) > MAX_PIXELS:
        raise Error(f"shapewiener:{what}:tooLarge",
                    f"the {what} has {int(shape[0])} x {int(shape[1])} values; the limit is "
                    f"2^31 - 1.")


def is_int64(dtype):
    """Integers that a double does not always hold exactly."""
    dtype = np.dtype(dtype)
    return dtype.kind in "iu" and dtype.itemsize >= 8


def check_exact(low, high, what):
    """Refuses 64-bit integers beyond 2^53, which a double cannot hold
    exactly (their last digits would be lost); `low` and `high` are the
    array's smallest and largest value."""
    for v in (int(low), int(high)):
        if abs(v) > 2**53:
            sign = "-" if v < 0 else ""
            raise Error(f"shapewiener:{what}:inexact",
                        f"the {what} holds the 64-bit integer {v}, beyond {sign}2^53 = "
                        f"{sign}{2**53}: a double cannot hold it exactly; convert the values "
                        f"to floating point first.")


def _as_matrix(x, what):
    a = np.asarray(x)  # no copy for an array
    check_dtype(a.dtype, what)
    check_shape(a.shape, what)
    if is_int64(a.dtype) and a.size:
        check_exact(a.min(), a.max(), what)
    return a if a.dtype == np.float64 else a.astype(np.float64)


def type_name(dtype):
    """How the library names the way values are stored: integer dtypes by
    their name, float32 as it is, every other float as float64."""
    dtype = np.dtype(dtype)
    if dtype.kind in "iu":
        return dtype.name
    return "float32" if dtype == np.float32 else "float64"


def stored_as(values, dtype):
    """The estimate in the input's type: integers rounded (halves to even)
    and clipped to the type's range by the library's own rule, the one the
    command line writes files with; float input gets float64."""
    dtype = np.dtype(dtype)
    if dtype.kind not in "iu":
        return values
    return _core.to_type(values, dtype.name).astype(dtype)


def warn_if_implausible(low, high, dtype, noise, s, k, p, stacklevel=3):
    """The library's plausibility guard: a UserWarning when the noise level
    cannot be meant for values from low to high stored as dtype."""
    text = _core.noise_warning(float(low), float(high), type_name(dtype), noise, s, k, p)
    if text:
        warnings.warn(text, UserWarning, stacklevel=stacklevel)
    return text


def _number(value, name):
    a = np.asarray(value) if not isinstance(value, (str, bytes)) else None
    if a is None or a.ndim != 0 or a.dtype.kind not in "fiu":
        raise Error(f"shapewiener:{name}:notScalar",
                    f"{name} must be a real number; got {value!r}.")
    return float(a)


def threads_count(threads):
    """None or a whole number from 0 to 4096, as the library's thread count."""
    if threads is None:
        return 0
    a = np.asarray(threads) if not isinstance(threads, (str, bytes)) else None
    if (a is None or a.ndim != 0 or a.dtype.kind not in "fiu"
            or not (0 <= float(a) <= 4096) or float(a) != int(float(a))):
        raise Error("shapewiener:threads:outOfRange",
                    f"threads takes a whole number from 0 (all cores) to 4096; got {threads!r}.")
    return int(float(a))


def _noise(sigma, kernel, psd, shape=None):
    """The noise arguments checked and converted; a psd must have the
    image's shape (when given), not just its number of values."""
    if psd is not None:
        if sigma is not None or kernel is not None:
            raise Error("shapewiener:noise:conflict",
                        "give the noise as sigma, as kernel and sigma, or as psd alone.")
        p = _as_matrix(psd, "psd")
        if shape is not None and tuple(p.shape) != tuple(shape):
            raise Error("shapewiener:noise:psdSize",
                        f"the power spectrum must have the image's shape, {shape[0]} x "
                        f"{shape[1]}; got {p.shape[0]} x {p.shape[1]}.")
        return "psd", 0.0, None, np.asfortranarray(p)
    if sigma is None:
        raise Error("shapewiener:noise:missing",
                    "a kernel needs sigma (give no noise at all to have it estimated).")
    s = _number(sigma, "sigma")
    k = None if kernel is None else np.asfortranarray(_as_matrix(kernel, "kernel"))
    return ("white" if k is None else "kernel"), s, k, None


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
            progress=False, channel_covariance=None, _tile=None, _peaks=True,
            _with_estimate=False):
    """Denoise a grey-scale or colour image corrupted by white or coloured noise.

    Without `sigma`, `kernel` or `psd` the noise is estimated from the
    image itself (``estimate_noise``): ``denoise(z)`` equals
    ``denoise(z, psd=estimate_noise(z).psd)``, bit for bit (an image whose
    estimate is all zero, a constant one, comes back unchanged); for a
    colour image ``denoise(z, **estimate_noise(z).noise)``.

    Noise levels are in the units of the values as you hold them: an
    8-bit image's noise in grey levels 0..255, a 16-bit image's in
    0..65535, a float image's in its own units.

    Parameters
    ----------
    z : (M, N) array_like
        The noisy image: float or integer (signed or unsigned) values, any
        memory order. Integer values are used as stored, not rescaled.
        bool, complex and object arrays are refused. Without a noise
        description it must be at least 16 x 16. A colour image (RGB, or
        RGB and alpha) is denoised as a whole: the shapes are chosen once
        on its luminance and the noise is followed through the colour
        transform; the alpha channel comes back untouched.
    sigma : float or sequence of 3 floats, optional
        The noise's per-pixel standard deviation: white noise, or with
        `kernel`, noise ``sigma * (kernel * w) / ||kernel||`` for standard
        white noise ``w``. On a colour image one value means the same
        noise, independently, in every channel; three values give each
        channel its own.
    kernel : (P, Q) array_like, optional
        The noise's colouring kernel, centred at ``((P - 1) // 2, (Q - 1) // 2)``;
        given with `sigma`.
    psd : (M, N) array_like, optional
        The noise's power spectrum, of `z`'s shape, DC at ``[0, 0]``,
        unshifted, scaled so that white noise of variance ``s**2`` has
        ``psd == s**2``; given alone. On a colour image (M, N) for every
        channel or (M, N, 3), one per channel.
    preset : {'default', 'fast'}, optional
        'fast' runs one pass on fixed squares; 'default' chooses adaptive
        neighbourhoods and runs three passes.
    threads : int, optional
        Worker threads, 0 to 4096; None or 0 takes ``SHAPEWIENER_THREADS``
        or all cores. The result's bits do not depend on it.
    progress : bool or callable, optional
        True prints a progress line on stderr; a callable
        ``f(fraction, phase)`` is called instead, and returning False from
        it cancels the call. A call without a noise description starts
        with the phase ``"noise estimate"``.
    channel_covariance : (3, 3) array_like, optional
        Colour images only: noise correlated across the channels, with
        this per-pixel covariance (symmetric, positive semi-definite, in
        the values' units squared); its spatial shape is white, or that of
        `kernel` or `psd` (whose scale is then ignored). No `sigma`.

    Returns
    -------
    out : ndarray of `z`'s shape
        The estimate in `z`'s type: for integer `z` rounded (halves to
        even) and clipped to the type's range, by the rule the
        ``shapewiener`` program writes integer files with, so the same
        uint8 array and sigma give that program's bits; for float `z`
        float64 in Fortran order, not clipped.

    Warns
    -----
    UserWarning
        When the noise level cannot be meant for these values: larger than
        their range, below 1e-4 of it, or below 1 on a uint8 image (a
        sigma given for values scaled to [0, 1]). The call still runs.

    Raises
    ------
    shapewiener.Error
        A rejected argument or a cancelled call; a ``ValueError`` whose
        ``identifier`` is ``"shapewiener:<what>:<reason>"``.
    KeyboardInterrupt
        Ctrl-C during the call (the GIL is released while it runs).

    Examples
    --------
    >>> import numpy as np, shapewiener
    >>> rng = np.random.default_rng(0)
    >>> noisy = 0.5 + 0.1 * rng.standard_normal((64, 64))
    >>> out = shapewiener.denoise(noisy, preset="fast")       # the noise estimated
    >>> bool(out.std() < noisy.std())
    True
    >>> out = shapewiener.denoise(noisy, sigma=0.1, preset="fast")
    >>> bool(out.std() < noisy.std())
    True

    An 8-bit image, its noise in grey levels:

    >>> z8 = np.clip(128 + 25 * rng.standard_normal((64, 64)), 0, 255).astype(np.uint8)
    >>> shapewiener.denoise(z8, sigma=25, preset="fast").dtype
    dtype('uint8')

    A colour image, its noise correlated across the channels:

    >>> rgb = np.clip(128 + 20 * rng.standard_normal((32, 32, 3)), 0, 255)
    >>> c = [[400, 200, 100], [200, 400, 200], [100, 200, 400]]
    >>> shapewiener.denoise(rgb, channel_covariance=c, preset="fast").shape
    (32, 32, 3)
    """
    a = np.asarray(z)  # no copy for an array
    check_dtype(a.dtype, "image")
    if a.ndim == 3:
        callback = _ProgressLine() if progress is True else (progress or None)
        blind = all(v is None for v in (sigma, kernel, psd, channel_covariance))
        if blind and _with_estimate:  # the batch reports what was estimated
            from ._noise import estimate_noise
            found = estimate_noise(a, threads=threads)
            if not found.noise:
                return stored_as(a.astype(np.float64), a.dtype), found
            out = _colour.denoise_colour(a, **found.noise, sigma=None, kernel=None,
                                         preset=preset, threads=threads_count(threads),
                                         callback=callback, number=_number, matrix=_as_matrix,
                                         warn=lambda *args, **kwargs: None)
            return stored_as(out, a.dtype), found
        out = _colour.denoise_colour(a, sigma=sigma, kernel=kernel, psd=psd,
                                     channel_covariance=channel_covariance, preset=preset,
                                     threads=threads_count(threads), callback=callback,
                                     number=_number, matrix=_as_matrix, warn=warn_if_implausible,
                                     tile=_tile)
        return stored_as(out, a.dtype)
    if channel_covariance is not None:
        raise Error("shapewiener:noise:covariance",
                    "channel_covariance is for colour images, of shape (rows, cols, 3 or 4).")
    check_shape(a.shape, "image")
    refusal = _core.size_refusal(a.shape[0], a.shape[1], _core.denoise_bytes_per_pixel(str(preset)))
    if refusal:
        raise Error("shapewiener:image:tooLarge", f"the image has {refusal}.")
    dtype = a.dtype
    image = _as_matrix(a, "image")
    count = threads_count(threads)
    callback = _ProgressLine() if progress is True else (progress or None)
    if sigma is None and kernel is None and psd is None and _tile is None:
        # No noise given: estimated from the image, then denoised with it.
        out, _report, found = _core.denoise_blind(image, str(preset), count, callback,
                                                  bool(_peaks))
        if _with_estimate:  # the batch reports what was estimated
            from ._noise import NoiseEstimate
            return stored_as(out, dtype), NoiseEstimate(**found)
        return stored_as(out, dtype)
    noise, s, k, p = _noise(sigma, kernel, psd, None if _tile is not None else image.shape)
    if _tile is None:
        warn_if_implausible(image.min(), image.max(), dtype, noise, s, k, p)
    out, _report = _core.denoise(image, noise, s, k, p, str(preset), count, callback, _tile,
                                 bool(_peaks))
    return stored_as(out, dtype)


def remove_noise_peaks(z, *, sigma=None, kernel=None, psd=None, preset="default"):
    """Remove noise with narrow spectral peaks over the whole image.

    The denoiser's global first stage alone, for noise whose spectrum has
    narrow peaks (stripes, moire): ``denoise(z, ...)`` equals
    ``denoise(image, psd=residual_psd)`` without this stage, which is what
    the tiles of ``shapewiener.dask`` get.

    Parameters
    ----------
    z : (M, N) array_like
        The noisy image, as for `denoise`.
    sigma, kernel, psd, preset
        As for `denoise`, in the units of `z`'s values.

    Returns
    -------
    result : tuple of ndarray or None
        ``(image, residual_psd)``: the image with the peaks removed and the
        power spectrum of the noise left in it, both float64 of `z`'s
        shape; None when the noise has no narrow peaks. When the peaks
        held all the noise, ``residual_psd`` is all zero and ``image`` is
        the denoised image.

    Raises
    ------
    shapewiener.Error
        A rejected argument.

    Examples
    --------
    >>> import numpy as np, shapewiener
    >>> noisy = np.random.default_rng(0).random((32, 32))
    >>> shapewiener.remove_noise_peaks(noisy, sigma=0.1) is None
    True
    """
    image = _as_matrix(z, "image")
    noise, s, k, p = _noise(sigma, kernel, psd, image.shape)
    return _core.remove_noise_peaks(image, noise, s, k, p, str(preset))
