"""Blind denoising in the quality benchmark: ours with the noise spectrum it
estimates from the noisy image, next to ours with the true spectrum and next
to the peers (their oracle-tuned figures are read from RESULTS.csv, not
recomputed). Also noise-free images (how much blind denoising changes them)
and pure noise fields (how well the estimate reads each spectrum).

    nice /usr/bin/python3 bench/quality/blind.py --threads 2

Writes the blind section of RESULTS.md (between its markers) and BLIND.csv.
Needs the command line tool and the estimator (build*/bench/shapewiener_bench_noise).
"""

import argparse
import csv
import glob
import hashlib
import os
import re
import subprocess
import sys
import tempfile
import time

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import cases  # noqa: E402
import peers  # noqa: E402
import quality  # noqa: E402

# Kept out of every choice made for the estimator: reported on their own.
HELD_OUT_IMAGES = ("astronaut", "coins")


def _held_out_kernels():
    a, b = np.mgrid[-8:9, -8:9].astype(np.float64)
    blue = -np.ones((3, 3)) / 9.0
    blue[1, 1] += 1.0
    return {
        "vline5": np.ones((5, 1)),  # correlated down the columns
        "aniso": np.exp(-(a * a / (2 * 0.5 ** 2) + b * b / (2 * 2.0 ** 2))),  # elongated Gaussian
        "blue": blue,  # high-pass: the pixel minus its 3 x 3 mean
        "vstripes": np.exp(-(a * a + b * b) / (2 * 4.0 ** 2)) * np.cos(2 * np.pi * 0.3 * b),  # one axis
    }


# Noise kinds outside the benchmark's, also kept out of every choice; their
# known-spectrum figures are computed here (the peers are not run on them).
HELD_OUT_NOISES = {name: [(1.0, "kernel", k)] for name, k in _held_out_kernels().items()}
HELD_OUT_NOISE_IMAGES = ("camera", "brick")
HELD_OUT_NOISE_LEVEL = 0.1
BEGIN, END = "<!-- blind: begin -->", "<!-- blind: end -->"


def newest(pattern):
    found = [p for p in glob.glob(os.path.join(quality.ROOT, pattern), recursive=True)
             if os.path.isfile(p) and os.access(p, os.X_OK)]
    return max(found, key=os.path.getmtime) if found else None


def estimate(tool, z, tmp, threads, repeat=1):
    src, dst = os.path.join(tmp, "e_in.npy"), os.path.join(tmp, "e_psd.npy")
    np.save(src, z)
    out = subprocess.run([tool, src, dst, "--threads", str(threads), "--repeat", str(repeat)],
                         capture_output=True, text=True, check=True).stdout.split()
    info = dict(zip(out[0::2], out[1::2]))
    return np.load(dst), {"sigma": float(info["sigma"]), "white": info["white"] == "1",
                          "usable": float(info["usable"]), "seconds": float(info["seconds"])}


def psd_key(psd):
    """Short hash of a spectrum's bits: with the command line tool's, the key of a denoised result."""
    return hashlib.sha256(np.ascontiguousarray(psd, dtype=np.float64).tobytes()).hexdigest()[:16]


