"""Shared fixtures: the library's C interface through ctypes (the oracle that the package's
results are compared with), and work directories for the virtual sensor."""
import ctypes
import os

import numpy as np
import pytest

import veltrano

# Pixel-type codes of the library by dtype.
CODES = {np.dtype(np.uint8): 3, np.dtype(np.uint16): 4, np.dtype(np.int16): 5,
         np.dtype(np.float32): 6, np.dtype(np.int32): 8, np.dtype(np.float64): 11}


def _loaded_library():
    """The libveltrano that the package itself loaded (VELTRANO_LIBRARY may name another)."""
    if os.environ.get("VELTRANO_LIBRARY"):
        return os.environ["VELTRANO_LIBRARY"]
    with open("/proc/self/maps") as maps:
        for line in maps:
            if "libveltrano.so" in line:
                return line.split()[-1]
    raise RuntimeError("libveltrano is not loaded; set VELTRANO_LIBRARY")


@pytest.fixture(scope="session")
def clib():
    return ctypes.CDLL(_loaded_library())


def random_image(dtype, seed, shape=(23, 37)):
    """A random image whose values suit the type: full range for the unsigned integers."""
    rng = np.random.default_rng(seed)
    dtype = np.dtype(dtype)
    if dtype == np.uint8 or dtype == np.uint16:
        return rng.integers(0, np.iinfo(dtype).max, size=shape, endpoint=True, dtype=dtype)
    if dtype == np.int16:
        return rng.integers(-3000, 3000, size=shape, dtype=dtype)
    if dtype == np.int32:
        return rng.integers(-100000, 100000, size=shape, dtype=dtype)
    if dtype == np.float32:
        return rng.uniform(1, 1000, size=shape).astype(dtype)
    return rng.uniform(-5, 5, size=shape).astype(dtype)


@pytest.fixture
def sensor_dir(tmp_path):
    """Makes a work directory for the virtual sensor with the given VirtualSensor.ini lines and
    its calibration files; the exposure is short to keep the tests quick."""
    def make(*lines, frames=1):
        (tmp_path / "VirtualSensor.ini").write_text(
            "[VirtualSensor]\nExposureMs = 50\n" + "\n".join(lines) + "\n")
        assert veltrano.virtual_sensor_write_calibration(tmp_path, frames) == 0
        return tmp_path
    return make
