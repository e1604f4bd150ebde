"""Denoising large images tile by tile with Dask.

    import dask.array as da, shapewiener.dask
    out = shapewiener.dask.denoise(da.from_zarr(...), sigma=0.05)   # lazy
    out = shapewiener.dask.denoise(numpy_image, chunks=1024, sigma=0.05).compute()

Every output chunk is computed from the same region of the input grown by a
border (the halo) on every side that is not a side of the image. The tile is
denoised as that part of the whole image: values are mapped onto the working
range with the whole image's minimum and maximum (computed once, before the
tiles), a psd noise model stays the whole image's, every pixel gets the
dither of its place in the whole image, and the pixels are visited in the
whole image's order. Without a noise description the noise is estimated
once, on the whole image (computed for it), and every tile gets that
spectrum. Noise with narrow spectral peaks (stripes) is first
removed over the whole image, as shapewiener.denoise does (this needs the
whole image in memory once); the tiles then denoise what is left. The halo
covers everything a kept pixel depends on:
with P passes and largest scale H it is P * 2 * (H - 1) pixels, so 6 for
"fast" (one pass, H = 4) and 36 for "default" (three passes, H = 7). Chunks may be smaller than the halo.
"""

import numpy as np

from ._denoise import denoise as _denoise_image
from ._denoise import remove_noise_peaks
from ._denoise import _noise, check_dtype, check_exact, check_shape, is_int64, stored_as
from ._denoise import threads_count
from ._denoise import warn_if_implausible
from ._noise import estimate_noise
from .errors import Error


def _noise_has_peaks(shape, sigma, kernel, psd, preset):
    from . import _core
    kind, s, k, p = _noise(sigma, kernel, psd, shape)
    return _core.noise_has_peaks(int(shape[0]), int(shape[1]), kind, s, k, p, str(preset))


def tile_halo(preset="default"):
    """The border a tile needs around the pixels it keeps.

    Parameters
    ----------
    preset : {'default', 'fast'}, optional

    Returns
    -------
    halo : int
        P * 2 * (H - 1) pixels for P passes and largest scale H: 6 for
        'fast', 36 for 'default'.

    Raises
    ------
    shapewiener.Error
        An unknown preset.

    Examples
    --------
    >>> import shapewiener.dask
    >>> shapewiener.dask.tile_halo("fast")
    6
    """
    from . import _core
    return _core.tile_halo(str(preset))


def _halo_pixels(halo):
    a = np.asarray(halo) if not isinstance(halo, (str, bytes)) else None
    if (a is None or a.ndim != 0 or a.dtype.kind not in "iu" or int(a) < 0):
        raise Error("shapewiener:halo:outOfRange",
                    f"halo takes a whole number of pixels, 0 or more; got {halo!r}.")
    return int(a)


def _denoise_tile(tile, frame, noise, preset, threads, crop, dtype):
    out = _denoise_image(tile, **noise, preset=preset, threads=threads, _tile=frame, _peaks=False)
    return stored_as(out[crop[0]:crop[1], crop[2]:crop[3]], dtype)


def _denoise_colour_tile(tile, frame, noise, preset, threads, crop, dtype):
    out = _denoise_image(tile, **noise, preset=preset, threads=threads, _tile=frame)
    return stored_as(out[crop[0]:crop[1], crop[2]:crop[3], :], dtype)


def _denoise_whole(image, noise, preset, threads, dtype):
    return stored_as(_denoise_image(image, **noise, preset=preset, threads=threads), dtype)


def _tiled(chunks, rows, cols, halo, tile):
    """The blocks of a tiled image: tile(row slice, column slice, frame
    origin, crop, shape) for every chunk, the chunk with its halo."""
    starts = [np.concatenate([[0], np.cumsum(c)]) for c in chunks]
    blocks = []
    for i in range(len(chunks[0])):
        r0, r1 = int(starts[0][i]), int(starts[0][i + 1])
        tr0, tr1 = max(0, r0 - halo), min(rows, r1 + halo)
        row = []
        for j in range(len(chunks[1])):
            c0, c1 = int(starts[1][j]), int(starts[1][j + 1])
            tc0, tc1 = max(0, c0 - halo), min(cols, c1 + halo)
            row.append(tile(slice(tr0, tr1), slice(tc0, tc1), (rows, cols, tr0, tc0),
                            (r0 - tr0, r1 - tr0, c0 - tc0, c1 - tc0), (r1 - r0, c1 - c0)))
        blocks.append(row)
    return blocks


