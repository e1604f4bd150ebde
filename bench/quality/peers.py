"""The peer denoisers and their oracle tuning.

Every peer is tuned per case against the clean image: each discrete choice
(patch size, wavelet, ...) gets a one-dimensional search over its strength
on a logarithmic grid, maximising PSNR; the search and its grids are
described in README.md and in GRIDS below. Everything is deterministic.
"""

import hashlib
import json
import time
import warnings

import numpy as np
from scipy.ndimage import gaussian_filter
from skimage.metrics import structural_similarity
from skimage.restoration import denoise_nl_means, denoise_tv_chambolle, denoise_wavelet

PEERS = ("wiener", "nlm", "nlm-pw", "wavelet", "tv")

# Bumped whenever a peer's definition changes; with the peer's grid it makes
# the peer's cache key (key()).
VERSION = 1

# Search over x = start * ratio**k: k = -1, 0, 1 first, then up to `expand`
# steps outwards while the best is at an end, then (refine) the two
# half-steps around the best. nlm-pw searches eps the same way for each
# patch size, each eps with its own search over h (no refine), then refines
# h around the best of all.
GRIDS = {
    "full": {
        "wiener": {"smooth": (0, 1, 2, 4, 8, 16, 32)},
        "nlm": {"patches": ((5, 6), (7, 11)), "h": (0.8, 1.5), "expand": 4, "refine": True},
        "nlm-pw": {"patches": ((5, 6), (7, 11)), "h": (0.8, 1.5), "expand": 6, "refine": True,
                   "eps": (1.0, 3.0), "eps_expand": 2},
        "wavelet": {"choices": (("BayesShrink", "db1"), ("BayesShrink", "sym4"),
                                ("VisuShrink", "db1"), ("VisuShrink", "sym4")),
                    "sigma": (1.0, 2.0), "expand": 4, "refine": True},
        "tv": {"weight": (1.0, 2.0), "expand": 5, "refine": True},
    },
    "quick": {
        "wiener": {"smooth": (0, 4)},
        "nlm": {"patches": ((5, 6),), "h": (0.8, 1.5), "expand": 2, "refine": False},
        "nlm-pw": {"patches": ((5, 6),), "h": (0.8, 1.5), "expand": 2, "refine": False,
                   "eps": (1.0, 3.0), "eps_expand": 0},
        "wavelet": {"choices": (("BayesShrink", "db1"),), "sigma": (1.0, 2.0), "expand": 2,
                    "refine": False},
        "tv": {"weight": (1.0, 2.0), "expand": 3, "refine": False},
    },
}


def psnr(clean, estimate):
    """PSNR in dB, peak 1, of the estimate clipped to [0, 1]."""
    err = np.clip(estimate, 0.0, 1.0) - clean
    return float(10.0 * np.log10(1.0 / np.mean(err * err)))


def ssim(clean, estimate):
    return float(structural_similarity(clean, np.clip(estimate, 0.0, 1.0), data_range=1.0))


# ------------------------------------------------------------------ filters

def fourier_wiener(noisy, psd, smooth=0.0):
    """Global Fourier Wiener filter with the true noise PSD S_n:
    P_y = |FFT(y)|^2 / (M K) (the noisy periodogram, same units as S_n),
    S_x = max(G_w * (P_y - S_n), 0) with G_w a circular Gaussian smoothing
    of std `smooth` frequency bins (none for 0), H = S_x / (S_x + S_n)
    (1 where both vanish), estimate = IFFT(H FFT(y))."""
    spectrum = np.fft.fft2(noisy)
    diff = np.abs(spectrum) ** 2 / noisy.size - psd
    if smooth > 0:
        diff = gaussian_filter(diff, smooth, mode="wrap")
    sx = np.maximum(diff, 0.0)
    den = sx + psd
    gain = np.divide(sx, den, out=np.ones_like(den), where=den > 0)
    return np.fft.ifft2(gain * spectrum).real


def whitening(psd, eps):
    """Regularised whitening gain G = sqrt(c / (S_n + eps c)), c = mean(S_n):
    noise of PSD S_n becomes nearly white of variance c where S_n >> eps c."""
    c = psd.mean()
    return np.sqrt(c / (psd + eps * c))


def nlm_prewhitened(noisy, psd, eps, h_mult, patch, dist):
    """Whiten with the noise PSD, non-local means, un-whiten."""
    g = whitening(psd, eps)
    white = np.fft.ifft2(np.fft.fft2(noisy) * g).real
    sigma_w = float(np.sqrt(np.mean(psd * g * g)))
    est = denoise_nl_means(white, patch_size=patch, patch_distance=dist, h=h_mult * sigma_w,
                           sigma=sigma_w, fast_mode=True, preserve_range=True)
    return np.fft.ifft2(np.fft.fft2(est) / g).real


def nlm_plain(noisy, sigma, h_mult, patch, dist):
    return denoise_nl_means(noisy, patch_size=patch, patch_distance=dist, h=h_mult * sigma,
                            sigma=sigma, fast_mode=True, preserve_range=True)


def wavelet(noisy, sigma, mult, method, name):
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        return denoise_wavelet(noisy, sigma=mult * sigma, wavelet=name, mode="soft",
                               method=method, rescale_sigma=True)


