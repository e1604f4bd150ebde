"""The raw sixteen-argument filter module for NumPy arrays.

The checks here are the ones the MEX gateway makes before the library sees a
call (argument count, classes, complex arrays, empty scalars, cells); the
library then checks the argument contract. Identifiers and messages are the
gateway's.
"""

import numpy as np

from . import _core
from .errors import Error

NAMES = ("ScaleSet", "DirectionScaleMap", "TransformBank", "SectorMaskBank", "Unused5",
         "Unused6", "DftSize", "NoisePsd", "NoisyImage", "ProcessingList", "NoiseLevelFactor",
         "Unused12", "MaxScale", "PilotImage", "WienerVarianceFactor", "CoverageThreshold")
(SCALE_SET, DSM, TRANSFORMS, MASKS, _, _, DFT_SIZE, PSD, NOISY, LIST, NLF, _, MAX_SCALE, PILOT,
 WVF, COVERAGE) = range(16)

_CLASS = {"f8": "double", "f4": "single", "c16": "double", "c8": "single", "b1": "logical",
          "i1": "int8", "u1": "uint8", "i2": "int16", "u2": "uint16", "i4": "int32",
          "u4": "uint32", "i8": "int64", "u8": "uint64"}


def _label(k):
    return f"argument {k + 1} ({NAMES[k]})"


def _as_array(x):
    """The host's view of an argument: None is [] (an empty double), a Python
    number a double scalar, a bool a logical, a string a char array, a list
    or tuple a cell (None: not an array)."""
    if x is None:
        return np.zeros((0, 0))
    if isinstance(x, (list, tuple)):
        return None
    if isinstance(x, str):
        return np.array([x])
    if isinstance(x, (bool, np.bool_)):
        return np.array(x, dtype=bool)
    if isinstance(x, (int, float, complex)):
        return np.array(x, dtype=complex if isinstance(x, complex) else float)
    if isinstance(x, np.ndarray):
        return x
    try:
        return np.asarray(x)
    except Exception:  # noqa: BLE001 - anything else is no array
        return None


def _class_name(x):
    a = _as_array(x)
    if a is None:
        return "cell" if isinstance(x, (list, tuple)) else type(x).__name__
    if a.dtype.kind in "US":
        return "char"
    return _CLASS.get(f"{a.dtype.kind}{a.dtype.itemsize}", a.dtype.name)


def _dims_text(a):
    shape = a.shape if a is not None else ()
    if len(shape) == 0:
        shape = (1, 1)
    elif len(shape) == 1:
        shape = (shape[0], 1)
    return "x".join(str(n) for n in shape)


def _check_numeric(k, x, label, expected, expectation):
    a = _as_array(x)
    cls = _class_name(x)
    if cls != expected or a is None:
        reason = {"double": "notDouble", "uint8": "notUint8", "int32": "notInt32"}[expected]
        what = f"a {cls} array" if a is None else f"a {_dims_text(a)} {cls} array"
        raise Error(f"shapewiener:{NAMES[k]}:{reason}", f"{label} must be {expectation}; got {what}.")
    if a.dtype.kind == "c":
        raise Error(f"shapewiener:{NAMES[k]}:complex",
                    f"{label} must be real; got a complex {expected} array.")
    return a


def _cells(x):
    if isinstance(x, (list, tuple)):
        return list(x)
    if isinstance(x, np.ndarray) and x.dtype == object:
        return list(x.ravel(order="F"))
    return None


def _fortran(a, dtype):
    a = np.asarray(a, dtype=dtype)
    return a if a.flags.f_contiguous else np.asfortranarray(a)


def _round_to_unsigned(x):
    v = x + 0.5
    if v != v:
        return 2 ** 31
    if not v > 0.0:
        return 0
    if v >= 4294967295.0:
        return 4294967295
    return int(v)


