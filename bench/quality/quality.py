#!/usr/bin/python3
"""Quality benchmark: shapewiener against the denoisers a user would pick
instead, on the same noisy images (see README.md in this folder).

    nice -n 15 /usr/bin/python3 bench/quality/quality.py            # full run
    nice -n 15 /usr/bin/python3 bench/quality/quality.py --quick    # smoke run
    nice -n 15 /usr/bin/python3 bench/quality/quality.py --peers-only --jobs 2

Peer results are cached per case under --cache, so a rerun computes only
what is missing; "ours" is cached by the hash of the command's files, the
preset and the noise form.
"""

import argparse
import csv
import datetime
import glob
import hashlib
import json
import os
import platform
import resource
import shlex
import shutil
import subprocess
import sys
import tempfile
import time

for _v in ("OMP_NUM_THREADS", "OPENBLAS_NUM_THREADS", "MKL_NUM_THREADS"):
    os.environ.setdefault(_v, "1")

import numpy as np  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, HERE)

import cases  # noqa: E402
import peers  # noqa: E402

DEFAULT_SEED = 20240607
FIGURE_CASE = ("camera", "ring", 0.1)
FIGURE_CROP = (50, 130, 256)  # top row, left column, side


# ------------------------------------------------------------------- cache

def _write_json(path, obj):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    tmp = f"{path}.{os.getpid()}.tmp"
    with open(tmp, "w") as f:
        json.dump(obj, f, indent=1, sort_keys=True)
    os.replace(tmp, path)


def _read_json(path):
    try:
        with open(path) as f:
            return json.load(f)
    except (OSError, ValueError):
        return None


def case_dir(cache, image):
    return os.path.join(cache, image)


def result_path(cache, case, tag):
    image, noise, level = case
    return os.path.join(case_dir(cache, image), f"{noise}-{level:g}.{tag}.json")


def peer_tag(method, grid_name):
    return f"{method}-{peers.key(method, peers.GRIDS[grid_name])}"


def build_case(case, seed):
    image, noise, level = case
    clean = cases.load_image(image)
    psd = cases.noise_psd(noise, clean.shape, level)
    noisy = clean + cases.make_noise(noise, clean.shape, level,
                                     cases.case_rng(seed, image, noise, level))
    return clean, noisy, psd


def compute_peers(job):
    """Worker: tunes the missing peers of one case and caches them."""
    case, methods, grid_name, seed, cache = job
    clean, noisy, psd = build_case(case, seed)
    out = {}
    for m in methods:
        t, c = time.perf_counter(), time.process_time()
        r = peers.tune(m, clean, noisy, psd, peers.GRIDS[grid_name])
        r.pop("estimate")
        r["tune_seconds"] = time.perf_counter() - t
        r["tune_cpu_seconds"] = time.process_time() - c
        _write_json(result_path(cache, case, peer_tag(m, grid_name)), r)
        out[m] = r
    return case, out


# -------------------------------------------------------------------- ours

def find_binary():
    """The newest executable named shapewiener under build*/ (not a MEX)."""
    found = [p for p in glob.glob(os.path.join(ROOT, "build*", "**", "shapewiener"), recursive=True)
             if os.path.isfile(p) and os.access(p, os.X_OK)]
    return max(found, key=os.path.getmtime) if found else None


def command_key(cmd, preset, noise_form):
    """Hash of the command's files (binary, scripts), preset and noise form."""
    h = hashlib.sha256()
    for i, tok in enumerate(cmd):
        path = shutil.which(tok) if i == 0 else (tok if os.path.isfile(tok) else None)
        h.update(tok.encode() + b"\0")
        if path:
            with open(path, "rb") as f:
                h.update(hashlib.sha256(f.read()).digest())
    h.update(f"{preset}\0{noise_form}".encode())
    return h.hexdigest()[:16]


