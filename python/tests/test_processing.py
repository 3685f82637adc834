"""Every processing function on random images of each type it serves gives exactly what the
library's C interface gives when called directly through ctypes on the same buffers."""
import ctypes
import zlib
from ctypes import c_double as D, c_float as F, c_int as I, c_uint32 as U

import numpy as np
import pytest

import veltrano as vt
from conftest import CODES, random_image

H, W = 23, 37  # no multiple of anything a fast path works in
N = H * W
u8, u16, s16, f32, s32, f64 = (np.dtype(t) for t in
                               (np.uint8, np.uint16, np.int16, np.float32, np.int32, np.float64))
SUFFIX = {u8: "8U", u16: "16U", f32: "32F", f64: "64F"}


def P(array):
    return ctypes.c_void_p(array.ctypes.data)


def low_high(dtype, low, high):
    ctype = {u8: ctypes.c_uint8, u16: ctypes.c_uint16, f32: F, f64: D}[dtype]
    return ctype(low), ctype(high)


class ClaheParam(ctypes.Structure):
    _fields_ = [("widthBlockNum", I), ("heightBlockNum", I), ("histBin", I), ("peak", I),
                ("binScale", F), ("outMax", F)]


class AceGammaParam(ctypes.Structure):
    _fields_ = [("param1", I), ("param2", F), ("param3", F), ("param4", F), ("param5", I),
                ("param6", I), ("sectionIndex", I)]


class BilatralParam(ctypes.Structure):
    _fields_ = [("k_w", I), ("k_h", I), ("sigColor_x", F), ("sigColor_y", F),
                ("sigSpace_x", F), ("sigSpace_y", F)]


class USMParam(ctypes.Structure):
    _fields_ = [("r", I), ("isNeedNorm", I), ("lam", F)]


class WLNParam(ctypes.Structure):
    _fields_ = [("wl", I), ("wr", I), ("specifymin", I), ("specifymax", I)]


class ClipParam(ctypes.Structure):
    _fields_ = [("up", I), ("down", I), ("left", I), ("right", I)]


KERNEL = np.random.default_rng(7).uniform(-1, 1, size=(3, 5)).astype(np.float32)  # not separable
DEFECTS = np.random.default_rng(8).uniform(-0.5, 1.4, size=(H, W)).astype(np.float32)
MASK = np.random.default_rng(9).integers(0, 2, size=(H, W), dtype=np.uint8)

