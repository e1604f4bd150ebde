"""Colour quality benchmark: ours on RGB images against the colour
non-local means of OpenCV and scikit-image and against our own grey
denoiser run channel by channel.

Cases: scikit-image's colour samples cropped to 128 x 128 (COLOUR_SIDE; values in
[0, 1]), noise white, Gaussian-coloured and line-coloured, independent
between the channels or correlated across them (channel correlation 0.6
between neighbours, 0.4 between R and B), two levels. The noise of a case
has the cross-spectrum sigma^2 R[i, j] P / mean(P) between channels i and
j, P the spatial spectrum, R the channel correlation (the identity when
independent); ours is given exactly that description, and is also run
blind (no noise given: estimated from the image), next to our grey blind
denoiser on R, G and B.

Peers are tuned per case against the clean image over a small grid; their
best results are cached in COLOUR_PEERS.csv and computed once. Run from
the repository root (about 10 min on one free core; --figure PNG writes the
README's picture instead):

    nice -n 10 /usr/bin/python3 bench/quality/colour.py --python build/python

or in parts (--images, each into its own --out holding a copy of
COLOUR_PEERS.csv), then --merge their COLOUR.csv files.
"""

import argparse
import csv
import os
import sys
import time

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import cases  # noqa: E402

IMAGES = ("astronaut", "coffee", "chelsea")
NOISES = ("white", "gauss1", "hline9")
LEVELS = (0.05, 0.1)
CORRELATED = np.array([[1.0, 0.6, 0.4], [0.6, 1.0, 0.6], [0.4, 0.6, 1.0]])
# Only in --oracle: a colour-correction matrix of the usual kind (sensor to
# display RGB) applied to independent noise, whose channels then correlate
# negatively (-0.49 to +0.04).
_CCM = np.array([[1.6, -0.5, -0.1], [-0.2, 1.5, -0.3], [0.0, -0.5, 1.5]])
CORRECTED = (_CCM @ _CCM.T) / np.sqrt(np.outer(np.diag(_CCM @ _CCM.T), np.diag(_CCM @ _CCM.T)))
SIDE = int(os.environ.get("COLOUR_SIDE", "128"))
SEED = 20261124


def load(name):
    import skimage.data
    img = getattr(skimage.data, name)().astype(np.float64) / 255.0
    r0, c0 = (img.shape[0] - SIDE) // 2, (img.shape[1] - SIDE) // 2
    return np.ascontiguousarray(img[r0:r0 + SIDE, c0:c0 + SIDE, :3])


def make_case(image, noise, corr, level):
    clean = load(image)
    shape = clean.shape[:2]
    rng = cases.case_rng(SEED, image, f"{noise}/{corr}", level)
    unit = np.stack([cases.make_noise(noise, shape, 1.0, rng) for _ in range(3)], axis=2)
    r = {"correlated": CORRELATED, "corrected": CORRECTED}.get(corr, np.eye(3))
    mixed = unit @ np.linalg.cholesky(r).T  # channel covariance r
    psd = cases.noise_psd(noise, shape, 1.0)
    return clean, clean + level * mixed, psd, level * level * r


def psnr(clean, est):
    err = np.clip(est, 0.0, 1.0) - clean
    return float(10.0 * np.log10(1.0 / np.mean(err * err)))


def ssim(clean, est):
    from skimage.metrics import structural_similarity
    return float(structural_similarity(clean, np.clip(est, 0.0, 1.0), data_range=1.0,
                                       channel_axis=2))


def peer_opencv(noisy, sigma, h, h_colour):
    import cv2
    z8 = np.clip(np.rint(noisy * 255.0), 0, 255).astype(np.uint8)
    out = cv2.fastNlMeansDenoisingColored(z8, None, h * 255.0 * sigma, h_colour * 255.0 * sigma,
                                          7, 21)
    return out.astype(np.float64) / 255.0