def run_ours(cmd, case, noisy, psd, preset, threads, noise_form, tmp):
    """Runs `cmd denoise in.npy out.npy <noise> [--preset P] --threads N`."""
    _, noise, level = case
    src, dst = os.path.join(tmp, "in.npy"), os.path.join(tmp, "out.npy")
    np.save(src, noisy)
    kernel = cases.native_kernel(noise)
    if noise_form == "native" and noise == "white":
        noise_args = ["--sigma", repr(level)]
    elif noise_form == "native" and kernel is not None:
        np.save(os.path.join(tmp, "kernel.npy"), kernel)
        noise_args = ["--kernel", os.path.join(tmp, "kernel.npy"), "--sigma", repr(level)]
    else:
        np.save(os.path.join(tmp, "psd.npy"), psd)
        noise_args = ["--psd", os.path.join(tmp, "psd.npy")]
    args = list(cmd) + ["denoise", src, dst] + noise_args
    if preset:
        args += ["--preset", preset]
    args += ["--threads", str(threads)]
    if os.path.exists(dst):
        os.remove(dst)
    ru = resource.getrusage(resource.RUSAGE_CHILDREN)
    t = time.perf_counter()
    proc = subprocess.run(args, capture_output=True, text=True)
    dt = time.perf_counter() - t
    ru2 = resource.getrusage(resource.RUSAGE_CHILDREN)
    cpu = ru2.ru_utime + ru2.ru_stime - ru.ru_utime - ru.ru_stime
    if proc.returncode != 0:
        sys.exit(f"ours failed on {case} (exit {proc.returncode}):\n  {shlex.join(args)}\n"
                 f"{proc.stderr.strip()}")
    est = np.load(dst)
    if est.shape != noisy.shape or not np.issubdtype(est.dtype, np.floating):
        sys.exit(f"ours wrote {est.shape} {est.dtype} for a {noisy.shape} image on {case}")
    return est.astype(np.float64), dt, cpu


# ------------------------------------------------------------------ report

def _mean(xs):
    return float(np.mean(xs)) if xs else float("nan")


def machine():
    cpu = platform.processor() or "unknown CPU"
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    cpu = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    osname = platform.platform()
    try:
        with open("/etc/os-release") as f:
            for line in f:
                if line.startswith("PRETTY_NAME="):
                    osname = line.split("=", 1)[1].strip().strip('"')
    except OSError:
        pass
    import scipy
    import skimage
    return (f"{cpu}, {os.cpu_count()} cores, {osname}; Python {platform.python_version()}, "
            f"NumPy {np.__version__}, SciPy {scipy.__version__}, scikit-image {skimage.__version__}")


def table(header, rows):
    out = ["| " + " | ".join(header) + " |", "|" + "---|" * len(header)]
    out += ["| " + " | ".join(str(c) for c in r) + " |" for r in rows]
    return "\n".join(out)


