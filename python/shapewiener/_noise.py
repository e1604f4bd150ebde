"""The noise estimated from the image itself."""

import numpy as np

from . import _core


class NoiseEstimate:
    """The noise of an image, estimated from the image itself.

    Attributes
    ----------
    sigma : float
        The per-pixel standard deviation, in the units of the image's
        values (``sqrt(psd.mean())``).
    psd : (M, N) ndarray
        The power spectrum, of the image's shape, DC at ``[0, 0]``,
        unshifted, in the convention of ``denoise(z, psd=...)``.
    usable_fraction : float
        The share of the image that looked like noise alone: near 1 for
        pure noise, small for an image with few flat parts (then texture
        may have been read as noise).
    white : bool
        Whether the spectrum is flat within its sampling error.
    block : int
        The side of the square blocks the spectrum was read from; its
        resolution is about ``1 / block`` cycles per pixel.
    """

    __slots__ = ("sigma", "psd", "usable_fraction", "white", "block")

    def __init__(self, sigma, psd, usable_fraction, white, block):
        self.sigma = float(sigma)
        self.psd = psd
        self.usable_fraction = float(usable_fraction)
        self.white = bool(white)
        self.block = int(block)

    def __repr__(self):
        rows, cols = self.psd.shape
        kind = "white" if self.white else "coloured"
        return (f"NoiseEstimate(sigma={self.sigma:.6g}, {kind}, "
                f"usable_fraction={self.usable_fraction:.2f}, psd={rows} x {cols})")


def _estimate(result):
    return NoiseEstimate(**result)


class ColourNoiseEstimate:
    """The noise of a colour image, estimated from the image itself: one
    spatial shape times a channel covariance.

    Attributes
    ----------
    shape : (M, N) ndarray
        The noise's spatial power spectrum, mean 1, in the convention of
        ``denoise(z, psd=...)``.
    covariance : (3, 3) ndarray
        The per-pixel covariance of R, G and B's noise, in the values'
        units squared: channels i and j have the cross-spectrum
        ``covariance[i, j] * shape``.
    sigma : (3,) ndarray
        The channels' per-pixel standard deviations.
    psd : (M, N, 3) ndarray
        The channels' spectra, in the shape ``denoise(z, psd=...)`` takes
        for a spectrum per channel.
    usable_fraction : float
        The smallest share of the image that looked like noise alone, over
        the channels read.
    white : bool
        Whether the noise's spectrum is flat within its sampling error.
    noise : dict
        The noise description ``denoise(z)`` uses when none is given:
        ``denoise(z)`` equals ``denoise(z, **estimate.noise)``; empty when
        no noise was found (then ``denoise(z)`` returns `z`'s values).
    """

    __slots__ = ("shape", "covariance", "usable_fraction", "white", "noise")

    def __init__(self, shape, covariance, usable_fraction, white, noise):
        self.shape = shape
        self.covariance = np.asarray(covariance)
        self.usable_fraction = float(usable_fraction)
        self.white = bool(white)
        kind, psd, cov = noise
        self.noise = {} if kind is None else {"psd": psd, "channel_covariance": cov}

    @property
    def sigma(self):
        return np.sqrt(np.diag(self.covariance))

    @property
    def psd(self):
        return self.shape[:, :, None] * np.diag(self.covariance)

    def __repr__(self):
        rows, cols = self.shape.shape
        kind = "white" if self.white else "coloured"
        sigmas = ", ".join(f"{s:.6g}" for s in self.sigma)
        return (f"ColourNoiseEstimate(sigma=[{sigmas}], {kind}, "
                f"usable_fraction={self.usable_fraction:.2f}, psd={rows} x {cols} x 3)")


def estimate_noise(z, *, threads=None, progress=False):
    """Estimate an image's noise: its level and its power spectrum.

    The noise is taken to be stationary (one spectrum for the whole image),
    white or coloured. ``denoise(z)`` without a noise description uses this
    estimate: it equals ``denoise(z, psd=estimate_noise(z).psd)``.

    Parameters
    ----------
    z : (M, N), (M, N, 3) or (M, N, 4) array_like
        The noisy image, at least 16 x 16: float or integer values, used as
        stored (an 8-bit image's noise comes out in grey levels 0..255).
        bool, complex and object arrays are refused. A colour image (its
        alpha channel ignored) gives a `ColourNoiseEstimate`.
    threads : int, optional
        Worker threads, 0 to 4096; None or 0 takes ``SHAPEWIENER_THREADS``
        or all cores. The result's bits do not depend on it.
    progress : bool or callable, optional
        As for `denoise` (the phase is ``"noise estimate"``).

    Returns
    -------
    estimate : NoiseEstimate or ColourNoiseEstimate
        ``sigma``, ``psd`` (float64, `z`'s shape), ``usable_fraction``,
        ``white`` and ``block``; for a colour image each channel's and the
        channel covariance, with ``denoise(z) == denoise(z, **estimate.noise)``.

    Raises
    ------
    shapewiener.Error
        A rejected image (``shapewiener:image:tooSmall`` below 16 x 16,
        ``notFinite``, ...) or a cancelled call.
    KeyboardInterrupt
        Ctrl-C during the call.

    Examples
    --------
    >>> import numpy as np, shapewiener
    >>> z = 0.5 + 0.1 * np.random.default_rng(0).standard_normal((128, 128))
    >>> e = shapewiener.estimate_noise(z)
    >>> round(e.sigma, 1), e.white, e.psd.shape
    (0.1, True, (128, 128))
    """
    from ._denoise import _as_matrix, _ProgressLine, check_dtype, check_shape, threads_count
    a = np.asarray(z)
    check_dtype(a.dtype, "image")
    count = threads_count(threads)
    callback = _ProgressLine() if progress is True else (progress or None)
    if a.ndim == 3:
        from ._colour import check_colour_shape
        check_colour_shape(a.shape)
        found = _core.estimate_colour_noise(a.astype(np.float64, copy=False), count, callback)
        return ColourNoiseEstimate(**found)
    check_shape(a.shape, "image")
    image = _as_matrix(a, "image")
    return _estimate(_core.estimate_noise(image, count, callback))
