"""The parameter records as Python classes, their INI persistence with the library's sections
and keys, the INI functions and raw image files."""
import numpy as np
import pytest

import veltrano as vt

DEFAULTS = {
    vt.claheParam: dict(widthBlockNum=8, heightBlockNum=8, histBin=256, peak=200, binScale=0.5, outMax=65535.0),
    vt.struClaheParam: dict(widthBlockNum=8, heightBlockNum=8, histBin=256, peak=200, binScale=0.5, outMax=65535.0, sectionIndex=0),
    vt.clipParam: dict(up=20, down=20, left=200, right=200),
    vt.struAceGammaParam: dict(param1=20, param2=1.0, param3=3.0, param4=pytest.approx(0.8), param5=0, param6=0, sectionIndex=0),
    vt.struBilatralParam: dict(k_w=5, k_h=5, sigColor_x=0.5, sigColor_y=0.5, sigSpace_x=0.5, sigSpace_y=0.5),
    vt.struFastNLMParam: dict(rd=1, rD=3, h=3.0),
    vt.struUSMParam: dict(r=1, isNeedNorm=0, lam=0.5),
    vt.struWLNParam: dict(wl=0, wr=0, specifymin=0, specifymax=65535),
    vt.struImageBaseParam: dict(offset=0, gain=1.0, gamma=1.0, width=0, height=0),
}


@pytest.mark.parametrize("record", DEFAULTS, ids=lambda r: r.__name__)
def test_records_start_with_the_library_defaults(record):
    value = record()
    assert record.fields == tuple(DEFAULTS[record])
    assert {name: getattr(value, name) for name in record.fields} == DEFAULTS[record]
    assert repr(value).startswith(record.__name__ + "(" + record.fields[0] + "=")


def test_fields_by_keyword_attribute_and_comparison():
    record = vt.struWLNParam(wl=1000, specifymax=4095)
    assert (record.wl, record.wr, record.specifymax) == (1000, 0, 4095)
    record.wr = 3000
    assert record == vt.struWLNParam(wl=1000, wr=3000, specifymax=4095)
    assert record != vt.struWLNParam()
    with pytest.raises(TypeError):
        record.wl = 2.5  # an int field takes no float
    with pytest.raises(TypeError):
        hash(record)


def test_load_and_save_keep_the_library_sections_and_keys(tmp_path):
    ini = tmp_path / "params.ini"
    vt.clipParam(up=1, down=2, left=3, right=4).save(ini)
    loaded = vt.clipParam()
    loaded.load(ini)
    assert loaded == vt.clipParam(up=1, down=2, left=3, right=4)
    # A fresh section gets each new key first: the four keys in reverse order of writing.
    assert ini.read_text() == "[clipParam]\nright=4\nleft=3\ndown=2\nup=1\n"

    # The unsharp-masking settings live in the non-local-means section.
    vt.struUSMParam(r=4, lam=0.25).save(ini)
    assert vt.ReadInt_INI("struFastNLMParam", "r", ini) == 4
    nlm = vt.struFastNLMParam()
    vt.WriteFloat_INI("struFastNLMParam", "h", 9.5, ini)
    nlm.load(ini)
    assert nlm.h == 9.5

    # The list-form record reads the section of its index only.
    vt.struAceGammaParam(param1=7, param2=2.5, sectionIndex=3).save(ini)
    assert "[Post_Process_Param_3]" in ini.read_text()
    three, two = vt.struAceGammaParam(sectionIndex=3), vt.struAceGammaParam(sectionIndex=2)
    three.load(ini)
    two.load(ini)
    assert (three.param1, three.param2, two.param1) == (7, 2.5, 20)

    # claheParam reads nothing; struClaheParam saves where it does not load from.
    clahe = vt.claheParam(peak=5)
    clahe.load(ini)
    assert clahe.peak == 600
    chain_clahe = vt.struClaheParam(peak=77)
    chain_clahe.save(ini)
    chain_clahe.load(ini)
    assert chain_clahe.peak == 600
    assert vt.ReadInt_INI("struClaheParam", "peak", ini) == 77


def test_the_ini_functions(tmp_path):
    ini = tmp_path / "values.ini"
    assert vt.WriteString_INI("S", "text", "a value", ini) == 1
    assert vt.WriteInt_INI("S", "int", -12, ini) == 1
    assert vt.WriteFloat_INI("S", "float", 0.5, ini) == 1
    assert vt.WriteNULL_INI("S", "empty", ini) == 1
    assert vt.ReadString_INI("S", "text", ini) == "a value"
    assert vt.ReadString_INI("S", "text", ini, size=3) == "a "
    assert vt.ReadString_INI("S", "empty", ini) == ""
    assert vt.ReadString_INI("S", "missing", ini, "fallback") == "fallback"
    assert vt.ReadString_INI("S", "missing", ini) is None
    assert vt.ReadInt_INI("S", "int", ini, 5) == -12
    assert vt.ReadFloat_INI("S", "float", ini) == 0.5
    assert vt.ReadDouble_INI("S", "missing", ini, 2.25) == 2.25
    assert "float=0.500000\n" in ini.read_text()
    with pytest.raises(vt.VeltranoError) as raised:
        vt.WriteString_INI("", "key", "v", ini)
    assert raised.value.code == -1
    # A folder that does not exist cannot be written: 0, not an exception.
    assert vt.WriteInt_INI("S", "k", 1, tmp_path / "no" / "such.ini") == 0


def test_raw_files_round_trip(tmp_path):
    image = np.random.default_rng(3).uniform(0, 60000, size=(40, 25)).astype(np.float32)
    path = tmp_path / "image.raw"
    vt.writeRawFile(path, image)
    assert path.stat().st_size == image.nbytes
    np.testing.assert_array_equal(vt.readRawFile(path, 25, 40), image)
    # 16-bit samples after a header, read as floats.
    header = b"\xff" * 16
    path.write_bytes(header + np.arange(6, dtype="<u2").tobytes())
    np.testing.assert_array_equal(vt.readRawFile(path, 3, 2, header_bytes=16, type=3),
                                  np.arange(6, dtype=np.float32).reshape(2, 3))
    with pytest.raises(ValueError, match="cannot read"):
        vt.readRawFile(tmp_path / "missing.raw", 3, 2)