def peer_skimage(noisy, sigma, h):
    from skimage.restoration import denoise_nl_means
    return denoise_nl_means(noisy, h=h * sigma, sigma=sigma, fast_mode=True, patch_size=5,
                            patch_distance=6, channel_axis=-1)


PEER_GRIDS = {
    "opencv": [(h, hc) for h in (0.6, 0.8, 1.0, 1.3, 1.7) for hc in (0.6, 1.0, 1.6)],
    "skimage": [(h,) for h in (0.4, 0.6, 0.8, 1.0, 1.3)],
}


def tune_peer(method, clean, noisy, sigma):
    run = peer_opencv if method == "opencv" else peer_skimage
    best = None
    for params in PEER_GRIDS[method]:
        est = run(noisy, sigma, *params)
        score = psnr(clean, est)
        if best is None or score > best[0]:
            best = (score, params, est)
    score, params, est = best
    start = time.process_time()
    run(noisy, sigma, *params)
    seconds = time.process_time() - start
    return {"psnr": score, "ssim": ssim(clean, est), "params": " ".join(f"{p:g}" for p in params),
            "cpu_s": seconds}


def ours(sw, noisy, psd, cov, corr, mode):
    """mode: colour (opponent basis), noisebasis, or perchannel (the grey
    denoiser on R, G and B with each channel's own spectrum)."""
    start = time.process_time()
    if mode == "perchannel":
        out = np.stack([sw.denoise(noisy[:, :, k], psd=cov[k, k] * psd, threads=1)
                        for k in range(3)], axis=2)
    elif mode == "colour":
        out = sw.denoise(noisy, psd=psd, channel_covariance=cov, threads=1)
    elif mode == "blind":
        out = sw.denoise(noisy, threads=1)
    elif mode == "perchannel_blind":
        out = np.stack([sw.denoise(noisy[:, :, k], threads=1) for k in range(3)], axis=2)
    else:
        from shapewiener import _colour, _core
        kind, models, covariance = _colour.colour_noise(None, None, psd, cov, psd.shape,
                                                        float, lambda x, _: np.asarray(x, float))
        out, _ = _core.denoise_colour(noisy, kind, models, covariance, "default", 1, None,
                                      "noise", True)
    return out, time.process_time() - start


OPPONENT = np.array([[1, 1, 1], [1, 0, -1], [1, -2, 1]]) / np.sqrt([[3], [2], [6]])


