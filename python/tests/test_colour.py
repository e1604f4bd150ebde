"""Colour arrays through shapewiener.denoise: every layout and dtype gives
the same bits, alpha passes through, and the noise forms agree where they
describe the same noise."""

import numpy as np

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


def test_the_command_line_gives_the_same_bits(denoiser, cli, tmp_path):
    """An RGBA uint8 file with noise correlated across the channels: the
    program and shapewiener.denoise give the same bits."""
    import subprocess
    rgba = colour_image(4).astype(np.uint8)
    c = np.array([[144.0, 80.0, 40.0], [80.0, 144.0, 80.0], [40.0, 80.0, 144.0]])
    np.save(tmp_path / "in.npy", rgba)
    np.savetxt(tmp_path / "c.txt", c)
    subprocess.run([cli, "denoise", str(tmp_path / "in.npy"), str(tmp_path / "out.png"), "--quiet",
                    "--preset", "fast", "--channel-covariance", str(tmp_path / "c.txt")], check=True)
    subprocess.run([cli, "convert", str(tmp_path / "out.png"), str(tmp_path / "out.npy")], check=True)
    expected = denoiser.denoise(rgba, channel_covariance=c, preset="fast")
    assert np.array_equal(np.load(tmp_path / "out.npy"), expected)
