"""Test images and noise models of the quality benchmark.

Every noise model gives the exact full-size power spectrum of the noise it
generates: an M x K array, DC at (0, 0), unshifted, in units where white
noise of variance s^2 has PSD == s^2 (so the mean of the PSD is the
per-pixel variance). The noise is made by circular convolution in the
Fourier domain, so its PSD is exactly that array, and every model is scaled
so that its per-pixel standard deviation is the stated sigma (in
expectation).
"""

import zlib

import numpy as np

# Test images: name -> loader. All grey, 512 x 512 except coins (303 x 384),
# from Debian's python3-skimage (no network needed).
NATURAL = ("camera", "astronaut", "coins", "moon")
TEXTURE = ("brick", "grass", "gravel")
IMAGES = NATURAL + TEXTURE
QUICK_IMAGES = ("camera", "grass")

LEVELS = (0.05, 0.1)
QUICK_LEVELS = (0.1,)


def load_image(name):
    """The named sample image as float64 in [0, 1], grey."""
    import skimage.data
    from skimage.color import rgb2gray

    img = getattr(skimage.data, name)()
    if img.ndim == 3:
        return np.ascontiguousarray(rgb2gray(img), dtype=np.float64)
    return img.astype(np.float64) / 255.0


# ---------------------------------------------------------------- kernels

def _grid(radius):
    r = np.arange(-radius, radius + 1, dtype=np.float64)
    return r[:, None], r[None, :]


def box_kernel():
    return np.ones((3, 3))


def gauss_kernel(s=1.0):
    a, b = _grid(int(np.ceil(4 * s)))
    return np.exp(-(a * a + b * b) / (2 * s * s))


def line_kernel(length=9):
    """Horizontal: correlated along image rows (axis 1)."""
    return np.ones((1, length))


def ring_kernel(s=1.5, f0=0.25):
    """Radially cosine-modulated Gaussian with its mean removed: a
    ring-shaped band-pass spectrum (zero at DC, peak near 0.28 cycles per
    pixel, small at the highest frequencies)."""
    a, b = _grid(int(np.ceil(3 * s)))
    r = np.sqrt(a * a + b * b)
    g = np.exp(-r * r / (2 * s * s))
    c = np.cos(2 * np.pi * f0 * r)
    return g * (c - np.sum(g * c) / np.sum(g))


def stripe_kernel(s=8.0):
    """cos(u + v) under a wide Gaussian window: diagonal stripes of period
    2*pi pixels along each axis; the spectrum is two narrow peaks."""
    a, b = _grid(int(np.ceil(3 * s)))
    return np.exp(-(a * a + b * b) / (2 * s * s)) * np.cos(a + b)


def kernel_transfer(kernel, shape):
    """FFT of the kernel zero-padded to `shape`, its centre tap at (0, 0)."""
    kr, kc = kernel.shape
    pad = np.zeros(shape)
    pad[:kr, :kc] = kernel
    pad = np.roll(pad, (-(kr // 2), -(kc // 2)), axis=(0, 1))
    return np.fft.fft2(pad)


def pink_shape(shape):
    """1/f power spectrum, |f| in cycles per pixel, floored at 1/max(M, K)
    (which sets the DC term)."""
    fy = np.fft.fftfreq(shape[0])[:, None]
    fx = np.fft.fftfreq(shape[1])[None, :]
    rho = np.sqrt(fy * fy + fx * fx)
    return 1.0 / np.maximum(rho, 1.0 / max(shape))


# ------------------------------------------------------------ noise models
#
# A model is a list of components (variance fraction, kind, payload); each
# component is made from its own white draw.
#   ("kernel", k): circular convolution with k, scaled by 1 / ||k||_2;
#   ("shape", f):  zero-phase filter with the PSD shape f(image shape).

NOISES = {
    "white": [(1.0, "kernel", np.ones((1, 1)))],
    "box3": [(1.0, "kernel", box_kernel())],
    "gauss1": [(1.0, "kernel", gauss_kernel(1.0))],
    "hline9": [(1.0, "kernel", line_kernel(9))],
    "ring": [(1.0, "kernel", ring_kernel())],
    "stripes": [(1.0, "kernel", stripe_kernel())],
    "pink": [(1.0, "shape", pink_shape)],
    "mix": [(0.5, "kernel", np.ones((1, 1))), (0.5, "kernel", gauss_kernel(1.0))],
}

NOISE_NOTES = {
    "white": "white",
    "box3": "3 x 3 box kernel",
    "gauss1": "Gaussian kernel, std 1 px (9 x 9)",
    "hline9": "horizontal line kernel 1 x 9 (ones)",
    "ring": "ring band-pass: exp(-r^2/4.5) (cos(pi r / 2) - c), zero mean, 11 x 11",
    "stripes": "narrow-band: exp(-(u^2+v^2)/128) cos(u + v), 49 x 49",
    "pink": "1/f PSD, |f| floored at 1/max(M, K)",
    "mix": "half the variance white, half Gaussian-kernel (std 1)",
}


def component_psd(kind, payload, shape):
    """Unit-variance PSD of one component (mean exactly 1 up to rounding)."""
    if kind == "kernel":
        p = np.abs(kernel_transfer(payload, shape)) ** 2 / np.sum(payload * payload)
    else:
        p = payload(shape)
    return p / p.mean()


def noise_psd(noise, shape, sigma):
    """The exact PSD of noise `noise` at per-pixel std `sigma`."""
    psd = np.zeros(shape)
    for frac, kind, payload in NOISES[noise]:
        psd += frac * sigma * sigma * component_psd(kind, payload, shape)
    return psd


def make_noise(noise, shape, sigma, rng):
    """One realisation; its PSD is exactly noise_psd(noise, shape, sigma)."""
    out = np.zeros(shape)
    for frac, kind, payload in NOISES[noise]:
        w = np.fft.fft2(rng.standard_normal(shape))
        amp = np.sqrt(frac) * sigma
        if kind == "kernel":
            transfer = kernel_transfer(payload, shape) / np.sqrt(np.sum(payload * payload))
        else:
            transfer = np.sqrt(component_psd(kind, payload, shape))
        out += amp * np.fft.ifft2(w * transfer).real
    return out


def case_rng(seed, image, noise, level):
    """The generator of one case: fixed by the seed and the case's name."""
    tag = zlib.crc32(f"{image}/{noise}/{level:g}".encode())
    return np.random.default_rng([seed, tag])


def native_kernel(noise):
    """The kernel of a single-kernel noise (None for white, pink and mix)."""
    comps = NOISES[noise]
    if len(comps) == 1 and comps[0][1] == "kernel" and comps[0][2].size > 1:
        return comps[0][2]
    return None