# name, dtypes, the package's call, the C interface's call on (source, destination), and the
# destination's dtype when it is not the source's.
CASES = [
    ("normalize", [u8, u16, f32, f64], lambda s: vt.normalize(s, 10, 200),
     lambda c, s, d: getattr(c, "vt_normalize_" + SUFFIX[s.dtype])(P(s), P(d), U(W), U(H), *low_high(s.dtype, 10, 200))),
    ("Normalize_TruncMinMax", [u8, s32], lambda s: vt.Normalize_TruncMinMax(s),
     lambda c, s, d: c.vt_Normalize_TruncMinMax(P(s), P(d), U(W), U(H), I(0), I(CODES[s.dtype]))),
    ("Inverse", [s16], lambda s: vt.Inverse(s), lambda c, s, d: c.vt_Inverse(P(s), P(d), I(W), I(H), I(5))),
    ("BrigntAndContrast", [u16], lambda s: vt.BrigntAndContrast(s, 100.0, 1.5),
     lambda c, s, d: c.vt_BrigntAndContrast(P(s), P(d), I(W), I(H), I(4), F(100), F(1.5))),
    ("GammaCorrect", [u8, u16, s16, f32], lambda s: vt.GammaCorrect(s, 0.7),
     lambda c, s, d: c.vt_GammaCorrect(P(s), P(d), U(W), U(H), F(0.7), I(CODES[s.dtype]))),
    ("Image_Log", [f32], lambda s: vt.Image_Log(s, 1), lambda c, s, d: c.vt_Image_Log(P(s), P(d), U(W), U(H), I(1))),
    ("Image_Square_NoTrunc", [u8, u16, s16, f32, s32], lambda s: vt.Image_Square_NoTrunc(s),
     lambda c, s, d: c.vt_Image_Square_NoTrunc(P(s), P(d), I(W), I(H), I(CODES[s.dtype])), f64),
    ("ThresholdBinary", [u8, u16], lambda s: vt.ThresholdBinary(s, 120.0 if s.dtype == u8 else 30000.0, 0),
     lambda c, s, d: c.vt_ThresholdBinary(P(s), P(d), I(CODES[s.dtype]), U(W), U(H), D(120.0 if s.dtype == u8 else 30000.0), U(0))),
    ("ImgGainCorrect", [f32], lambda s: vt.ImgGainCorrect(s), lambda c, s, d: c.vt_ImgGainCorrect(P(s), P(d), U(W), U(H))),
    ("EquHist", [u8, u16], lambda s: vt.EquHist(s), lambda c, s, d: c.vt_EquHist(P(s), P(d), I(N), I(CODES[s.dtype]))),
    ("clahe_Manual", [u8, u16, f32, f64], lambda s: vt.clahe_Manual(s, 4, 3, 64, 20),
     lambda c, s, d: getattr(c, f"vt_clahe_{SUFFIX[s.dtype]}_Manual")(P(s), P(d), I(W), I(H), I(4), I(3), I(64), I(20), b"")),
    ("AdaptiveContrastEnhancement", [u8, u16, s16], lambda s: vt.AdaptiveContrastEnhancement(s, 3, 1.5, 3.0),
     lambda c, s, d: c.vt_AdaptiveContrastEnhancement(P(s), P(d), U(W), U(H), I(CODES[s.dtype]), I(3), F(1.5), F(3.0))),
    ("AdaptiveContrastEnhancementQuick", [u8, u16, s16, f32], lambda s: vt.AdaptiveContrastEnhancementQuick(s, 2, 0.8, 2.0),
     lambda c, s, d: c.vt_AdaptiveContrastEnhancementQuick(P(s), P(d), U(W), U(H), I(CODES[s.dtype]), I(2), F(0.8), F(2.0))),
    ("Ace_Gamma", [u16, f32], lambda s: vt.Ace_Gamma(s, vt.struAceGammaParam(param1=3, param4=0.6, param5=1)),
     lambda c, s, d: c.vt_Ace_Gamma(P(s), P(d), I(W), U(H), I(CODES[s.dtype]), ctypes.byref(AceGammaParam(3, 1.0, 3.0, 0.6, 1, 0, 0)), b"")),
    ("WLN", [u16], lambda s: vt.WLN(s, vt.struWLNParam(wl=10000, wr=50000, specifymin=100, specifymax=4000)),
     lambda c, s, d: c.vt_WLN(P(s), P(d), U(W), U(H), ctypes.byref(WLNParam(10000, 50000, 100, 4000)))),
    # The kernel sizes go in each member's own order: rows first for 16U, columns first otherwise.
    ("filter2D", [u8, u16, f32], lambda s: vt.filter2D(s, KERNEL),
     lambda c, s, d: getattr(c, "vt_filter2D_" + SUFFIX[s.dtype])(P(s), P(d), I(W), I(H), P(KERNEL), *((I(3), I(5)) if s.dtype == u16 else (I(5), I(3))))),
    ("gaussFilter", [u8, u16, f32], lambda s: vt.gaussFilter(s, 5, 5, 1.5, 0.9),
     lambda c, s, d: getattr(c, "vt_gaussFilter_" + SUFFIX[s.dtype])(P(s), P(d), I(W), I(H), I(5), I(5), D(1.5), D(0.9))),
    ("Box_Filter", [u8, u16, s16, f32, f64], lambda s: vt.Box_Filter(s, 2),
     lambda c, s, d: c.vt_Box_Filter(P(s), P(d), I(W), I(H), I(CODES[s.dtype]), I(2))),
    ("Median_Blur", [u8, u16, s16, f32], lambda s: vt.Median_Blur(s, 2),
     lambda c, s, d: c.vt_Median_Blur(P(s), P(d), I(W), I(H), I(2), I(CODES[s.dtype]))),
    ("bilateralFilter", [u16, f32], lambda s: vt.bilateralFilter(s, vt.struBilatralParam(k_w=5, k_h=3, sigSpace_x=30.0)),
     lambda c, s, d: getattr(c, "vt_bilateralFilter_" + SUFFIX[s.dtype])(P(s), P(d), I(W), I(H), ctypes.byref(BilatralParam(5, 3, 0.5, 0.5, 30.0, 0.5)))),
    ("FastNLM", [u8], lambda s: vt.FastNLM(s, 12.0, 1, 2), lambda c, s, d: c.vt_FastNLM(P(s), P(d), I(W), I(H), F(12.0), I(1), I(2))),
    ("ImgFix", [f32], lambda s: vt.ImgFix(s, DEFECTS, 1, 20),
     lambda c, s, d: c.vt_ImgFix(P(s), P(d), P(DEFECTS), I(W), I(H), I(1), I(6), I(20))),
    ("FixBadPixel", [f32], lambda s: vt.FixBadPixel(s, DEFECTS), lambda c, s, d: c.vt_FixBadPixel(P(s), P(d), P(DEFECTS), I(W), I(H))),
    ("Copy_LeftDown_To_RightUp", [u8, s16, f32, f64], lambda s: vt.Copy_LeftDown_To_RightUp(s, 3, 2, 12),
     lambda c, s, d: c.vt_Copy_LeftDown_To_RightUp(P(s), P(d), I(W), I(H), I(CODES[s.dtype]), I(3), I(2), I(12))),
    ("Copy_RightDown_To_LeftUp", [u16, s32], lambda s: vt.Copy_RightDown_To_LeftUp(s, 20, 1, 9),
     lambda c, s, d: c.vt_Copy_RightDown_To_LeftUp(P(s), P(d), I(W), I(H), I(CODES[s.dtype]), I(20), I(1), I(9))),
    ("MakeMaskByLine", [u16], lambda s: vt.MakeMaskByLine(s, 0, 3, 30, 20, 1, 777),
     lambda c, s, d: c.vt_MakeMaskByLine(P(s), P(d), I(W), I(H), F(0), F(3), F(30), F(20), ctypes.c_uint8(1), ctypes.c_uint16(777))),
    ("ImageConv", [f32], lambda s: vt.ImageConv(s, KERNEL, MASK),
     lambda c, s, d: c.vt_ImageConv(P(s), P(d), P(KERNEL), I(W), I(H), I(5), I(3), P(MASK))),
    ("USM_BOX", [u16], lambda s: vt.USM_BOX(s, 2, 0.3, True), lambda c, s, d: c.vt_USM_BOX(P(s), P(d), I(W), I(H), I(2), F(0.3), I(1))),
    ("USM_EX", [u16], lambda s: vt.USM_EX(s, vt.struUSMParam(r=3, lam=0.1)),
     lambda c, s, d: c.vt_USM_EX(P(s), P(d), U(W), U(H), I(4), ctypes.byref(USMParam(3, 0, 0.1)), b"")),
]