def write_report(path, records, methods, ours_labels, info):
    """RESULTS.md: means per method and per noise kind, winners, per case."""
    keys = sorted(records, key=lambda c: (cases.IMAGES.index(c[0]) if c[0] in cases.IMAGES else 99,
                                          list(cases.NOISES).index(c[1]), c[2]))
    shown = ["noisy"] + list(methods)
    contenders = [m for m in methods]  # everything but the noisy input
    peer_set = [m for m in methods if m not in ours_labels]
    noises = [n for n in cases.NOISES if any(k[1] == n for k in keys)]
    levels = sorted({k[2] for k in keys})

    def val(k, m, f="psnr"):
        return records[k][m][f]

    L = []
    L.append("# Quality benchmark: results\n")
    if not ours_labels:
        L.append("**Peers only: shapewiener (\"ours\") is not in these tables yet.** The peer results "
                 "are cached; the run with the command line tool adds its column (see README.md).\n")
    L.append(f"- Date: {info['date']}")
    L.append(f"- Machine: {info['machine']}")
    L.append(f"- Command (from the repository root): `{info['command']}`")
    L.append(f"- Cases: {len(keys)} ({len({k[0] for k in keys})} images x {len(noises)} noises x "
             f"{len(levels)} noise levels), seed {info['seed']}, grids `{info['grid']}`")
    L.append(f"- Peer tuning, all cases (cached ones included): {info['tune_cpu']:.0f} CPU s, i.e. "
             f"{info['tune_cpu'] / 120:.0f} min on 2 free cores ({info['tune_wall']:.0f} s of worker "
             f"wall time on this shared machine); this run's wall time {info['wall']:.0f} s")
    if ours_labels:
        L.append(f"- Ours: `{info['ours_command']}`, threads {info['threads']}, noise given as "
                 f"{info['noise_form']}")
    L.append("")
    L.append("PSNR in dB (peak 1) and SSIM (data range 1) of the estimate clipped to [0, 1]. Peers are "
             "oracle-tuned per case against the clean image (README.md gives the grids); ours runs "
             "with its preset, untuned. Times are one run of one image at the chosen parameters: CPU "
             "time of the process (all peers are single-threaded; ours counts all its threads) and "
             "wall time, on a shared machine under `nice`, so compare wall times only roughly.\n")

    L.append("## Means over all cases\n")
    rows = []
    for m in shown:
        ps = [val(k, m) for k in keys]
        ss = [val(k, m, "ssim") for k in keys]
        if m == "noisy":
            rows.append([m, f"{_mean(ps):.2f}", f"{_mean(ss):.4f}", "", "", "", ""])
            continue
        ts = [val(k, m, "seconds") for k in keys]
        cs = [val(k, m, "cpu_seconds") for k in keys]
        mp = [val(k, m, "cpu_seconds") / (records[k]["noisy"]["pixels"] / 1e6) for k in keys]
        wins = sum(1 for k in keys if max(contenders, key=lambda c: val(k, c)) == m)
        rows.append([m, f"{_mean(ps):.2f}", f"{_mean(ss):.4f}", f"{_mean(cs):.3f}",
                     f"{_mean(mp):.3f}", f"{_mean(ts):.3f}", wins])
    L.append(table(["method", "mean PSNR", "mean SSIM", "CPU s / image", "CPU s / Mpixel",
                    "wall s / image", "cases won (PSNR)"], rows))
    L.append("")

    def kind_table(sel, label):
        rows = []
        for n in noises:
            ks = [k for k in keys if k[1] == n and sel(k)]
            if not ks:
                continue
            means = {m: _mean([val(k, m) for k in ks]) for m in shown}
            smeans = {m: _mean([val(k, m, "ssim") for k in ks]) for m in contenders}
            win = max(contenders, key=lambda m: means[m])
            swin = max(contenders, key=lambda m: smeans[m])
            row = [n] + [f"{means[m]:.2f}" for m in shown] + [f"**{win}**", swin]
            if ours_labels and peer_set:
                best_peer = max(peer_set, key=lambda m: means[m])
                row.append(" / ".join(f"{means[o] - means[best_peer]:+.2f}" for o in ours_labels))
            rows.append(row)
        head = ["noise"] + shown + ["winner (PSNR)", "winner (SSIM)"]
        if ours_labels and peer_set:
            head.append("ours - best peer (dB)")
        L.append(f"## Mean PSNR per noise kind, {label}\n")
        L.append(table(head, rows))
        L.append("")

    kind_table(lambda k: True, "all levels" if len(levels) > 1 else f"sigma {levels[0]:g}")
    if len(levels) > 1:
        for lv in levels:
            kind_table(lambda k, lv=lv: k[2] == lv, f"sigma {lv:g}")

    L.append("## Mean PSNR per image\n")
    rows = []
    for im in [i for i in cases.IMAGES if any(k[0] == i for k in keys)]:
        ks = [k for k in keys if k[0] == im]
        means = {m: _mean([val(k, m) for k in ks]) for m in shown}
        rows.append([im] + [f"{means[m]:.2f}" for m in shown]
                    + [max(contenders, key=lambda m: means[m])])
    L.append(table(["image"] + shown + ["winner"], rows))
    L.append("")

    L.append("## Per case: PSNR / SSIM\n")
    rows = []
    for k in keys:
        best = max(contenders, key=lambda m: val(k, m))
        rows.append([k[0], k[1], f"{k[2]:g}"]
                    + [(f"**{val(k, m):.2f}**" if m == best else f"{val(k, m):.2f}")
                       + f" / {val(k, m, 'ssim'):.3f}" for m in shown])
    L.append(table(["image", "noise", "sigma"] + shown, rows))
    L.append("")

    L.append("## Chosen peer parameters per case\n")
    rows = []
    for k in keys:
        rows.append([k[0], k[1], f"{k[2]:g}"]
                    + ["; ".join(f"{a}={_fmt(b)}" for a, b in sorted(records[k][m]["params"].items()))
                       for m in peer_set])
    L.append(table(["image", "noise", "sigma"] + peer_set, rows))
    L.append("")
    with open(path, "w") as f:
        f.write("\n".join(L))