def _colour_chunks(chunks, channels):
    """Tiles over the two spatial axes only: the channels stay together."""
    if chunks is None or np.ndim(chunks) == 0:
        return (chunks or 1024, chunks or 1024, channels)
    return tuple(chunks)[:2] + (channels,)


def _denoise_colour(array, sigma, kernel, psd, channel_covariance, preset, chunks, threads,
                    halo):
    """denoise for (rows, cols, 3 or 4) arrays: tiles of every channel, the
    rotated channels' value ranges and the noise the whole image's."""
    import dask
    import dask.array as da
    from . import _core
    from ._colour import check_colour_shape, colour_noise
    from ._denoise import _as_matrix, _number

    check_colour_shape(array.shape)
    channels = int(array.shape[2])
    if not isinstance(array, da.Array):
        array = da.from_array(array, chunks=_colour_chunks(chunks, channels))
    else:
        array = array.rechunk(_colour_chunks(chunks or array.chunksize[:2], channels))
    dtype = array.dtype
    if is_int64(dtype) and array.size:
        check_exact(*dask.compute(array.min(), array.max()), "image")
    array = array.astype(np.float64)
    rows, cols = int(array.shape[0]), int(array.shape[1])
    threads = threads_count(threads)
    halo = tile_halo(preset) if halo is None else _halo_pixels(halo)
    noise = {"sigma": sigma, "kernel": kernel, "psd": psd,
             "channel_covariance": channel_covariance}
    if all(v is None for v in noise.values()):
        # No noise given: estimated once, on the whole image.
        noise = estimate_noise(array.compute(), threads=threads).noise
        if not noise:  # nothing to remove, as for the whole image
            return array if dtype.kind not in "iu" else array.astype(dtype)
        noise.update(sigma=None, kernel=None)
    kind, models, covariance = colour_noise(noise["sigma"], noise["kernel"], noise["psd"],
                                            noise["channel_covariance"], (rows, cols), _number,
                                            _as_matrix)
    out_dtype = dtype if dtype.kind in "iu" else np.float64
    if any(_core.noise_has_peaks(rows, cols, *m, str(preset)) for m in models):
        # Narrow noise peaks are removed over the whole image at once: the
        # image is denoised whole, in one task.
        task = dask.delayed(_denoise_whole, pure=True)(array, noise, preset, threads, dtype)
        return da.from_delayed(task, shape=array.shape, dtype=out_dtype).rechunk(array.chunks)
    a = _core.colour_basis(kind, models, covariance, "opponent")
    rotated = [a[k, 0] * array[:, :, 0] + a[k, 1] * array[:, :, 1] + a[k, 2] * array[:, :, 2]
               for k in range(3)]
    found = dask.compute(*[f(x) for x in rotated for f in (da.min, da.max)],
                         array[:, :, :3].min(), array[:, :, :3].max())
    ranges, (low, high) = tuple(float(v) for v in found[:6]), found[6:]
    if not all(np.isfinite(ranges)):
        raise Error("shapewiener:image:notFinite", "the image has a NaN or Inf value.")
    if kind == "correlated":
        spread = np.sqrt(max(covariance[0], covariance[4], covariance[8], 0.0))
        warn_if_implausible(low, high, dtype, "white", spread, None, None)
    elif sigma is not None or kernel is not None or psd is not None:
        warn_if_implausible(low, high, dtype, *models[0])
    noise = {k: (dask.delayed(np.asarray(v, np.float64)) if k == "psd" and v is not None else v)
             for k, v in noise.items()}
    def tile(tr, tc, origin, crop, shape):
        task = dask.delayed(_denoise_colour_tile, pure=True)(
            array[tr, tc, :], origin + ranges, noise, preset, threads, crop, dtype)
        return [da.from_delayed(task, shape=shape + (channels,), dtype=out_dtype)]
    return da.block(_tiled(array.chunks[:2], rows, cols, halo, tile))


