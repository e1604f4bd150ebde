"""Colour images for shapewiener.denoise: (rows, cols, 3) and (rows, cols, 4)."""

import numpy as np

from . import _core
from .errors import Error


def check_colour_shape(shape):
    """(rows, cols, 3) or (rows, cols, 4), within the pixel limit."""
    if len(shape) != 3 or shape[2] not in (3, 4):
        raise Error("shapewiener:image:channels",
                    f"a colour image has shape (rows, cols, 3) or (rows, cols, 4) (RGB, RGB and "
                    f"alpha); got {tuple(int(n) for n in shape)}.")
    if int(shape[0]) * int(shape[1]) > 2**31 - 1:
        raise Error("shapewiener:image:tooLarge",
                    f"the image has {int(shape[0])} x {int(shape[1])} pixels; the limit is 2^31 - 1.")


def _model(sigma, kernel, psd, number, matrix, plane):
    if psd is not None:
        p = matrix(psd, "psd")
        if tuple(p.shape) != tuple(plane):
            raise Error("shapewiener:noise:psdSize",
                        f"the power spectrum must have the image's shape, {plane[0]} x {plane[1]} "
                        f"(or {plane[0]} x {plane[1]} x 3, one per channel); got "
                        f"{' x '.join(str(n) for n in p.shape)}.")
        return ("psd", 0.0, None, np.asfortranarray(p))
    k = None if kernel is None else np.asfortranarray(matrix(kernel, "kernel"))
    return ("white" if k is None else "kernel", number(sigma, "sigma"), k, None)


def colour_noise(sigma, kernel, psd, channel_covariance, plane, number, matrix):
    """The noise arguments of a colour call as (kind, models, covariance):
    the same noise in every channel; per channel (three sigmas, or a psd of
    shape (rows, cols, 3)); or correlated across channels."""
    if channel_covariance is not None:
        if sigma is not None:
            raise Error("shapewiener:noise:conflict",
                        "with channel_covariance the noise levels are the covariance's; give no "
                        "sigma (a kernel or psd gives the noise's spatial shape).")
        if kernel is not None and psd is not None:
            raise Error("shapewiener:noise:conflict", "give a kernel or a psd, not both.")
        c = np.asarray(channel_covariance)
        if c.dtype.kind not in "fiu" or c.shape != (3, 3):
            raise Error("shapewiener:noise:covariance",
                        f"channel_covariance must be a real 3 x 3 array; got shape {c.shape} "
                        f"of {c.dtype}.")
        model = _model(1.0, kernel, psd, number, matrix, plane)
        return "correlated", [model], [float(x) for x in c.astype(np.float64).ravel()]
    if psd is not None and sigma is None and kernel is None and np.ndim(psd) == 3:
        p = np.asarray(psd)
        if p.shape != tuple(plane) + (3,):
            raise Error("shapewiener:noise:psdSize",
                        f"a power spectrum per channel has shape ({plane[0]}, {plane[1]}, 3); got "
                        f"{p.shape}.")
        return "per_channel", [_model(None, None, p[:, :, k], number, matrix, plane)
                               for k in range(3)], None
    if psd is not None and (sigma is not None or kernel is not None):
        raise Error("shapewiener:noise:conflict",
                    "give the noise as sigma, as kernel and sigma, or as psd alone.")
    if psd is None and sigma is None:
        if kernel is not None:
            raise Error("shapewiener:noise:missing",
                        "a kernel needs sigma (or channel_covariance).")
        return "estimated", [], None
    if sigma is not None and np.ndim(sigma) == 1:
        s = np.asarray(sigma)
        if s.shape != (3,):
            raise Error("shapewiener:noise:channels",
                        f"sigma per channel takes 3 values; got {s.shape[0]}.")
        return "per_channel", [_model(x, kernel, None, number, matrix, plane) for x in s], None
    return "same", [_model(sigma, kernel, psd, number, matrix, plane)], None


def denoise_colour(a, *, sigma, kernel, psd, channel_covariance, preset, threads, callback,
                   number, matrix, warn, basis="opponent", joint=True, tile=None):
    """shapewiener.denoise for an array of shape (rows, cols, 3 or 4);
    `tile`: None, or (frame rows, frame cols, row0, col0) and the frame's
    six channel ranges (``_core.colour_ranges``), the noise the frame's."""
    check_colour_shape(a.shape)
    refusal = _core.size_refusal(a.shape[0], a.shape[1],
                                 _core.denoise_bytes_per_pixel(str(preset)) + 16 * a.shape[2])
    if refusal:
        raise Error("shapewiener:image:tooLarge", f"the image has {refusal}.")
    image = a if a.dtype == np.float64 else a.astype(np.float64)
    kind, models, covariance = colour_noise(sigma, kernel, psd, channel_covariance,
                                            a.shape[:2] if tile is None else tile[:2], number,
                                            matrix)
    colours = image[:, :, :3]
    if kind == "estimated" or tile is not None:
        pass
    elif kind == "correlated":
        spread = np.sqrt(max(covariance[0], covariance[4], covariance[8], 0.0))
        warn(colours.min(), colours.max(), a.dtype, "white", spread, None, None, stacklevel=4)
    else:
        warn(colours.min(), colours.max(), a.dtype, *models[0], stacklevel=4)
    out, _report = _core.denoise_colour(image, kind, models, covariance, str(preset), threads,
                                        callback, basis, bool(joint), tile)
    return out