def _fmt(v):
    if isinstance(v, float):
        return f"{v:.4g}"
    if isinstance(v, list):
        return "x".join(str(x) for x in v)
    return str(v)


def write_csv(path, records, methods):
    with open(path, "w") as f:
        f.write("image,noise,sigma,method,psnr,ssim,cpu_seconds,seconds\n")
        for k in sorted(records):
            for m in ["noisy"] + list(methods):
                r = records[k][m]
                f.write(f"{k[0]},{k[1]},{k[2]:g},{m},{r['psnr']:.4f},{r['ssim']:.5f},"
                        f"{r['cpu_seconds']:.4f},{r['seconds']:.4f}\n")


def write_figure(path, noisy, ours, peer, crop):
    """noisy | ours | best peer, 8-bit grey PNG, crop of side `crop[2]`."""
    from PIL import Image
    r, c, s = crop
    gap = np.ones((s, 4))
    panels = []
    for a in (noisy, ours, peer):
        panels += [np.clip(a[r:r + s, c:c + s], 0, 1), gap]
    img = np.hstack(panels[:-1])
    Image.fromarray(np.round(img * 255).astype(np.uint8)).save(path, optimize=True)


# -------------------------------------------------------------------- main

def parse_args(argv):
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    p.add_argument("--quick", action="store_true",
                   help="smoke run: 2 images, sigma 0.1, small grids")
    p.add_argument("--images", help=f"comma list (default: {','.join(cases.IMAGES)})")
    p.add_argument("--noises", help=f"comma list (default: {','.join(cases.NOISES)})")
    p.add_argument("--levels", help="comma list of noise std (default: 0.05,0.1)")
    p.add_argument("--peers", default=",".join(peers.PEERS), help="comma list of peers")
    p.add_argument("--seed", type=int, default=DEFAULT_SEED)
    p.add_argument("--jobs", type=int, default=1, help="parallel peer workers (default 1)")
    p.add_argument("--cache", default=os.path.join(HERE, ".cache"))
    p.add_argument("--peers-only", action="store_true", help="leave ours out")
    p.add_argument("--shapewiener", help="path of the command line tool "
                   "(default: newest build*/**/shapewiener)")
    p.add_argument("--ours-command", help="command to run instead of the tool, e.g. "
                   "'/usr/bin/python3 bench/quality/standin_shapewiener.py'")
    p.add_argument("--preset", default="", help="preset(s) for ours, comma list "
                   "(default: the tool's own)")
    p.add_argument("--threads", type=int, default=1, help="--threads for ours (default 1)")
    p.add_argument("--noise-form", choices=("psd", "native"), default="psd",
                   help="psd: always --psd; native: --sigma for white, --kernel + --sigma "
                        "for single-kernel noises, --psd for the rest")
    p.add_argument("--rerun-ours", action="store_true", help="ignore cached ours results")
    p.add_argument("--before", action="append", default=[], metavar="LABEL=CSV",
                   help="an earlier ours beside this one: the 'ours' rows of a CSV this script "
                        "wrote, shown as method LABEL (repeatable)")
    p.add_argument("--results", help="markdown output (default bench/quality/RESULTS.md; "
                   "with --quick, <cache>/RESULTS-quick.md)")
    p.add_argument("--figure", help="before/after PNG (default bench/quality/before_after.png; "
                   "with --quick, <cache>/before_after-quick.png); written when ours ran")
    return p.parse_args(argv)