def denoise(array, *, sigma=None, kernel=None, psd=None, preset="default", chunks=None,
            threads=1, halo=None, channel_covariance=None):
    """Denoise a large image tile by tile, one Dask task per chunk.

    Gives the bits of ``shapewiener.denoise`` on the whole image. Noise
    levels are in the units of the values as you hold them, as for
    ``shapewiener.denoise``.

    Parameters
    ----------
    array : (M, N), (M, N, 3) or (M, N, 4) dask.array.Array or array_like
        The noisy image: float or integer values (bool, complex and object
        arrays are refused). A colour image is tiled over its two spatial
        axes only: every tile holds all its channels.
    sigma, kernel, psd, preset
        The noise and the preset, as for ``shapewiener.denoise``; `psd` has
        the whole image's shape. Without any of them the noise is estimated
        at once, on the whole image (``shapewiener.estimate_noise``), and
        the tiles give the bits of ``shapewiener.denoise(array)``.
    chunks : int or tuple, optional
        The tiles: a NumPy array is cut into them (default 1024), a Dask
        array rechunked (a colour array's channels stay in one chunk).
    threads : int, optional
        The library's threads inside one task (default 1: Dask runs the
        tasks in parallel).
    halo : int, optional
        Overrides the border of ``tile_halo(preset)``.
    channel_covariance : (3, 3) array_like, optional
        Colour images: noise correlated across the channels, as for
        ``shapewiener.denoise``.

    Returns
    -------
    out : dask.array.Array of `array`'s shape
        Lazy, with the input's chunks; integer input gives the input's type
        (rounded and clipped as by ``shapewiener.denoise``), float input
        float64.

    Warns
    -----
    UserWarning
        The plausibility warning of ``shapewiener.denoise``, once.

    Raises
    ------
    shapewiener.Error
        A rejected argument, raised right away; a NaN or Inf value is found
        when the whole image's minimum and maximum are computed (at once,
        one pass over the data). For noise with narrow spectral peaks the
        global first stage runs at once too, on the whole image.

    Examples
    --------
    >>> import numpy as np, shapewiener.dask
    >>> big = np.random.default_rng(1).random((256, 256))
    >>> out = shapewiener.dask.denoise(big, chunks=128, sigma=0.1, preset="fast")
    >>> out.compute().shape
    (256, 256)
    >>> out = shapewiener.dask.denoise(big, chunks=128, preset="fast")   # noise estimated
    """
    import dask
    import dask.array as da

    if not isinstance(array, da.Array):
        array = np.asarray(array)
    check_dtype(array.dtype, "image")
    if len(array.shape) == 3:
        return _denoise_colour(array, sigma, kernel, psd, channel_covariance, preset, chunks,
                               threads, halo)
    if channel_covariance is not None:
        raise Error("shapewiener:noise:covariance",
                    "channel_covariance is for colour images, of shape (rows, cols, 3 or 4).")
    check_shape(array.shape, "image")
    if not isinstance(array, da.Array):
        array = da.from_array(array, chunks=chunks or 1024)
    elif chunks is not None:
        array = array.rechunk(chunks)
    dtype = array.dtype
    if is_int64(dtype) and array.size:
        check_exact(*dask.compute(array.min(), array.max()), "image")
    array = array.astype(np.float64)
    rows, cols = array.shape
    threads = threads_count(threads)
    halo = tile_halo(preset) if halo is None else _halo_pixels(halo)
    blind = sigma is None and kernel is None and psd is None
    if blind:
        # No noise given: estimated once, on the whole image; every tile
        # gets that spectrum, as the whole-image call uses it.
        psd = estimate_noise(array.compute(), threads=threads).psd
        if not psd.any():  # nothing to remove, as for the whole image
            return array if dtype.kind not in "iu" else array.astype(dtype)
    peaks = _noise_has_peaks(array.shape, sigma, kernel, psd, preset)
    low, high = (float(v) for v in dask.compute(array.min(), array.max()))
    if not (np.isfinite(low) and np.isfinite(high)):
        raise Error("shapewiener:image:notFinite", "the image has a NaN or Inf value.")
    if not blind:
        warn_if_implausible(low, high, dtype, *_noise(sigma, kernel, psd, array.shape))
    if peaks:
        staged = remove_noise_peaks(array.compute(), sigma=sigma, kernel=kernel, psd=psd,
                                    preset=preset)
        if staged is not None and not staged[1].any():  # the peaks were all the noise
            return da.from_array(stored_as(staged[0], dtype), chunks=array.chunks)
        if staged is not None:
            array = da.from_array(staged[0], chunks=array.chunks)
            sigma, kernel, psd = None, None, staged[1]
            low, high = float(staged[0].min()), float(staged[0].max())
    noise = {"sigma": sigma, "kernel": kernel,
             "psd": None if psd is None else dask.delayed(np.asarray(psd, np.float64))}

    def tile(tr, tc, origin, crop, shape):
        task = dask.delayed(_denoise_tile, pure=True)(
            array[tr, tc], origin + (low, high), noise, preset, threads, crop, dtype)
        return da.from_delayed(task, shape=shape,
                               dtype=dtype if dtype.kind in "iu" else np.float64)
    return da.block(_tiled(array.chunks, rows, cols, halo, tile))
