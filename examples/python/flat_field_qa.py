#!/usr/bin/python3
"""Flat-field quality check of a sensor, here the virtual one: a few flat exposures at each of
several doses, then for each dose the flat-field uniformity of the corrected image and its
temporal noise, and a plot of the noise against the signal (a photon transfer curve: noise that
grows with the square root of the signal is shot noise, a floor at low signal is read noise).

    flat_field_qa.py [--doses 5000 10000 20000 40000] [--exposures 3] [--plot noise.png]

Needs the veltrano package with the virtual sensor installed beside the library, numpy and
matplotlib (Debian: python3-numpy, python3-matplotlib).
"""
import argparse
import contextlib
import os
import pathlib
import sys
import tempfile

import numpy as np

import veltrano

# Rows at the top that hold the cut corners of the 1000-size sensor (its corner cut is 211).
CORNER_ROWS = 212
BLOCK = 50  # side of the blocks whose means make the uniformity figures


@contextlib.contextmanager
def library_log(keep):
    """The driver and the library write their progress lines to standard output; unless they are
    wanted, they go to the null device while the sensor works."""
    if keep:
        yield
        return
    sys.stdout.flush()
    saved = os.dup(1)
    with open(os.devnull, "w") as null:
        os.dup2(null.fileno(), 1)
    try:
        yield
    finally:
        os.dup2(saved, 1)
        os.close(saved)


def acquire_flats(workdir, dose, exposures):
    """Exposures of a uniform field at one dose, corrected by the library."""
    (workdir / "VirtualSensor.ini").write_text(
        f"[VirtualSensor]\nSensorSize = 1000\nScene = flat\nDose = {dose}\nExposureMs = 50\n")
    if veltrano.virtual_sensor_write_calibration(workdir, 4) != 0:
        sys.exit(f"cannot write the virtual sensor's calibration into {workdir}")
    with veltrano.Detector(workdir) as detector:
        return [detector.acquire(delay=0, trigger_mode=6, threshold=100) for _ in range(exposures)]


def measure(frames):
    """Signal, uniformity and temporal noise of the area below the cut corners."""
    area = np.stack([frame[CORNER_ROWS:] for frame in frames]).astype(np.float64)
    mean_frame = area.mean(axis=0)
    signal = mean_frame.mean()
    rows, cols = (s // BLOCK * BLOCK for s in mean_frame.shape)
    blocks = mean_frame[:rows, :cols].reshape(rows // BLOCK, BLOCK, cols // BLOCK, BLOCK).mean(axis=(1, 3))
    # Integral non-uniformity (max - min) / (max + min) of the block means, and their spread.
    non_uniformity = (blocks.max() - blocks.min()) / (blocks.max() + blocks.min())
    block_spread = blocks.std() / signal
    # Temporal noise from the differences of successive frames: the fixed pattern cancels.
    differences = np.diff(area, axis=0)
    noise = differences.std(axis=(1, 2)).mean() / np.sqrt(2.0)
    return signal, non_uniformity, block_spread, noise


def plot(results, path):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    signal = np.array([r[1] for r in results])
    noise = np.array([r[4] for r in results])
    # Shot-noise model noise^2 = k * signal + read^2, fitted by least squares.
    k, read2 = np.polyfit(signal, noise ** 2, 1)
    model = np.geomspace(signal.min() / 2, signal.max() * 2, 100)
    fig, ax = plt.subplots(figsize=(6, 4.5))
    ax.loglog(signal, noise, "o", label="measured")
    ax.loglog(model, np.sqrt(np.maximum(k * model + read2, 1e-9)), "-",
              label=f"fit: noise² = {k:.2f}·signal + {max(read2, 0):.0f}")
    ax.set_xlabel("signal (mean corrected value)")
    ax.set_ylabel("temporal noise (standard deviation)")
    ax.set_title("Noise against signal, flat exposures")
    ax.grid(True, which="both", alpha=0.3)
    ax.legend()
    fig.tight_layout()
    fig.savefig(path, dpi=100)
    return k, read2


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--doses", type=int, nargs="+", default=[5000, 10000, 20000, 40000])
    parser.add_argument("--exposures", type=int, default=3, help="flat exposures per dose (at least 2)")
    parser.add_argument("--plot", type=pathlib.Path, default=pathlib.Path("flat_field_noise.png"))
    parser.add_argument("--workdir", type=pathlib.Path, help="work directory (default: a temporary one)")
    parser.add_argument("--verbose", action="store_true", help="show the library's own progress lines")
    args = parser.parse_args()
    if args.exposures < 2:
        parser.error("--exposures must be at least 2: the noise comes from frame differences")

    with tempfile.TemporaryDirectory() as scratch:
        workdir = args.workdir or pathlib.Path(scratch)
        workdir.mkdir(parents=True, exist_ok=True)
        results = []
        print(f"{'dose':>7} {'signal':>9} {'non-unif.':>9} {'blocks':>8} {'noise':>8} {'SNR':>7}")
        for dose in args.doses:
            with library_log(args.verbose):
                frames = acquire_flats(workdir, dose, args.exposures)
            signal, non_uniformity, spread, noise = measure(frames)
            results.append((dose, signal, non_uniformity, spread, noise))
            print(f"{dose:7d} {signal:9.1f} {non_uniformity:8.3%} {spread:8.3%} {noise:8.2f} {signal / noise:7.1f}")
    if len(results) >= 2:
        k, read2 = plot(results, args.plot)
        print(f"noise² ≈ {k:.3f}·signal {read2:+.1f}; plot written to {args.plot}")
    worst = max(r[2] for r in results)
    print(f"flat-field uniformity: worst non-uniformity {worst:.3%} "
          f"({'within' if worst < 0.02 else 'above'} 2 %)")


if __name__ == "__main__":
    main()