@pytest.mark.parametrize("name, dtype, package_call, c_call, dst_dtype", [
    pytest.param(case[0], dtype, case[2], case[3], case[4] if len(case) > 4 else None,
                 id=f"{case[0]}-{dtype}")
    for case in CASES for dtype in case[1]])
def test_results_equal_the_c_interface(clib, name, dtype, package_call, c_call, dst_dtype):
    src = random_image(dtype, seed=zlib.crc32(name.encode()))
    untouched = src.copy()
    # The package starts a new result as a copy of the source (zeros for another dtype).
    expected = src.copy() if dst_dtype is None else np.zeros(src.shape, dst_dtype)
    assert c_call(clib, src.copy(), expected) == 1
    result = package_call(src)
    assert result.dtype == expected.dtype and result.shape == expected.shape
    np.testing.assert_array_equal(result, expected)
    np.testing.assert_array_equal(src, untouched)


@pytest.mark.parametrize("dtype", [u8, u16, s16, f32, s32, f64])
def test_a_block_is_pasted_like_the_c_interface_does_it(clib, dtype):
    src, block = random_image(dtype, 20), random_image(dtype, 21, shape=(4, 6))
    expected = src.copy()
    assert clib.vt_CopyRoiTo(P(src), P(expected), P(block), I(CODES[dtype]), I(W), I(H), I(6), I(4), I(33), I(5)) == 1
    np.testing.assert_array_equal(vt.CopyRoiTo(src, block, 33, 5), expected)
    # Columns 33..36 come from the block, read at the clipped width of 4 (the library's rule).
    np.testing.assert_array_equal(expected[5:9, 33:], block.reshape(-1)[:16].reshape(4, 4))


@pytest.mark.parametrize("dtype, channels, code", [(u16, 1, 4), (f32, 1, 6), (u8, 3, 1), (u8, 4, 2), (u16, 3, 9)])
def test_watermarks_of_every_layout_match_the_c_interface(clib, dtype, channels, code):
    shape = (H, W) if channels == 1 else (H, W, channels)
    mark_shape = (5, 7) if channels == 1 else (5, 7, channels)
    src, mark = random_image(dtype, 30, shape), random_image(dtype, 31, mark_shape)
    expected = src.copy()
    assert clib.vt_AddWaterMask(P(src), P(expected), P(mark), I(W), I(H), I(7), I(5), I(30), I(20), I(code), F(0.25)) == 1
    result = vt.AddWaterMask(src, mark, 30, 20, 0.25)
    np.testing.assert_array_equal(result, expected)
    assert not np.array_equal(result, src)


@pytest.mark.parametrize("dtype", [u8, u16, f32])
def test_edge_clip_returns_the_inner_image(clib, dtype):
    src = random_image(dtype, 40)
    param = vt.clipParam(up=2, down=3, left=4, right=-5)  # a negative margin counts as 0
    result = vt.edgeClip(src, param)
    np.testing.assert_array_equal(result, src[2:H - 3, 4:])
    expected = np.zeros_like(result)
    assert getattr(clib, "vt_edgeClip_" + SUFFIX[dtype])(P(src), P(expected), I(H), I(W), ClipParam(2, 3, 4, -5)) == 1
    np.testing.assert_array_equal(result, expected)
    # Margins that leave nothing give an empty image.
    assert vt.edgeClip(src, vt.clipParam(left=20, right=20)).shape == (0, 0)