def check_host(args):
    """The gateway's own checks; returns the arguments as arrays."""
    if len(args) < 16:
        raise Error("shapewiener:nrhs:tooFew",
                    f"expected at least 16 input arguments; got {len(args)}.")
    a = list(args[:16])
    for k in (NOISY, PILOT):
        a[k] = _check_numeric(k, a[k], _label(k), "double", "a real double matrix")
    for k in (MAX_SCALE, DFT_SIZE, NLF, WVF, COVERAGE):
        a[k] = _check_numeric(k, a[k], _label(k), "double", "a real double scalar")
        if a[k].size == 0:
            raise Error(f"shapewiener:{NAMES[k]}:empty",
                        f"{_label(k)} must be a real double scalar; got an empty array.")
    for k in (SCALE_SET, PSD):
        a[k] = _check_numeric(k, a[k], _label(k), "double",
                              "a real double vector" if k == SCALE_SET else "a real double matrix")

    h_value = float(a[MAX_SCALE].ravel(order="F")[0])
    h = _round_to_unsigned(h_value) if h_value == h_value and h_value < 1e300 else 0
    w = 2 * h - 1 if h >= 1 else 0
    for k in (TRANSFORMS, MASKS):
        cells = _cells(a[k])
        if cells is None:
            raise Error(f"shapewiener:{NAMES[k]}:notCell",
                        f"{_label(k)} must be a cell array; got a {_class_name(a[k])} array.")
        masks = k == MASKS
        if not masks:
            read = w if w <= len(cells) else 0
        else:
            read = len(cells) if 1 <= h < (1 << 20) and len(cells) == 8 * h * h else 0
        for c in range(read):
            label = f"argument {k + 1} ({NAMES[k]}), cell {c + 1},"
            if cells[c] is None:
                what = f"a {w}x{w} uint8 mask" if masks else f"a {c + 1}x{c + 1} real double matrix"
                raise Error(f"shapewiener:{NAMES[k]}:emptyCell", f"{label} must hold {what}; it is unset.")
            cells[c] = (_check_numeric(k, cells[c], label, "uint8", "a uint8 mask") if masks else
                        _check_numeric(k, cells[c], label, "double", "a real double matrix"))
        a[k] = cells
    a[LIST] = _check_numeric(LIST, a[LIST], _label(LIST), "int32", "an int32 matrix")
    a[DSM] = _check_numeric(DSM, a[DSM], _label(DSM), "uint8", "a uint8 array")
    return a


def filter(*args, threads=None, frame=None):  # noqa: A001 - the module's name
    """Run the raw sixteen-argument filter module.

    ``out = filter(ScaleSet, DirectionScaleMap, TransformBank, SectorMaskBank,
    _, _, DftSize, NoisePsd, NoisyImage, ProcessingList, NoiseLevelFactor, _,
    MaxScale, PilotImage, WienerVarianceFactor, CoverageThreshold)``: the MEX
    function ``shapewiener`` of Octave and MATLAB for NumPy arrays, with the
    gateway's checks, identifiers and messages (``help shapewiener`` in
    Octave documents the arguments).

    Parameters
    ----------
    *args
        The sixteen arguments: float64 arrays for the double ones, uint8 for
        DirectionScaleMap and the masks, int32 for ProcessingList, Python
        lists for the two cell arrays (SectorMaskBank in column-major cell
        order, or an object array of shape (H, H, 8)); Python numbers pass
        as double scalars and None as an empty array. Element (i, j) of an
        array is element (i, j) of the matrix whatever its memory order;
        1-D arrays are column vectors. Values are used as given.
    threads : int, optional
        Worker threads (None: ``SHAPEWIENER_THREADS`` or all cores); the
        result's bits do not depend on it.
    frame : tuple of int, optional
        ``(rows, cols, row0, col0)``: dither the image as the window at
        (row0, col0) of a rows x cols image (tiled processing).

    Returns
    -------
    out : (M, K) ndarray
        float64, column-major.

    Raises
    ------
    shapewiener.Error
        A rejected argument, with the gateway's identifier and message.
    KeyboardInterrupt
        Ctrl-C during the call.

    Notes
    -----
    Like the MEX function, the call dithers NoisyImage and PilotImage in
    place: a writable float64 array passed for either holds the tiny dither
    afterwards (at most 268 * 3e-17 per pixel), whatever its memory order.
    Read-only arrays are left alone. When the two images share memory, the
    pilot is dithered in a private copy.
    """
    a = check_host(args)
    noisy_in, pilot_in = a[NOISY], a[PILOT]
    noisy = _fortran(noisy_in, np.float64)
    if noisy is noisy_in and not noisy.flags.writeable:
        noisy = noisy.copy(order="F")
    pilot = _fortran(pilot_in, np.float64)
    shared = np.may_share_memory(noisy, pilot) or np.may_share_memory(noisy_in, pilot_in)
    if (pilot is pilot_in and not pilot.flags.writeable) or shared:
        pilot = pilot.copy(order="F")
    transforms = [None if t is None else _fortran(t, np.float64) for t in a[TRANSFORMS]]
    masks = [None if m is None else _fortran(m, np.uint8) for m in a[MASKS]]
    scalar = lambda k: float(a[k].ravel(order="F")[0].real)  # noqa: E731
    out = _core.filter(_fortran(a[SCALE_SET], np.float64), _fortran(a[DSM], np.uint8),
                       transforms, masks, scalar(DFT_SIZE), _fortran(a[PSD], np.float64), noisy,
                       _fortran(a[LIST], np.int32), scalar(NLF), scalar(MAX_SCALE), pilot,
                       scalar(WVF), scalar(COVERAGE), None if frame is None else tuple(frame),
                       0 if threads is None else int(threads))
    # The dither reaches the caller's arrays whatever their memory order.
    for given, used in ((noisy_in, noisy),) + (() if shared else ((pilot_in, pilot),)):
        if given is not used and isinstance(given, np.ndarray) and given.flags.writeable \
                and not np.may_share_memory(used, given) and given.shape == used.shape:
            given[...] = used
    return out
