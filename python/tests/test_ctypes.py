"""The C interface from a language that knows nothing of C++: ctypes, with the functions declared
the way any foreign host declares them, checked against results computed here with numpy."""
import ctypes
from ctypes import c_char_p, c_int, c_void_p

import numpy as np

import veltrano


def test_a_foreign_caller_filters_an_image_through_the_c_interface(clib):
    clib.vt_version.restype = c_char_p
    clib.vt_version.argtypes = []
    assert clib.vt_version().decode() == veltrano.__version__

    box = clib.vt_Box_Filter
    box.argtypes = [c_void_p, c_void_p, c_int, c_int, c_int, c_int]
    box.restype = c_int
    src = np.random.default_rng(1).uniform(1, 100, size=(40, 50))
    dst = np.zeros_like(src)
    assert box(src.ctypes.data, dst.ctypes.data, 50, 40, 11, 1) == 1  # 11: float64
    # Away from the border every pixel is the mean of its 3 x 3 window.
    windows = sum(src[1 + dy:39 + dy, 1 + dx:49 + dx] for dy in (-1, 0, 1) for dx in (-1, 0, 1))
    np.testing.assert_allclose(dst[1:-1, 1:-1], windows / 9, rtol=1e-12)

    clib.vt_last_error.restype = c_char_p
    clib.vt_last_error.argtypes = []
    assert box(None, dst.ctypes.data, 50, 40, 11, 1) == -1
    assert clib.vt_last_error() == b"Box_Filter returned -1"


def test_a_foreign_caller_fills_a_record_structure(clib):
    class WLNParam(ctypes.Structure):
        _fields_ = [("wl", c_int), ("wr", c_int), ("specifymin", c_int), ("specifymax", c_int)]

    record = WLNParam(1, 2, 3, 4)
    clib.vt_struWLNParam_init.argtypes = [ctypes.POINTER(WLNParam)]
    assert clib.vt_struWLNParam_init(ctypes.byref(record)) == 1
    assert (record.wl, record.wr, record.specifymin, record.specifymax) == (0, 0, 0, 65535)
