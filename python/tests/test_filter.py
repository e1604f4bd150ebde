"""The raw filter module from Python: the gateway's errors, the in-place
dither, the shared workload's bits, tiles with a frame, Ctrl-C."""

import _thread
import hashlib
import threading
import time

import numpy as np
import pytest

from conftest import WORKLOADS, load_workload, need, square_call


def dither_steps(m, k):
    return ((m * k - 1 - np.arange(m * k)) % 256).astype(np.float64).reshape(m, k, order="F")


def _set(k, value):
    def change(a):
        a[k] = value(a) if callable(value) else value
        return a
    return change


# What the conversion from Python values decides; the contract's own rules
# (sizes, ranges) are the C++ fault table's (tests/support/faults.cpp).
@pytest.mark.parametrize("change, identifier", [
    (lambda a: a[:15], "nrhs:tooFew"),
    (_set(8, lambda a: a[8].astype(np.float32)), "NoisyImage:notDouble"),
    (_set(8, lambda a: a[8] + 0j), "NoisyImage:complex"),
    (_set(8, lambda a: [a[8]]), "NoisyImage:notDouble"),
    (_set(12, None), "MaxScale:empty"),
    (_set(12, np.float32(2)), "MaxScale:notDouble"),
    (_set(2, lambda a: a[2][0]), "TransformBank:notCell"),
    (_set(2, lambda a: [None] + a[2][1:]), "TransformBank:emptyCell"),
    (_set(3, lambda a: [m.astype(bool) for m in a[3]]), "SectorMaskBank:notUint8"),
    (_set(9, lambda a: a[9].astype(np.int64)), "ProcessingList:notInt32"),
    (_set(1, lambda a: a[1].astype(np.float64)), "DirectionScaleMap:notUint8"),
])
def test_rejected_calls_raise_the_gateways_error_and_touch_nothing(shapewiener, change, identifier):
    args = square_call()
    before = args[8].copy()
    with pytest.raises(shapewiener.Error) as info:
        shapewiener.filter(*change(list(args)))
    assert info.value.identifier == "shapewiener:" + identifier
    assert isinstance(info.value, ValueError) and str(info.value)
    assert np.array_equal(args[8], before)


def test_a_frame_that_does_not_hold_the_image_is_rejected(shapewiener):
    with pytest.raises(shapewiener.Error) as info:
        shapewiener.filter(*square_call(), frame=(8, 6, 1, 0))
    assert info.value.identifier == "shapewiener:frame:invalid"


def test_messages_name_the_argument_as_the_user_counts_it(shapewiener):
    args = square_call()
    args[8] = args[8].astype(np.float32)
    with pytest.raises(shapewiener.Error, match=r"^argument 9 \(NoisyImage\) must be a real double "
                                                r"matrix; got a 8x6 single array\.$"):
        shapewiener.filter(*args)


def test_the_dither_reaches_the_callers_arrays_in_any_memory_order(shapewiener):
    args = square_call()
    original = args[8].copy()
    steps = dither_steps(*original.shape)
    out_f = shapewiener.filter(*args)
    assert np.array_equal(args[8], original + steps * 3e-17)
    assert np.array_equal(args[13], original + (steps + 13) * 3e-17)

    again = square_call()
    again[8] = np.ascontiguousarray(again[8])   # C order: dithered through a copy
    again[13] = again[8]                         # shared with the noisy image
    frozen = square_call()
    frozen[8].flags.writeable = False            # read-only: left alone
    out_c = shapewiener.filter(*again)
    out_ro = shapewiener.filter(*frozen)
    assert np.array_equal(again[8], original + steps * 3e-17)
    assert np.array_equal(frozen[8], original)
    assert out_f.flags.f_contiguous and out_f.dtype == np.float64
    assert out_f.tobytes() == out_c.tobytes() == out_ro.tobytes()


@pytest.fixture(scope="module")
def workload():
    need((WORKLOADS / "adaptive_h7").is_dir(), f"{WORKLOADS}/adaptive_h7")
    return load_workload("adaptive_h7")


@pytest.fixture(scope="module")
def workload_output(shapewiener, workload):
    """The whole call's output, its dithered noisy image and its duration."""
    args = [a.copy(order="F") if isinstance(a, np.ndarray) else a for a in workload]
    start = time.monotonic()
    out = shapewiener.filter(*args, threads=1)
    return out, args[8], time.monotonic() - start


def test_the_adaptive_workload_gives_its_recorded_bits(workload_output):
    expected = (WORKLOADS / "adaptive_h7" / "out.sha256").read_text().split()[0]
    assert hashlib.sha256(workload_output[0].tobytes(order="F")).hexdigest() == expected


def test_a_tile_with_its_frame_gives_the_whole_images_bits_inside(shapewiener, workload,
                                                                  workload_output):
    """The whole call's processing order restricted to a tile plus a border of
    2(H - 1), pixels near the tile's cut sides under keys of their own, and
    the frame's dither: the interior gets the whole call's bits."""
    m = k = 512
    h = int(workload[12])
    halo = 2 * (h - 1)
    r0, r1, c0, c1 = 200, 300, 100, 190
    tr0, tr1, tc0, tc1 = r0 - halo, r1 + halo, c0 - halo, c1 + halo
    tm, tk = tr1 - tr0, tc1 - tc0
    pixels, keys = workload[9][:, 0] - 1, workload[9][:, 1]
    rows, cols = pixels % m, pixels // m
    inside = (rows >= tr0) & (rows < tr1) & (cols >= tc0) & (cols < tc1)
    lr, lc = rows[inside] - tr0, cols[inside] - tc0
    cut = (lr < h - 1) | (lr >= tm - h + 1) | (lc < h - 1) | (lc >= tk - h + 1)
    tile_keys = np.where(cut, -np.arange(cut.size) - 1, keys[inside])
    plist = np.asfortranarray(np.stack([lr + lc * tm + 1, tile_keys]).T.astype(np.int32))
    a = list(workload)
    a[1] = np.asfortranarray(workload[1][tr0:tr1, tc0:tc1, :])
    a[8] = np.asfortranarray(workload[8][tr0:tr1, tc0:tc1])
    a[13] = a[8].copy(order="F")
    a[9] = plist
    tile = shapewiener.filter(*a, frame=(m, k, tr0, tc0))
    whole, whole_dithered, _ = workload_output
    assert tile[halo:-halo, halo:-halo].tobytes() == whole[r0:r1, c0:c1].tobytes()
    assert a[8].tobytes() == np.asfortranarray(whole_dithered[tr0:tr1, tc0:tc1]).tobytes()


def test_ctrl_c_stops_a_long_call(shapewiener, workload, workload_output):
    """Interrupted early, the call ends long before a whole call would."""
    args = [a.copy(order="F") if isinstance(a, np.ndarray) else a for a in workload]
    timer = threading.Timer(0.1 * workload_output[2], _thread.interrupt_main)
    start = time.monotonic()
    timer.start()
    with pytest.raises(KeyboardInterrupt):
        shapewiener.filter(*args, threads=1)
    assert time.monotonic() - start < 0.6 * workload_output[2]