def test_records_are_updated_as_the_c_interface_updates_them(clib):
    src = random_image(u16, 50)
    param = vt.claheParam(widthBlockNum=4, heightBlockNum=3, histBin=100000, peak=40)
    c_param = ClaheParam(4, 3, 100000, 40, 0.5, 65535.0)
    expected = src.copy()
    assert clib.vt_clahe_16U(P(src), P(expected), I(W), I(H), ctypes.byref(c_param), b"") == 1
    np.testing.assert_array_equal(vt.clahe(src, param), expected)
    assert param.histBin == c_param.histBin == 65536
    assert param.binScale == pytest.approx(c_param.binScale, rel=0, abs=0)
    # A non-empty INI path replaces the settings with 8, 8, 256 and 600 whatever the file holds.
    vt.clahe(src, param, "no-such.ini")
    assert (param.widthBlockNum, param.heightBlockNum, param.histBin, param.peak) == (8, 8, 256, 600)


def test_masked_sharpening_writes_the_same_mask(clib):
    # The threshold compares with the unnormalised correlation (about 8.5 times the local mean
    # here), so it sits where it divides this image's pixels.
    src = np.random.default_rng(60).integers(1000, 2000, size=(H, W), dtype=np.uint16)
    mask, c_mask, expected = np.zeros((H, W), np.uint8), np.zeros((H, W), np.uint8), src.copy()
    assert clib.vt_USM_Gaussian(P(src), P(expected), I(W), I(H), I(2), F(0.05), I(11000), F(1.2), P(c_mask)) == 1
    np.testing.assert_array_equal(vt.USM_Gaussian(src, 2, 0.05, 11000, 1.2, mask), expected)
    np.testing.assert_array_equal(mask, c_mask)
    assert 0 < mask.sum() < N


@pytest.mark.parametrize("dtype", [f32, f64])
def test_gaussian_kernels_and_lines(clib, dtype):
    kernel = vt.getGaussker(5, 3, 1.2, 0.8, dtype)
    expected = np.zeros((3, 5), dtype)
    assert getattr(clib, "vt_getGaussker_" + SUFFIX[dtype])(P(expected), I(5), I(3), D(1.2), D(0.8)) == 1
    np.testing.assert_array_equal(kernel, expected)
    assert kernel.sum() == pytest.approx(1.0, rel=1e-6)
    line = [F(), F(), F()]
    clib.vt_GetLine2D(F(1), F(2), F(7), F(-3), *(ctypes.byref(v) for v in line))
    assert vt.GetLine2D(1, 2, 7, -3) == tuple(v.value for v in line)


def test_the_chain_runs_in_place_and_returns_its_text(tmp_path, clib):
    chain = tmp_path / "steps.chain"
    chain.write_text("[Smooth_Box]\nradius=1;\nend\n[BC]\nbrightness=1000;\ncontrast=0.5;\nend\n")
    src = random_image(u16, 70)
    expected = np.zeros_like(src)
    assert clib.vt_Img_Post_Process_Chain(P(src), P(expected), I(W), I(H), str(chain).encode(), None, ctypes.c_size_t(0), None) == 0
    image, text = vt.Img_Post_Process_Chain(src, chain)
    np.testing.assert_array_equal(image, expected)
    assert text == "[Smooth_Box]radius=1;end[BC]brightness=1000;contrast=0.5;end"
    # In place: out is the source itself.
    same = src.copy()
    assert vt.Img_Post_Process_Chain(same, str(chain), out=same)[0] is same
    np.testing.assert_array_equal(same, expected)


@pytest.mark.parametrize("dtype, call", [
    pytest.param(u16, lambda s, out: vt.Box_Filter(s, 3, out=out), id="Box_Filter"),
    pytest.param(u16, lambda s, out: vt.Median_Blur(s, 1, out=out), id="Median_Blur"),
    pytest.param(u16, lambda s, out: vt.clahe_Manual(s, 2, 2, 256, 30, out=out), id="clahe_Manual"),
    pytest.param(u8, lambda s, out: vt.FastNLM(s, 200.0, 1, 2, out=out), id="FastNLM"),
    pytest.param(f32, lambda s, out: vt.ImgFix(s, DEFECTS, out=out), id="ImgFix"),
])
def test_in_place_gives_what_out_of_place_gives(dtype, call):
    src = random_image(dtype, 80)
    separate = call(src, None)
    assert not np.array_equal(separate, src)
    work = src.copy()
    assert call(work, work) is work
    np.testing.assert_array_equal(work, separate)