def main(argv=None):
    a = parse_args(argv)
    t_start = time.perf_counter()
    grid = "quick" if a.quick else "full"
    images = a.images.split(",") if a.images else list(cases.QUICK_IMAGES if a.quick else cases.IMAGES)
    noises = a.noises.split(",") if a.noises else list(cases.NOISES)
    levels = ([float(x) for x in a.levels.split(",")] if a.levels
              else list(cases.QUICK_LEVELS if a.quick else cases.LEVELS))
    peer_list = [m for m in a.peers.split(",") if m]
    for m in peer_list:
        if m not in peers.PEERS:
            sys.exit(f"unknown peer {m!r}; known: {', '.join(peers.PEERS)}")
    for n in noises:
        if n not in cases.NOISES:
            sys.exit(f"unknown noise {n!r}; known: {', '.join(cases.NOISES)}")
    cache = os.path.join(a.cache, f"{grid}-seed{a.seed}")
    results = a.results or (os.path.join(a.cache, "RESULTS-quick.md") if a.quick
                            else os.path.join(HERE, "RESULTS.md"))
    figure = a.figure or (os.path.join(a.cache, "before_after-quick.png") if a.quick
                          else os.path.join(HERE, "before_after.png"))

    cmd = None
    if not a.peers_only:
        if a.ours_command:
            cmd = shlex.split(a.ours_command)
        else:
            binary = a.shapewiener or find_binary()
            if not binary or not os.path.isfile(binary):
                sys.exit("no shapewiener tool found under build*/; give --shapewiener PATH, "
                         "--ours-command CMD, or --peers-only")
            cmd = [os.path.abspath(binary)]
    presets = a.preset.split(",") if a.preset else [""]
    ours_labels = ([] if cmd is None else
                   ["ours" + (f"-{p}" if p else "") for p in presets])

    all_cases = [(im, n, lv) for im in images for n in noises for lv in levels]

    # Peers: compute what the cache lacks.
    jobs = []
    for c in all_cases:
        missing = [m for m in peer_list
                   if _read_json(result_path(cache, c, peer_tag(m, grid))) is None]
        if missing:
            jobs.append((c, missing, grid, a.seed, cache))
    if jobs:
        print(f"peers: {len(jobs)} of {len(all_cases)} cases to compute, {a.jobs} worker(s)",
              file=sys.stderr)
        if a.jobs > 1:
            import multiprocessing
            pool = multiprocessing.get_context("fork").Pool(a.jobs)
            it = pool.imap_unordered(compute_peers, jobs)
        else:
            pool, it = None, map(compute_peers, jobs)
        for i, (c, out) in enumerate(it, 1):
            figs = " ".join(f"{m} {r['psnr']:.2f}" for m, r in out.items())
            print(f"[{i}/{len(jobs)} {time.perf_counter() - t_start:.0f}s] "
                  f"{c[0]}/{c[1]}/{c[2]:g}: {figs}", file=sys.stderr)
        if pool:
            pool.close()
            pool.join()

    records = {}
    tune_cpu = tune_wall = 0.0
    for c in all_cases:
        clean, noisy, psd = build_case(c, a.seed)
        rec = {"noisy": {"psnr": peers.psnr(clean, noisy), "ssim": peers.ssim(clean, noisy),
                         "seconds": 0.0, "cpu_seconds": 0.0, "params": {},
                         "pixels": noisy.size}}
        for m in peer_list:
            rec[m] = _read_json(result_path(cache, c, peer_tag(m, grid)))
            tune_cpu += rec[m]["tune_cpu_seconds"]
            tune_wall += rec[m]["tune_seconds"]
        records[c] = rec

    # Ours: one case at a time, in this process (clean timing).
    figure_ours = {}
    if cmd is not None:
        with tempfile.TemporaryDirectory(prefix="swq-") as tmp:
            for preset, label in zip(presets, ours_labels):
                key = command_key(cmd, preset, a.noise_form)
                for i, c in enumerate(all_cases, 1):
                    path = result_path(cache, c, f"ours-{key}")
                    r = None if a.rerun_ours else _read_json(path)
                    want_est = c == FIGURE_CASE and label == ours_labels[0]
                    est_path = path[:-5] + ".npy"
                    if r is None or (want_est and not os.path.exists(est_path)):
                        clean, noisy, psd = build_case(c, a.seed)
                        est, dt, cpu = run_ours(cmd, c, noisy, psd, preset, a.threads,
                                                a.noise_form, tmp)
                        r = {"psnr": peers.psnr(clean, est), "ssim": peers.ssim(clean, est),
                             "seconds": dt, "cpu_seconds": cpu,
                             "params": {"preset": preset or "(default)"}}
                        _write_json(path, r)
                        if want_est:
                            np.save(est_path, est)
                        print(f"[{label} {i}/{len(all_cases)}] {c[0]}/{c[1]}/{c[2]:g}: "
                              f"{r['psnr']:.2f} dB, {dt:.2f} s", file=sys.stderr)
                    if want_est:
                        figure_ours[label] = np.load(est_path)
                    records[c][label] = r

    # Earlier ours results, read from CSVs of earlier runs.
    before_labels = []
    for given in a.before:
        label, _, path = given.partition("=")
        if not path or label in ours_labels + peer_list + ["noisy"]:
            sys.exit(f"--before {given!r}: give LABEL=CSV with a label of its own")
        with open(path) as f:
            rows = {(r["image"], r["noise"], float(r["sigma"])): r
                    for r in csv.DictReader(f) if r["method"] == "ours"}
        for c in all_cases:
            if c not in rows:
                sys.exit(f"--before {given!r}: no ours row for {c}")
            r = rows[c]
            records[c][label] = {k: float(r[k]) for k in ("psnr", "ssim", "cpu_seconds", "seconds")}
        before_labels.append(label)

    methods = before_labels + ours_labels + peer_list
    nice = os.nice(0)
    argv_s = shlex.join(sys.argv[1:] if argv is None else argv)
    command = (f"nice -n {nice} " if nice else "") + f"/usr/bin/python3 bench/quality/quality.py {argv_s}"
    info = {"date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC"),
            "machine": machine(), "command": command.strip(), "seed": a.seed, "grid": grid,
            "tune_cpu": tune_cpu, "tune_wall": tune_wall, "wall": time.perf_counter() - t_start,
            "ours_command": shlex.join(cmd) if cmd else "", "threads": a.threads,
            "noise_form": a.noise_form}
    write_report(results, records, methods, before_labels + ours_labels, info)
    write_csv(os.path.splitext(results)[0] + ".csv", records, methods)
    print(f"wrote {results}", file=sys.stderr)

    if figure_ours and FIGURE_CASE in records and peer_list:
        c = FIGURE_CASE
        best_peer = max(peer_list, key=lambda m: records[c][m]["psnr"])
        clean, noisy, psd = build_case(c, a.seed)
        peer_est = peers.rerun(best_peer, noisy, psd, records[c][best_peer]["params"])
        write_figure(figure, noisy, figure_ours[ours_labels[0]], peer_est, FIGURE_CROP)
        print(f"wrote {figure}: {c[0]}/{c[1]}/{c[2]:g}, noisy {records[c]['noisy']['psnr']:.2f} | "
              f"{ours_labels[0]} {records[c][ours_labels[0]]['psnr']:.2f} | {best_peer} "
              f"{records[c][best_peer]['psnr']:.2f} dB (whole image)", file=sys.stderr)


if __name__ == "__main__":
    main()
