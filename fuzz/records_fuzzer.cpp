// Every parameter record's loadParam on fuzzed INI files: each loaded field must equal what the
// INI reader gives for its section and key (with the field's default for a missing key), and a
// record saved to a fresh file must load its values back where its sections allow it.
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz_support.h"
#include "veltrano/ini.h"
#include "veltrano/params.h"

namespace {

const char* const kSections[] = {"clipParam",
                                 "struBilatralParam",
                                 "struFastNLMParam",
                                 "WLNParam",
                                 "claheParam",
                                 "struClaheParam",
                                 "Post_Process_Param_0",
                                 "Post_Process_Param_3",
                                 "Post_Process_Param_-1"};
const char* const kKeys[] = {
    "up",         "down",       "left",       "right",  "k_w",        "k_h",        "sigColor_x",
    "sigColor_y", "sigSpace_x", "sigSpace_y", "rd",     "rD",         "h",          "r",
    "isNeedNorm", "lam",        "wl",         "wr",     "specifymin", "specifymax", "param1",
    "param2",     "param3",     "param4",     "param5", "param6",     "peak",       "histBin"};

// An INI text: lines made of the records' own sections and keys with fuzzed values, mixed with
// raw bytes, so that the loads find something to read.
std::string MakeText(FuzzedDataProvider& in) {
    std::string text;
    const int lines = in.ConsumeIntegralInRange(0, 24);
    for (int i = 0; i < lines; ++i) {
        switch (in.ConsumeIntegralInRange(0, 3)) {
        case 0:
            text += std::string("[") + in.PickValueInArray(kSections) + "]\n";
            break;
        case 1:
            text += std::string(in.PickValueInArray(kKeys)) + "=" +
                    in.ConsumeRandomLengthString(16) + "\n";
            break;
        case 2:
            text += std::string(in.PickValueInArray(kKeys)) + "=" +
                    std::to_string(in.ConsumeIntegral<int>()) + "\n";
            break;
        default:
            text += in.ConsumeRandomLengthString(32);
            break;
        }
    }
    return text;
}

bool Same(float a, float b) { return a == b || (std::isnan(a) && std::isnan(b)); }

void ExpectInt(int field, const char* section, const char* key, const std::string& file,
               int fallback) {
    const int read = ReadInt_INI(section, key, file.c_str(), fallback);
    FUZZ_CHECK(field == read, "[%s] %s loaded %d, ReadInt_INI %d", section, key, field, read);
}

void ExpectFloat(float field, const char* section, const char* key, const std::string& file,
                 float fallback) {
    const float read = ReadFloat_INI(section, key, file.c_str(), fallback);
    FUZZ_CHECK(Same(field, read), "[%s] %s loaded %g, ReadFloat_INI %g", section, key,
               static_cast<double>(field), static_cast<double>(read));
}

// What a float saved with "%f" reads back as.
float AfterSaving(float value) {
    char text[64];
    std::snprintf(text, sizeof text, "%f", static_cast<double>(value));
    return static_cast<float>(std::strtod(text, nullptr));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const std::string file = fuzz::ScratchPath("records.ini");
    const std::string fresh = fuzz::ScratchPath("saved.ini");
    const int index = in.ConsumeIntegralInRange(-2, 4);
    const int value = in.ConsumeIntegral<int>();
    const float real = in.ConsumeFloatingPoint<float>();
    fuzz::WriteFile(file, MakeText(in));
    const char* path = file.c_str();

    {  // Map form: every field under its own key, the current value as the default.
        clipParam clip(path);
        ExpectInt(clip.up, "clipParam", "up", file, 20);
        ExpectInt(clip.down, "clipParam", "down", file, 20);
        ExpectInt(clip.left, "clipParam", "left", file, 200);
        ExpectInt(clip.right, "clipParam", "right", file, 200);
        struBilatralParam bilateral(path);
        ExpectInt(bilateral.k_w, "struBilatralParam", "k_w", file, 5);
        ExpectInt(bilateral.k_h, "struBilatralParam", "k_h", file, 5);
        ExpectFloat(bilateral.sigColor_x, "struBilatralParam", "sigColor_x", file, 0.5f);
        ExpectFloat(bilateral.sigColor_y, "struBilatralParam", "sigColor_y", file, 0.5f);
        ExpectFloat(bilateral.sigSpace_x, "struBilatralParam", "sigSpace_x", file, 0.5f);
        ExpectFloat(bilateral.sigSpace_y, "struBilatralParam", "sigSpace_y", file, 0.5f);
        struFastNLMParam nlm(path);
        ExpectInt(nlm.rd, "struFastNLMParam", "rd", file, 1);
        ExpectInt(nlm.rD, "struFastNLMParam", "rD", file, 3);
        ExpectFloat(nlm.h, "struFastNLMParam", "h", file, 3.0f);
        struUSMParam usm(path);  // deliberately the FastNLM section
        ExpectInt(usm.r, "struFastNLMParam", "r", file, 1);
        ExpectInt(usm.isNeedNorm, "struFastNLMParam", "isNeedNorm", file, 0);
        ExpectFloat(usm.lam, "struFastNLMParam", "lam", file, 0.5f);
        struWLNParam wln(path);
        ExpectInt(wln.wl, "WLNParam", "wl", file, 0);
        ExpectInt(wln.wr, "WLNParam", "wr", file, 0);
        ExpectInt(wln.specifymin, "WLNParam", "specifymin", file, 0);
        ExpectInt(wln.specifymax, "WLNParam", "specifymax", file, 65535);

        // Loading again through a copy reads into the source's fields, and the two are
        // destroyed safely in either order.
        struWLNParam copy(wln);
        copy.loadParam();
        ExpectInt(wln.specifymax, "WLNParam", "specifymax", file, wln.specifymax);
    }
    {  // List form: the chain step's section and keys param1, param2, ...
        char section[48];
        std::snprintf(section, sizeof section, "Post_Process_Param_%d", index);
        struAceGammaParam ace(path, index);
        ExpectInt(ace.param1, section, "param1", file, 20);
        ExpectFloat(ace.param2, section, "param2", file, 1.0f);
        ExpectFloat(ace.param3, section, "param3", file, 3.0f);
        ExpectFloat(ace.param4, section, "param4", file, 0.8f);
        ExpectInt(ace.param5, section, "param5", file, 0);
        ExpectInt(ace.param6, section, "param6", file, 0);
        struClaheParam clahe(path, index);  // peak first, and 600 when missing
        ExpectInt(clahe.peak, section, "param1", file, 600);
        ExpectInt(clahe.histBin, section, "param2", file, 256);
        ExpectInt(clahe.widthBlockNum, section, "param3", file, 8);
        ExpectInt(clahe.heightBlockNum, section, "param4", file, 8);
        const claheParam fixed(path);  // never reads its file
        FUZZ_CHECK(fixed.widthBlockNum == 8 && fixed.heightBlockNum == 8 && fixed.histBin == 256 &&
                       fixed.peak == 600,
                   "claheParam read its file");
    }
    {  // Saved to a fresh file and loaded again: ints exactly, floats as "%f" wrote them.
        std::remove(fresh.c_str());
        const char* out = fresh.c_str();
        clipParam clip(out);
        clip.up = value;
        clip.right = value / 3;
        clip.saveParam();
        const clipParam clipBack(out);
        FUZZ_CHECK(clipBack.up == value && clipBack.right == value / 3 && clipBack.down == 20,
                   "clipParam saved %d, loaded %d", value, clipBack.up);
        struUSMParam usm(out);
        usm.r = value;
        usm.lam = real;
        usm.saveParam();
        struFastNLMParam nlm(out);  // the same section, other keys
        nlm.rD = ~value;
        nlm.h = -real;
        nlm.saveParam();
        const struUSMParam usmBack(out);
        const struFastNLMParam nlmBack(out);
        FUZZ_CHECK(usmBack.r == value && Same(usmBack.lam, AfterSaving(real)) &&
                       nlmBack.rD == ~value && Same(nlmBack.h, AfterSaving(-real)),
                   "USM and FastNLM records saved %d, %g, loaded %d, %g", value,
                   static_cast<double>(real), usmBack.r, static_cast<double>(usmBack.lam));
        struAceGammaParam ace(out, index);
        ace.param1 = value;
        ace.param4 = real;
        ace.param6 = value ^ 1;
        ace.saveParam();
        const struAceGammaParam aceBack(out, index);
        FUZZ_CHECK(aceBack.param1 == value && Same(aceBack.param4, AfterSaving(real)) &&
                       aceBack.param6 == (value ^ 1) && Same(aceBack.param2, 1.0f),
                   "struAceGammaParam saved %d, loaded %d", value, aceBack.param1);
    }
    return 0;
}
