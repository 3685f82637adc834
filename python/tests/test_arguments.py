"""Bad arrays raise TypeError or ValueError naming the argument, before the library is called
(the output keeps its contents); failure codes of the library raise VeltranoError."""
import numpy as np
import pytest

import veltrano as vt

SRC = np.arange(20 * 30, dtype=np.uint16).reshape(20, 30)


def read_only(array):
    array = array.copy()
    array.flags.writeable = False
    return array


@pytest.mark.parametrize("call, error, words", [
    # The source.
    (lambda out: vt.Box_Filter([[1, 2], [3, 4]], 1, out=out), TypeError, "src must be a numpy array, not list"),
    (lambda out: vt.Box_Filter(SRC.astype(np.int64), 1, out=out), TypeError, "src must have dtype uint8, uint16, int16, float32 or float64, not int64"),
    (lambda out: vt.Box_Filter(SRC.astype(">u2"), 1, out=out), TypeError, "src must have dtype"),
    (lambda out: vt.Box_Filter(SRC.reshape(-1), 1, out=out), ValueError, "src must be a 2-D array (height, width), not 1-D"),
    (lambda out: vt.Box_Filter(SRC.reshape(4, 5, 30), 1, out=out), ValueError, "src must be a 2-D array"),
    (lambda out: vt.Box_Filter(np.asfortranarray(SRC), 1, out=out), ValueError, "src must be C-contiguous"),
    (lambda out: vt.Box_Filter(np.zeros((20, 60), np.uint16)[:, ::2], 1, out=out), ValueError, "src must be C-contiguous"),
    (lambda out: vt.FastNLM(SRC, 3.0, 1, 2, out=out), TypeError, "src must have dtype uint8, not uint16"),
    # The output.
    (lambda out: vt.Box_Filter(SRC, 1, out=np.zeros((20, 31), np.uint16)), ValueError, "out must have the shape (20, 30), not (20, 31)"),
    (lambda out: vt.Box_Filter(SRC, 1, out=np.zeros((20, 30), np.float32)), TypeError, "out must have dtype uint16, not float32"),
    (lambda out: vt.Box_Filter(SRC, 1, out=read_only(SRC)), ValueError, "out is read-only"),
    (lambda out: vt.Image_Square_NoTrunc(SRC, out=np.zeros((20, 30), np.float32)), TypeError, "out must have dtype float64"),
    # Other arrays.
    (lambda out: vt.filter2D(SRC, np.ones((3, 3)), out=out), TypeError, "kernel must have dtype float32, not float64"),
    (lambda out: vt.filter2D(SRC, np.ones(9, np.float32), out=out), ValueError, "kernel must be a 2-D array"),
    (lambda out: vt.ImgFix(SRC.astype(np.float32), np.zeros((30, 20), np.float32), out=out.astype(np.float32)), ValueError, "defect_map must have the shape (20, 30) of src, not (30, 20)"),
    (lambda out: vt.ImageConv(SRC.astype(np.float32), np.ones((3, 3), np.float32), np.zeros((20, 30), np.int8)), TypeError, "mask must have dtype uint8, not int8"),
    (lambda out: vt.USM_Gaussian(SRC, 2, 0.1, 10, 1.0, read_only(np.zeros((20, 30), np.uint8)), out=out), ValueError, "mask is read-only"),
    (lambda out: vt.CopyRoiTo(SRC, np.zeros((2, 2), np.uint8), 0, 0, out=out), TypeError, "block must have dtype uint16, not uint8"),
    (lambda out: vt.AddWaterMask(np.zeros((20, 30, 3), np.uint8), np.zeros((2, 2), np.uint8), 0, 0, 0.5), ValueError, "mark must have 3 channel(s) like src, not 1"),
    (lambda out: vt.AddWaterMask(np.zeros((20, 30, 4), np.uint16), np.zeros((2, 2, 4), np.uint16), 0, 0, 0.5), TypeError, "src with 4 channels must have dtype uint8"),
    (lambda out: vt.AddWaterMask(np.zeros((20, 30, 2), np.uint8), np.zeros((2, 2, 2), np.uint8), 0, 0, 0.5), ValueError, "src must have 3 or 4 channels, not 2"),
    (lambda out: vt.getGaussker(3, 3, 1.0, 1.0, np.int32), TypeError, "dtype must be float32 or float64"),
    (lambda out: vt.writeRawFile("x.raw", SRC), TypeError, "samples must have dtype float32"),
    # Records and values of the wrong kind.
    (lambda out: vt.clahe(SRC, vt.struWLNParam(), out=out), TypeError, "incompatible function arguments"),
    (lambda out: vt.claheParam(peeak=3), TypeError, "claheParam has no field 'peeak'"),
    (lambda out: vt.Box_Filter(SRC, "2", out=out), TypeError, "incompatible function arguments"),
])
def test_bad_arguments_are_refused_before_the_call(call, error, words):
    out = np.full((20, 30), 7, np.uint16)
    with pytest.raises(error) as raised:
        call(out)
    assert words in str(raised.value)
    assert (out == 7).all()


def test_an_output_overlapping_the_source_is_refused_but_the_source_itself_is_welcome():
    buffer = np.arange(21 * 30, dtype=np.uint16).reshape(21, 30)
    src, shifted = buffer[:20], buffer[1:]
    with pytest.raises(ValueError, match="out overlaps src without being the same array"):
        vt.Box_Filter(src, 1, out=shifted)
    np.testing.assert_array_equal(buffer, np.arange(21 * 30).reshape(21, 30))
    assert vt.Box_Filter(src, 1, out=src) is src


def test_a_read_only_source_is_fine_for_a_separate_output():
    src = read_only(SRC)
    np.testing.assert_array_equal(vt.Box_Filter(src, 1), vt.Box_Filter(SRC, 1))


def test_failure_codes_raise_with_function_code_and_text(tmp_path):
    with pytest.raises(vt.VeltranoError) as raised:
        vt.Inverse(SRC)  # the library refuses code 4 for Inverse
    assert (raised.value.function, raised.value.code, str(raised.value)) == ("Inverse", -3, "Inverse returned -3")
    with pytest.raises(vt.VeltranoError) as raised:
        vt.Median_Blur(SRC.astype(np.uint8), 8)  # 8-bit windows stop at radius 7
    assert raised.value.code == -4
    with pytest.raises(vt.VeltranoError) as raised:
        vt.clahe_Manual(SRC, 31, 2, 256, 10)  # more tile columns than pixels
    assert raised.value.code == -1
    # The chain's conversion failures keep their text and get the C interface's codes.
    chain = tmp_path / "bad.chain"
    chain.write_text("[Smooth_Box]\nradius=many;\nend\n")
    with pytest.raises(vt.VeltranoError) as raised:
        vt.Img_Post_Process_Chain(SRC, chain)
    assert raised.value.code == vt.VT_ERR_INVALID_NUMBER
    assert "stoi" in raised.value.message
    with pytest.raises(vt.VeltranoError) as raised:
        vt.Img_Post_Process_Chain(SRC, tmp_path / "missing.chain")
    assert raised.value.code == -1
    assert "NO Post Process Chain File" in str(raised.value)
