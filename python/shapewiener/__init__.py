"""shapewiener: a denoiser for grey-scale images with white or coloured noise.

    import shapewiener
    clean = shapewiener.denoise(noisy)                             # the noise estimated
    noise = shapewiener.estimate_noise(noisy)                      # .sigma, .psd, .white
    clean = shapewiener.denoise(noisy, sigma=0.1)                  # white noise
    clean = shapewiener.denoise(noisy, kernel=k, sigma=0.1)        # coloured by a kernel
    clean = shapewiener.denoise(noisy, psd=P)                      # given its power spectrum

``shapewiener.filter`` runs the raw sixteen-argument filter module, as the
MEX function ``shapewiener`` does in Octave and MATLAB. ``shapewiener.dask``
denoises large images tile by tile and ``python3 -m shapewiener.batch`` many
images on a Dask cluster. Every rejected call raises ``shapewiener.Error``.
"""

from ._denoise import denoise, remove_noise_peaks
from ._filter import filter  # noqa: A004 - the module's own name
from ._noise import ColourNoiseEstimate, NoiseEstimate, estimate_noise
from .errors import Error

from ._version import __version__
__all__ = ["denoise", "estimate_noise", "NoiseEstimate", "ColourNoiseEstimate", "remove_noise_peaks",
           "filter", "Error"]
