"""Colour arrays through shapewiener.denoise: every layout and dtype gives
the same bits, alpha passes through, and the noise forms agree where they
describe the same noise."""

import numpy as np
import pytest

from test_denoise import sample_image


def colour_image(channels=3):
    z = sample_image()
    planes = [z, z[::-1], 255 - z, np.full_like(z, 200.0)]
    return np.stack(planes[:channels], axis=2)


def test_layouts_and_dtypes_give_the_same_bits(denoiser):
    """(rows, cols, channels) in any memory order and integer dtype: the
    values as stored, integer results rounded in the input's type, the
    alpha plane bit for bit."""
    rgba = colour_image(4)
    expected = denoiser.denoise(rgba, sigma=12.0, preset="fast")
    assert expected.shape == rgba.shape and expected.dtype == np.float64
    assert np.array_equal(expected[:, :, 3], rgba[:, :, 3])
    wide = np.zeros((48, 40, 4))
    wide[::2, ::2] = rgba
    rounded = np.clip(np.rint(expected), 0, 255)
    for variant, wanted in ((np.asfortranarray(rgba), expected), (wide[::2, ::2], expected),
                            (np.moveaxis(np.moveaxis(rgba, 2, 0).copy(), 0, 2), expected),
                            (rgba.astype(np.uint8), rounded.astype(np.uint8))):
        out = denoiser.denoise(variant, sigma=12.0, preset="fast")
        assert out.dtype == wanted.dtype
        assert np.array_equal(out, wanted), variant.strides


def test_noise_forms_that_describe_the_same_noise_agree(denoiser):
    """One sigma, three equal sigmas, a covariance sigma^2 I and a flat psd
    per channel are the same white noise: the same bits."""
    rgb = colour_image()
    expected = denoiser.denoise(rgb, sigma=12.0)
    for noise in (dict(sigma=[12.0, 12.0, 12.0]), dict(channel_covariance=144.0 * np.eye(3)),
                  dict(psd=np.full(rgb.shape, 144.0))):
        out = denoiser.denoise(rgb, **noise)
        assert np.max(np.abs(out - expected)) < 1e-9, noise


def _octave(build):
    import shutil
    octave = shutil.which("octave-cli") or shutil.which("octave")
    found = octave and (build / "octave" / "shapewiener_denoise.mex").exists()
    return octave if found else None


# One noise description in each front end's words: Python's keyword
# arguments, the program's options (files written by the test), Octave's.
K = np.outer([1.0, 2.0, 1.0], [1.0, 2.0, 1.0])
C = np.array([[144.0, 80.0, 40.0], [80.0, 144.0, 80.0], [40.0, 80.0, 144.0]])
FORMS = [
    ("one sigma", dict(sigma=12.0), ["--sigma", "12"], "'sigma', 12"),
    ("a kernel", dict(kernel=K, sigma=12.0), ["--kernel", "k.txt", "--sigma", "12"],
     "'kernel', k, 'sigma', 12"),
    ("a spectrum per channel", dict(psd="p"), ["--psd", "p.npy"], "'psd', p"),
    ("correlated across the channels", dict(channel_covariance=C, kernel=K),
     ["--channel-covariance", "c.txt", "--kernel", "k.txt"], "'channel_covariance', c, 'kernel', k"),
    ("estimated", dict(), [], ""),
]


@pytest.mark.parametrize("kwargs, options, octave_args",
                         [pytest.param(*row[1:], id=row[0]) for row in FORMS])
def test_every_front_end_gives_the_same_bits(denoiser, cli, tmp_path, kwargs, options,
                                             octave_args):
    """An RGBA uint8 image: shapewiener.denoise, the program (PNG in and
    out) and Octave's shapewiener_denoise give the same bits."""
    import subprocess
    from conftest import BUILD, need
    from shapewiener import _core
    rgba = colour_image(4).astype(np.uint8)
    p = np.stack([np.full(rgba.shape[:2], v) for v in (100.0, 144.0, 196.0)], axis=2)
    kwargs = {k: (p if isinstance(v, str) else v) for k, v in kwargs.items()}
    np.savetxt(tmp_path / "k.txt", K)
    np.savetxt(tmp_path / "c.txt", C)
    np.save(tmp_path / "p.npy", p)
    expected = denoiser.denoise(rgba, preset="fast", **kwargs)
    _core.write_channels(str(tmp_path / "in.png"), rgba, "uint8")
    subprocess.run([cli, "denoise", "in.png", "out.png", "--quiet", "--preset", "fast"] + options,
                   check=True, cwd=tmp_path)
    written, stored = _core.read_channels(str(tmp_path / "out.png"))
    assert stored == "uint8" and np.array_equal(written, expected)
    octave = _octave(BUILD)
    need(octave, "octave and shapewiener_denoise.mex")
    for name, value in (("in", rgba.astype(np.float64)), ("k", K), ("c", C), ("p", p)):
        value.ravel(order="F").tofile(tmp_path / f"{name}.f64")
    script = (f"addpath('{BUILD / 'octave'}');"
              "r = @(n, s) reshape(fread(fopen([n '.f64']), Inf, 'double'), s);"
              f"z = uint8(r('in', {list(rgba.shape)})); k = r('k', [3 3]); c = r('c', [3 3]);"
              f"p = r('p', {list(p.shape)});"
              f"out = shapewiener_denoise(z, {octave_args + ', ' if octave_args else ''}"
              "'preset', 'fast'); f = fopen('out.f64', 'w'); fwrite(f, double(out), 'double');"
              "fclose(f);")
    subprocess.run([octave, "--quiet", "--eval", script], check=True, cwd=tmp_path)
    got = np.fromfile(tmp_path / "out.f64").reshape(rgba.shape, order="F")
    assert np.array_equal(got, expected)