def oracle():
    """The ceiling of filtering three channels apart, and the room left for
    a filter that treats each colour vector as one: 8 x 8 DCT blocks (four
    shifted grids averaged), each coefficient shrunk by the Wiener factor
    of the CLEAN coefficient. White noise, the six cases per channel model.
    rgb: R, G and B apart; opponent: the rotated channels apart (the
    colour mode's basis); whitened: the opponent rotation after whitening
    the noise by C^(-1/2); joint: each coefficient's colour vector at once,
    x x^T (x x^T + C)^-1 y."""
    from scipy.fft import dctn, idctn
    b = 8

    def blockwise(y, shrink):
        acc, count = np.zeros_like(y), np.zeros(y.shape[:2] + (1,))
        for dr, dc in ((0, 0), (4, 4), (0, 4), (4, 0)):
            for r in range(dr, y.shape[0] - b + 1, b):
                for c in range(dc, y.shape[1] - b + 1, b):
                    win = (slice(r, r + b), slice(c, c + b))
                    acc[win] += idctn(shrink(dctn(y[win], axes=(0, 1), norm="ortho"), win),
                                      axes=(0, 1), norm="ortho")
                    count[win] += 1
        return acc / np.maximum(count, 1)

    print("| channel noise | rgb | opponent | whitened | joint | opponent - rgb | joint - rgb |")
    print("|---|---|---|---|---|---|---|")
    for corr in ("independent", "correlated", "corrected"):
        res = []
        for image in IMAGES:
            for level in LEVELS:
                clean, noisy, _, cov = make_case(image, "white", corr, level)
                coef = lambda win: dctn(clean[win], axes=(0, 1), norm="ortho")  # noqa: E731

                def apart(a):
                    d, inv = np.diag(a @ cov @ a.T), np.linalg.inv(a)
                    return lambda y, win: ((coef(win) @ a.T) ** 2 / ((coef(win) @ a.T) ** 2 + d)
                                           * (y @ a.T)) @ inv.T
                w, v = np.linalg.eigh(cov)
                whitened = OPPONENT @ v @ np.diag(w ** -0.5) @ v.T
                icov = np.linalg.inv(cov)

                def joint(y, win):
                    x = coef(win)
                    q = np.einsum("...i,ij,...j->...", x, icov, y)
                    p = np.einsum("...i,ij,...j->...", x, icov, x)
                    return x * (q / (1 + p))[..., None]
                res.append([psnr(clean, blockwise(noisy, f)) for f in
                            (apart(np.eye(3)), apart(OPPONENT), apart(whitened), joint)])
        m = np.mean(res, axis=0)
        print(f"| {corr} | " + " | ".join(f"{x:.2f}" for x in m) +
              f" | {m[1] - m[0]:+.2f} | {m[3] - m[0]:+.2f} |", flush=True)


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--python", default="build/python", help="folder holding the shapewiener package")
    ap.add_argument("--images", default=",".join(IMAGES))
    ap.add_argument("--out", default=HERE)
    ap.add_argument("--channels", default="independent,correlated",
                    help="channel noise models (comma-separated); also: corrected (see CORRECTED)")
    ap.add_argument("--modes", help="run only these of ours (comma-separated), e.g. "
                                    "blind,perchannel_blind")
    ap.add_argument("--merge", nargs="+", metavar="CSV",
                    help="merge these COLOUR.csv files (runs over parts of --images) into "
                         "--out's and print the summary; nothing is run")
    ap.add_argument("--figure", help="write noisy | ours | per-channel | best peer to this PNG")
    ap.add_argument("--oracle", action="store_true",
                    help="print the clean-coefficient Wiener ceilings (see oracle()); nothing else")
    a = ap.parse_args(argv)
    if a.oracle:
        return oracle()
    if a.merge:
        rows = []
        for path in a.merge:
            with open(path) as f:
                rows += [{k: (v if k in ("case", "image", "noise", "channels") or v == ""
                              else float(v)) for k, v in r.items()} for r in csv.DictReader(f)]
        rows = [{k: v for k, v in r.items() if v != ""} for r in rows]
        write_rows(rows, a.out)
        return summary(rows)
    sys.path.insert(0, os.path.abspath(a.python))
    import shapewiener as sw
    if a.figure:
        return figure(sw, a.figure)

    cache_path = os.path.join(a.out, "COLOUR_PEERS.csv")
    cache = {}
    if os.path.exists(cache_path):
        with open(cache_path) as f:
            for row in csv.DictReader(f):
                cache[(row["case"], row["method"])] = row
    rows = []
    for image in a.images.split(","):
        for noise in NOISES:
            for corr in a.channels.split(","):
                for level in LEVELS:
                    name = f"{image}/{noise}/{corr}/{level:g}"
                    clean, noisy, psd, cov = make_case(image, noise, corr, level)
                    row = {"case": name, "image": image, "noise": noise, "channels": corr,
                           "level": level, "noisy": psnr(clean, noisy)}
                    for method in PEER_GRIDS:
                        if (name, method) not in cache:
                            result = tune_peer(method, clean, noisy, level)
                            cache[(name, method)] = dict(case=name, method=method, **result)
                            with open(cache_path, "w", newline="") as f:
                                w = csv.DictWriter(f, ["case", "method", "psnr", "ssim", "params",
                                                       "cpu_s"])
                                w.writeheader()
                                for key in sorted(cache):
                                    w.writerow(cache[key])
                        got = cache[(name, method)]
                        row[method] = float(got["psnr"])
                        row[method + "_ssim"] = float(got["ssim"])
                    modes = ("colour", "perchannel", "blind", "perchannel_blind") + (
                        ("noisebasis",) if corr != "independent" else ())
                    for mode in (m for m in modes if not a.modes or m in a.modes.split(",")):
                        out, seconds = ours(sw, noisy, psd, cov, corr, mode)
                        row[mode] = psnr(clean, out)
                        row[mode + "_ssim"] = ssim(clean, out)
                        row[mode + "_cpu_s"] = seconds
                    print(name, " ".join(f"{k}={v:.3f}" for k, v in row.items()
                                         if isinstance(v, float)), flush=True)
                    rows.append(row)
    write_rows(rows, a.out)
    summary(rows)


