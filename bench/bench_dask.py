"""Tiled denoising of one large image with Dask: time, peak memory per
worker, 1 and 2 workers, and the check that the tiles give the whole-image
call's bits (when --check).

    PYTHONPATH=build/python /usr/bin/python3 bench/bench_dask.py \\
        --side 4096 --chunk 1024 --preset fast --workers 1 2
"""

import argparse
import os
import resource
import sys
import time

import numpy as np


def test_image(side, seed=7):
    """The camera image tiled to side x side, with coloured noise (3 x 3
    binomial kernel, standard deviation 0.1)."""
    import imageio
    here = os.path.dirname(os.path.abspath(__file__))
    camera = np.asarray(imageio.imread(os.path.join(here, "..", "data", "camera.png")), float) / 255
    reps = -(-side // camera.shape[0])
    clean = np.tile(camera, (reps, reps))[:side, :side]
    rng = np.random.default_rng(seed)
    w = rng.standard_normal((side + 2, side + 2))
    k = np.outer([1.0, 2.0, 1.0], [1.0, 2.0, 1.0])
    n = sum(k[i, j] * w[i:i + side, j:j + side] for i in range(3) for j in range(3))
    return clean + 0.1 * n / np.linalg.norm(k), k


def peak_rss_mib():
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024.0


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--side", type=int, default=4096)
    p.add_argument("--chunk", type=int, default=1024)
    p.add_argument("--preset", default="fast")
    p.add_argument("--workers", type=int, nargs="+", default=[1, 2])
    p.add_argument("--check", action="store_true", help="compare with the whole-image call")
    a = p.parse_args()

    import dask.array as da
    from distributed import Client, LocalCluster
    import shapewiener
    import shapewiener.dask

    z, k = test_image(a.side)
    print(f"image {a.side} x {a.side}, chunks {a.chunk}, preset {a.preset}, "
          f"halo {shapewiener.dask.tile_halo(a.preset)}")
    results = {}
    for workers in a.workers:
        with LocalCluster(host="127.0.0.1", protocol="tcp://", n_workers=workers,
                          threads_per_worker=1, processes=True, dashboard_address="127.0.0.1:0") as cluster, \
                Client(cluster) as client:
            array = da.from_array(z, chunks=a.chunk)
            array = client.persist(array)          # the input on the workers, not timed
            start = time.monotonic()
            out = shapewiener.dask.denoise(array, kernel=k, sigma=0.1, preset=a.preset).compute()
            seconds = time.monotonic() - start
            peaks = client.run(peak_rss_mib)
            results[workers] = out
            print(f"workers {workers}: {seconds:.1f} s, peak RSS per worker "
                  + ", ".join(f"{v:.0f} MiB" for v in peaks.values()))
    if a.check:
        start = time.monotonic()
        whole = shapewiener.denoise(z, kernel=k, sigma=0.1, preset=a.preset, threads=1)
        print(f"whole image, one thread: {time.monotonic() - start:.1f} s, "
              f"peak RSS of this process {peak_rss_mib():.0f} MiB")
        for workers, out in results.items():
            print(f"workers {workers}: {np.count_nonzero(out != whole)} pixels differ from the whole-image call")
    return 0


if __name__ == "__main__":
    sys.exit(main())