def tv(noisy, sigma, mult):
    return denoise_tv_chambolle(noisy, weight=mult * sigma)


# ------------------------------------------------------------------- tuning

class _Best:
    """Keeps the best evaluation (PSNR, params, estimate, seconds)."""

    def __init__(self, clean):
        self.clean = clean
        self.psnr = -np.inf
        self.params = None
        self.estimate = None
        self.seconds = None
        self.cpu_seconds = None
        self.evals = 0

    def __call__(self, params, fn):
        t, c = time.perf_counter(), time.process_time()
        est = fn()
        dt, dc = time.perf_counter() - t, time.process_time() - c
        p = psnr(self.clean, est)
        self.evals += 1
        if p > self.psnr:
            self.psnr, self.params, self.estimate = p, params, est
            self.seconds, self.cpu_seconds = dt, dc
        return p


def key(method, grid):
    """Cache key of a peer: its definition's version and its grid."""
    text = json.dumps([VERSION, method, grid[method]], sort_keys=True)
    return hashlib.sha256(text.encode()).hexdigest()[:10]


def search_log(evaluate, start, ratio, expand, refine):
    """Maximises evaluate(x) over x = start * ratio**k (see GRIDS); returns
    the maximum."""
    seen = {}

    def f(k2):  # k2 = 2k, so that half-steps stay integers
        if k2 not in seen:
            seen[k2] = evaluate(start * ratio ** (k2 / 2))
        return seen[k2]

    for k2 in (-2, 0, 2):
        f(k2)
    for _ in range(expand):
        best = max(sorted(seen), key=seen.get)
        if best == max(seen):
            f(best + 2)
        elif best == min(seen):
            f(best - 2)
        else:
            break
    if refine:
        best = max(sorted(seen), key=seen.get)
        f(best - 1)
        f(best + 1)
    return max(seen.values())


def tune(method, clean, noisy, psd, grid):
    """Oracle-tunes one peer on one case. Returns a dict: params, psnr,
    ssim, seconds and cpu_seconds (one run at the chosen params), evals, and
    the estimate."""
    sigma = float(np.sqrt(psd.mean()))
    g = grid[method]
    best = _Best(clean)
    if method == "wiener":
        for w in g["smooth"]:
            best({"smooth": w}, lambda w=w: fourier_wiener(noisy, psd, w))
    elif method == "nlm":
        for patch, dist in g["patches"]:
            def ev(h, patch=patch, dist=dist):
                params = {"patch": patch, "dist": dist, "h_mult": h}
                return best(params, lambda: nlm_plain(noisy, sigma, h, patch, dist))
            search_log(ev, g["h"][0], g["h"][1], g["expand"], g["refine"])
    elif method == "nlm-pw":
        def ev(eps, h, patch, dist):
            params = {"patch": patch, "dist": dist, "h_mult": h, "eps": eps}
            return best(params, lambda: nlm_prewhitened(noisy, psd, eps, h, patch, dist))
        for patch, dist in g["patches"]:
            search_log(lambda eps: search_log(lambda h: ev(eps, h, patch, dist), g["h"][0],
                                              g["h"][1], g["expand"], False),
                       g["eps"][0], g["eps"][1], g["eps_expand"], False)
        if g["refine"]:
            p = dict(best.params)
            for step in (g["h"][1] ** -0.5, g["h"][1] ** 0.5):
                ev(p["eps"], p["h_mult"] * step, p["patch"], p["dist"])
    elif method == "wavelet":
        for meth, name in g["choices"]:
            def ev(m, meth=meth, name=name):
                params = {"method": meth, "wavelet": name, "sigma_mult": m}
                return best(params, lambda: wavelet(noisy, sigma, m, meth, name))
            search_log(ev, g["sigma"][0], g["sigma"][1], g["expand"], g["refine"])
    elif method == "tv":
        def ev(m):
            return best({"weight_mult": m}, lambda: tv(noisy, sigma, m))
        search_log(ev, g["weight"][0], g["weight"][1], g["expand"], g["refine"])
    else:
        raise ValueError(f"unknown peer {method}")
    return {"params": best.params, "psnr": best.psnr, "ssim": ssim(clean, best.estimate),
            "seconds": best.seconds, "cpu_seconds": best.cpu_seconds, "evals": best.evals,
            "estimate": best.estimate}


def rerun(method, noisy, psd, params):
    """The estimate of a peer at given (tuned) params."""
    sigma = float(np.sqrt(psd.mean()))
    p = params
    if method == "wiener":
        return fourier_wiener(noisy, psd, p["smooth"])
    if method == "nlm":
        return nlm_plain(noisy, sigma, p["h_mult"], p["patch"], p["dist"])
    if method == "nlm-pw":
        return nlm_prewhitened(noisy, psd, p["eps"], p["h_mult"], p["patch"], p["dist"])
    if method == "wavelet":
        return wavelet(noisy, sigma, p["sigma_mult"], p["method"], p["wavelet"])
    if method == "tv":
        return tv(noisy, sigma, p["weight_mult"])
    raise ValueError(f"unknown peer {method}")