def write_rows(rows, folder):
    fields = sorted({k for r in rows for k in r},
                    key=lambda k: (k not in ("case", "image", "noise", "channels", "level"), k))
    with open(os.path.join(folder, "COLOUR.csv"), "w", newline="") as f:
        w = csv.DictWriter(f, fields)
        w.writeheader()
        for r in rows:
            w.writerow(r)


def figure(sw, path, case=("astronaut", "gauss1", "independent", 0.1)):
    """One case side by side: noisy, ours, our grey denoiser per channel,
    scikit-image's colour non-local means (its best h on the grid)."""
    from PIL import Image
    clean, noisy, psd, cov = make_case(*case)
    ours_out, _ = ours(sw, noisy, psd, cov, case[2], "colour")
    per_out, _ = ours(sw, noisy, psd, cov, case[2], "perchannel")
    peer = max((peer_skimage(noisy, case[3], *p) for p in PEER_GRIDS["skimage"]),
               key=lambda e: psnr(clean, e))
    panels = [noisy, ours_out, per_out, peer]
    gap = np.ones((clean.shape[0], 4, 3))
    row = np.concatenate([x for p in panels for x in (np.clip(p, 0, 1), gap)][:-1], axis=1)
    Image.fromarray(np.rint(row * 255).astype(np.uint8)).save(path, optimize=True)
    print(path, " ".join(f"{psnr(clean, p):.2f}" for p in panels))


def summary(rows):
    def mean(xs):
        xs = [x for x in xs if x is not None]
        return sum(xs) / len(xs) if xs else float("nan")
    cols = ("noisy", "colour", "noisebasis", "perchannel", "blind", "perchannel_blind", "opencv",
            "skimage")
    print("| noise | channels | " + " | ".join(cols) + " | colour - best peer | colour - per-channel |")
    print("|---" * (len(cols) + 4) + "|")
    groups = sorted({(r["noise"], r["channels"]) for r in rows}) + [("all", "all")]
    for noise, corr in groups:
        sel = [r for r in rows if noise == "all" or (r["noise"] == noise and r["channels"] == corr)]
        m = {c: mean([r.get(c) for r in sel]) for c in cols}
        best = mean([max(r["opencv"], r["skimage"]) for r in sel])
        print(f"| {noise} | {corr} | " + " | ".join(f"{m[c]:.2f}" for c in cols) +
              f" | {m['colour'] - best:+.2f} | {m['colour'] - m['perchannel']:+.2f} |")
    ssim_cols = ("colour", "perchannel", "opencv", "skimage")
    print("mean SSIM: " + ", ".join(f"{c} {mean([r.get(c + '_ssim') for r in rows]):.4f}"
                                    for c in ssim_cols))
    colour_s = mean([r.get("colour_cpu_s") for r in rows])
    per_s = mean([r.get("perchannel_cpu_s") for r in rows])
    print(f"CPU s per image: colour {colour_s:.2f}, per-channel {per_s:.2f} "
          f"(grey image: a third of that); colour / grey = {3 * colour_s / per_s:.2f}")


if __name__ == "__main__":
    main()