def grid32(p):
    """The spectrum averaged over 32 x 32 cells centred on the 32 x 32 grid."""
    m, k = p.shape
    s = np.roll(p, (m // 64, k // 64), axis=(0, 1))
    iy, ix = (np.arange(m) * 32) // m, (np.arange(k) * 32) // k
    out, cnt = np.zeros((32, 32)), np.zeros((32, 32))
    np.add.at(out, (iy[:, None], ix[None, :]), s)
    np.add.at(cnt, (iy[:, None], ix[None, :]), 1)
    return out / cnt


def spectrum_error(est, true):
    a, b = grid32(est), grid32(true)
    return float(np.linalg.norm(a - b) / np.linalg.norm(b))


def denoise(tool, z, psd, threads, tmp):
    if not np.any(psd > 0):
        return z.copy()  # nothing estimated: the image is left as it is
    est, _, _ = quality.run_ours([tool], ("", "white", 0.0), z, psd, "", threads, "psd", tmp)
    return est


def read_known():
    known = {}
    with open(os.path.join(HERE, "RESULTS.csv")) as f:
        for r in csv.DictReader(f):
            known[(r["image"], r["noise"], float(r["sigma"]), r["method"])] = (
                float(r["psnr"]), float(r["ssim"]))
    return known


def mean(xs):
    xs = list(xs)
    return sum(xs) / len(xs) if xs else float("nan")


def main(argv=None):
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    p.add_argument("--shapewiener", help="command line tool (default: newest build*/**/shapewiener)")
    p.add_argument("--estimator", help="default: newest build*/bench/shapewiener_bench_noise")
    p.add_argument("--threads", type=int, default=2)
    p.add_argument("--images")
    p.add_argument("--noises")
    p.add_argument("--levels")
    p.add_argument("--results", default=os.path.join(HERE, "RESULTS.md"))
    p.add_argument("--csv", default=os.path.join(HERE, "BLIND.csv"))
    p.add_argument("--no-held-out-noises", dest="held_out_noises", action="store_false",
                   help="skip the noise kinds kept out of tuning")
    a = p.parse_args(argv)
    tool = a.shapewiener or quality.find_binary()
    est_tool = a.estimator or newest("build*/bench/shapewiener_bench_noise")
    if not tool or not est_tool:
        sys.exit("build the tools first: cmake --build build --target shapewiener shapewiener_bench_noise")
    images = a.images.split(",") if a.images else list(cases.IMAGES)
    noises = a.noises.split(",") if a.noises else list(cases.NOISES)
    levels = [float(x) for x in a.levels.split(",")] if a.levels else list(cases.LEVELS)
    known = read_known()
    # Denoised results cached per case under a key made from the command line
    # tool's bits and the estimated spectrum's: an estimator change that
    # leaves a case's spectrum as it was reuses that case's result.
    cache = os.path.join(HERE, ".cache", f"blind-seed{quality.DEFAULT_SEED}")
    key = quality.command_key([tool], "", "blind")
    rows, t0 = [], time.perf_counter()
    with tempfile.TemporaryDirectory(prefix="swb-") as tmp:
        all_cases = [(im, n, lv) for lv in levels for n in noises for im in images]
        for i, c in enumerate(all_cases, 1):
            clean, noisy, psd = quality.build_case(c, quality.DEFAULT_SEED)
            psd_est, info = estimate(est_tool, noisy, tmp, a.threads)
            path = quality.result_path(cache, c, f"blind-{key}-{psd_key(psd_est)}")
            d = quality._read_json(path)
            if d is None:
                est = denoise(tool, noisy, psd_est, a.threads, tmp)
                d = {"psnr": peers.psnr(clean, est), "ssim": peers.ssim(clean, est)}
                quality._write_json(path, d)
            r = {"image": c[0], "noise": c[1], "sigma": c[2], "psnr": d["psnr"], "ssim": d["ssim"],
                 "sigma_ratio": info["sigma"] / np.sqrt(psd.mean()),
                 "spectrum_error": spectrum_error(psd_est, psd), "white": info["white"],
                 "usable": info["usable"], "estimate_seconds": info["seconds"]}
            rows.append(r)
            k = known.get((c[0], c[1], c[2], "ours"), (float("nan"),))[0]
            print(f"[{i}/{len(all_cases)} {time.perf_counter() - t0:.0f}s] {c[0]}/{c[1]}/{c[2]:g}: "
                  f"blind {r['psnr']:.2f} known {k:.2f} sigma x{r['sigma_ratio']:.3f}", file=sys.stderr)

        # Held-out noise kinds: blind next to the true spectrum, both computed here.
        held_noise_rows = []
        cases.NOISES.update(HELD_OUT_NOISES)
        for n in (HELD_OUT_NOISES if a.held_out_noises else ()):
            for im in HELD_OUT_NOISE_IMAGES:
                c = (im, n, HELD_OUT_NOISE_LEVEL)
                clean, noisy, psd = quality.build_case(c, quality.DEFAULT_SEED)
                psd_est, info = estimate(est_tool, noisy, tmp, a.threads)
                psnrs = {}
                for name, spectrum in (("psnr", psd_est), ("known", psd)):
                    path = quality.result_path(cache, c, f"blind-held-{key}-{psd_key(spectrum)}")
                    d = quality._read_json(path)
                    if d is None:
                        d = {"psnr": peers.psnr(clean, denoise(tool, noisy, spectrum, a.threads, tmp))}
                        quality._write_json(path, d)
                    psnrs[name] = d["psnr"]
                r = {"image": im, "noise": n, "sigma": c[2], "psnr": psnrs["psnr"], "known": psnrs["known"],
                     "sigma_ratio": info["sigma"] / np.sqrt(psd.mean()),
                     "spectrum_error": spectrum_error(psd_est, psd)}
                held_noise_rows.append(r)
                print(f"[held-out noise] {im}/{n}: blind {r['psnr']:.2f} known {r['known']:.2f} "
                      f"sigma x{r['sigma_ratio']:.3f}", file=sys.stderr)

        # Noise-free images: the estimate, and the largest change of blind denoising in 8-bit grey levels.
        clean_rows = []
        for im in images:
            clean = cases.load_image(im)
            psd_est, info = estimate(est_tool, clean, tmp, a.threads)
            path = quality.result_path(cache, (im, "none", 0.0), f"blind-clean-{key}-{psd_key(psd_est)}")
            r = quality._read_json(path)
            if r is None:
                out = denoise(tool, clean, psd_est, a.threads, tmp)
                change = np.abs(np.clip(out, 0, 1) - clean) * 255
                r = {"image": im, "sigma": info["sigma"], "max_change": float(change.max()),
                     "over_1": float(np.mean(change > 1.0))}
                quality._write_json(path, r)
            clean_rows.append(r)
        # Pure noise on a flat grey image.
        pure_rows = []
        for n in noises:
            psd = cases.noise_psd(n, (512, 512), 0.1)
            z = 0.5 + cases.make_noise(n, (512, 512), 0.1, cases.case_rng(quality.DEFAULT_SEED, "flat", n, 0.1))
            psd_est, info = estimate(est_tool, z, tmp, a.threads)
            pure_rows.append({"noise": n, "sigma_ratio": info["sigma"] / np.sqrt(psd.mean()),
                              "spectrum_error": spectrum_error(psd_est, psd), "white": info["white"],
                              "usable": info["usable"]})
        _, timing = estimate(est_tool, quality.build_case(("camera", "pink", 0.1), quality.DEFAULT_SEED)[1],
                             tmp, 2, repeat=5)

    with open(a.csv, "w", newline="") as f:
        w = csv.DictWriter(f, fieldnames=list(rows[0]))
        w.writeheader()
        for r in rows:
            w.writerow({k: (f"{v:.5f}" if isinstance(v, float) else v) for k, v in r.items()})

    section = report(rows, held_noise_rows, clean_rows, pure_rows, known, timing, a, sys.argv[1:] if argv is None else argv)
    text = open(a.results).read() if os.path.exists(a.results) else ""
    if BEGIN in text:
        text = text[:text.index(BEGIN)] + section + text[text.index(END) + len(END):]
    else:
        text = text.rstrip("\n") + "\n\n" + section + "\n"
    with open(a.results, "w") as f:
        f.write(text)
    print(f"wrote {a.results} and {a.csv} ({time.perf_counter() - t0:.0f} s)", file=sys.stderr)


def report(rows, held_noise_rows, clean_rows, pure_rows, known, timing, a, argv):
    peer_list = list(peers.PEERS)

    def k(r, m, i=0):
        return known.get((r["image"], r["noise"], r["sigma"], m), (float("nan"), float("nan")))[i]

    def summary(sel):
        d = [r["psnr"] - k(r, "ours") for r in sel]
        return (f"{mean(r['psnr'] for r in sel):.2f}", f"{mean(k(r, 'ours') for r in sel):.2f}",
                f"{mean(d):+.2f}", f"{min(d):+.2f}",
                f"{mean(r['ssim'] for r in sel):.4f}", f"{mean(k(r, 'ours', 1) for r in sel):.4f}",
                f"{100 * mean(abs(r['sigma_ratio'] - 1) <= 0.1 for r in sel):.0f} %",
                f"{float(np.median([r['spectrum_error'] for r in sel])):.2f}")

    head = ["cases", "blind PSNR", "known-spectrum PSNR", "mean diff", "worst diff", "blind SSIM",
            "known SSIM", "sigma within 10 %", "median spectrum error"]
    tuned = [r for r in rows if r["image"] not in HELD_OUT_IMAGES]
    held = [r for r in rows if r["image"] in HELD_OUT_IMAGES]
    lines = [BEGIN, "", "## Blind: the noise estimated from the noisy image", "",
             "Ours with the spectrum `sw::estimate_noise` reads from the noisy image itself, against ours "
             "with the true spectrum and the peers (which keep their true-spectrum oracle tuning; their "
             "figures are those of the table above). Spectrum error: relative L2 distance of the "
             "estimated and the true spectrum, both averaged onto a 32 x 32 frequency grid. "
             f"Images {', '.join(HELD_OUT_IMAGES)} were kept out of every choice made for the estimator.", "",
             "Reproduce (the peers are read from RESULTS.csv): `nice /usr/bin/python3 bench/quality/blind.py "
             + " ".join(argv) + "`", "",
             f"Cases: {len(rows)} ({', '.join(dict.fromkeys(r['image'] for r in rows))} x "
             f"{len(set(r['noise'] for r in rows))} noise kinds x sigma "
             f"{', '.join(f'{v:g}' for v in dict.fromkeys(r['sigma'] for r in rows))}).", ""]
    summ = [["all " + str(len(rows))] + list(summary(rows))]
    if tuned:
        summ.append([f"tuning images ({len(tuned)})"] + list(summary(tuned)))
    if held:
        summ.append([f"held-out images ({len(held)})"] + list(summary(held)))
    lines += [quality.table(head, summ), ""]
    means = [("blind", mean(r["psnr"] for r in rows)), ("known spectrum", mean(k(r, "ours") for r in rows))]
    means += [(m, mean(k(r, m) for r in rows)) for m in peer_list]
    lines += ["Mean PSNR over the same cases: " + ", ".join(f"{m} {v:.2f}" for m, v in means) + " dB.", ""]
    ratios = np.array([r["sigma_ratio"] for r in rows])
    q = np.quantile(ratios, [0.05, 0.25, 0.5, 0.75, 0.95])
    lines += ["Estimated sigma over the true one: quantiles 5/25/50/75/95 % "
              + " / ".join(f"{v:.3f}" for v in q)
              + f"; within 10 % on {100 * np.mean(np.abs(ratios - 1) <= 0.1):.0f} %, within 20 % on "
              f"{100 * np.mean(np.abs(ratios - 1) <= 0.2):.0f} % of the cases. Cases more than 1.5 dB below "
              f"the known spectrum: {sum(r['psnr'] - k(r, 'ours') < -1.5 for r in rows)} of {len(rows)}.", ""]
    per_image = []
    for im in dict.fromkeys(r["image"] for r in rows):
        sel = [r for r in rows if r["image"] == im]
        s = summary(sel)
        per_image.append([im, s[0], s[1], s[2], s[3], s[6]])
    lines += [quality.table(["image", "blind", "known", "mean diff", "worst diff", "sigma within 10 %"],
                            per_image), ""]
    per = []
    for n in dict.fromkeys(r["noise"] for r in rows):
        sel = [r for r in rows if r["noise"] == n]
        s = summary(sel)
        best_peer = max(mean(k(r, m) for r in sel) for m in peer_list)
        per.append([n, s[0], s[1], s[2], s[3], f"{best_peer:.2f}", s[6], s[7]])
    lines += [quality.table(["noise", "blind", "known", "mean diff", "worst diff", "best peer",
                             "sigma within 10 %", "median spectrum error"], per), ""]
    worst = sorted(rows, key=lambda r: r["psnr"] - k(r, "ours"))[:8]
    lines += ["Worst cases (blind minus known-spectrum PSNR): " + "; ".join(
        f"{r['image']}/{r['noise']}/{r['sigma']:g} {r['psnr'] - k(r, 'ours'):+.2f} dB "
        f"(sigma x{r['sigma_ratio']:.2f})" for r in worst) + ".", ""]
    if held_noise_rows:
        d = [r["psnr"] - r["known"] for r in held_noise_rows]
        lines += [f"Noise kinds kept out of tuning (sigma {HELD_OUT_NOISE_LEVEL:g}; known-spectrum figures "
                  f"computed here, no peers): mean blind {mean(r['psnr'] for r in held_noise_rows):.2f}, "
                  f"known {mean(r['known'] for r in held_noise_rows):.2f} dB, mean diff {mean(d):+.2f}, "
                  f"worst {min(d):+.2f} dB, sigma within 10 % on "
                  f"{100 * mean(abs(r['sigma_ratio'] - 1) <= 0.1 for r in held_noise_rows):.0f} %.", "",
                  quality.table(["image", "noise", "blind", "known", "diff", "sigma ratio", "spectrum error"],
                                [[r["image"], r["noise"], f"{r['psnr']:.2f}", f"{r['known']:.2f}",
                                  f"{r['psnr'] - r['known']:+.2f}", f"{r['sigma_ratio']:.3f}",
                                  f"{r['spectrum_error']:.2f}"] for r in held_noise_rows]), ""]
    lines += ["Noise-free images, blind denoising (largest change in 8-bit grey levels, share of pixels "
              "changed by more than 1):", "",
              quality.table(["image", "estimated sigma", "largest change", "share > 1 level"],
                            [[r["image"], f"{r['sigma']:.4f}", f"{r['max_change']:.2f}",
                              f"{100 * r['over_1']:.2f} %"] for r in clean_rows]), ""]
    lines += ["Pure noise, sigma 0.1, 512 x 512 on flat grey:", "",
              quality.table(["noise", "sigma ratio", "spectrum error", "white", "usable share"],
                            [[r["noise"], f"{r['sigma_ratio']:.3f}", f"{r['spectrum_error']:.3f}",
                              "yes" if r["white"] else "no", f"{r['usable']:.2f}"] for r in pure_rows]), ""]
    lines += [f"Estimation time, 512 x 512, 2 threads: {timing['seconds']:.3f} s (fastest of 5, this machine, "
              "shared).", "", END]
    return "\n".join(lines)


if __name__ == "__main__":
    main()
