// The parameter records: their defaults, key bindings, sections and copies.
//
// Map-form records bind their fields once, in their constructors (through getDefaultData where
// they have one); loadParam and saveParam then read and write the section. The list-form
// records (struAceGammaParam, struClaheParam on load) bind in loadParam, numbering their keys
// "param1", "param2", ... in a section per chain step.
//
// The file path and the section index are not value fields: copy assignment takes over the
// source's path (a null source path keeps the own one) and leaves the index alone.

#include <cstdio>

#include "veltrano/params.h"

namespace {

// "Post_Process_Param_<index>"; the buffer is large enough for any int.
struct ChainSection {
    char name[48];
    explicit ChainSection(int index) {
        std::snprintf(name, sizeof name, "Post_Process_Param_%d", index);
    }
};

}  // namespace

// ---- claheParam ----------------------------------------------------------------------------

claheParam::claheParam() { bindKeys(); }

// The two unpersisted floats keep their defaults, 0.5 and 65535.
claheParam::claheParam(const char* file) {
    bindKeys();
    loadFrom(*this, file);
}

claheParam::claheParam(const claheParam&) = default;

claheParam& claheParam::operator=(const claheParam& other) {
    return assignValues(*this, other, &claheParam::widthBlockNum, &claheParam::heightBlockNum,
                        &claheParam::histBin, &claheParam::peak, &claheParam::binScale,
                        &claheParam::outMax);
}

// The path text is released by paramBase with its last user.
claheParam::~claheParam() = default;

void claheParam::bindKeys() {
    bindInt(&widthBlockNum, "widthBlockNum");
    bindInt(&heightBlockNum, "heightBlockNum");
    bindInt(&histBin, "histBin");
    bindInt(&peak, "peak");
}

// Never reads the file: the CLAHE functions that build this record from an INI path get these
// fixed settings, whatever the file holds, and hosts rely on that. Note the peak of 600.
void claheParam::loadParam() {
    widthBlockNum = 8;
    heightBlockNum = 8;
    histBin = 256;
    peak = 600;
    bindKeys();
}

void claheParam::saveParam() { saveData("claheParam", filePath); }

// ---- struClaheParam ------------------------------------------------------------------------

struClaheParam::struClaheParam() { bindKeys(); }

struClaheParam::struClaheParam(const char* file, int index) : sectionIndex(index) {
    bindKeys();
    loadFrom(*this, file);
}

struClaheParam::struClaheParam(const struClaheParam&) = default;

struClaheParam& struClaheParam::operator=(const struClaheParam& other) {
    return assignValues(*this, other, &struClaheParam::widthBlockNum,
                        &struClaheParam::heightBlockNum, &struClaheParam::histBin,
                        &struClaheParam::peak, &struClaheParam::binScale, &struClaheParam::outMax);
}

struClaheParam::~struClaheParam() = default;

// The save bindings: field names in the section "struClaheParam".
void struClaheParam::bindKeys() {
    bindInt(&widthBlockNum, "widthBlockNum");
    bindInt(&heightBlockNum, "heightBlockNum");
    bindInt(&histBin, "histBin");
    bindInt(&peak, "peak");
}

// Loads from the chain step's section with the chain's key order, which differs from the save
// section and keys: a saved record does not read back its own values. The reset peak is 600,
// not the constructor's 200.
void struClaheParam::loadParam() {
    widthBlockNum = 8;
    heightBlockNum = 8;
    histBin = 256;
    peak = 600;
    appendInt(&peak, "param1");
    appendInt(&histBin, "param2");
    appendInt(&widthBlockNum, "param3");
    appendInt(&heightBlockNum, "param4");
    const ChainSection section(sectionIndex);
    if (filePath != nullptr) getData_byVec(section.name, filePath);
}

void struClaheParam::saveParam() { saveData("struClaheParam", filePath); }

// ---- clipParam -----------------------------------------------------------------------------

clipParam::clipParam() { getDefaultData(); }

clipParam::clipParam(const char* file) {
    getDefaultData();
    loadFrom(*this, file);
}

clipParam::clipParam(const clipParam&) = default;

clipParam& clipParam::operator=(const clipParam& other) {
    return assignValues(*this, other, &clipParam::up, &clipParam::down, &clipParam::left,
                        &clipParam::right);
}

clipParam::~clipParam() = default;

void clipParam::getDefaultData() {
    up = 20;
    down = 20;
    left = 200;
    right = 200;
    bindInt(&up, "up");
    bindInt(&down, "down");
    bindInt(&left, "left");
    bindInt(&right, "right");
}

void clipParam::loadParam() { getData("clipParam", filePath); }

void clipParam::saveParam() { saveData("clipParam", filePath); }

// ---- struAceGammaParam ---------------------------------------------------------------------

// Every constructor loads; without a path that only binds the keys.
struAceGammaParam::struAceGammaParam() {
    getDefaultData();
    loadParam();
}

struAceGammaParam::struAceGammaParam(int index) : sectionIndex(index) {
    getDefaultData();
    loadParam();
}

struAceGammaParam::struAceGammaParam(const char* file, int index) : sectionIndex(index) {
    getDefaultData();
    loadFrom(*this, file);
}

struAceGammaParam::struAceGammaParam(const struAceGammaParam&) = default;

struAceGammaParam& struAceGammaParam::operator=(const struAceGammaParam& other) {
    return assignValues(*this, other, &struAceGammaParam::param1, &struAceGammaParam::param2,
                        &struAceGammaParam::param3, &struAceGammaParam::param4,
                        &struAceGammaParam::param5, &struAceGammaParam::param6);
}

struAceGammaParam::~struAceGammaParam() = default;

void struAceGammaParam::getDefaultData() {
    param1 = 20;
    param2 = 1.0f;
    param3 = 3.0f;
    param4 = 0.8f;
    param5 = 0;
    param6 = 0;
}

void struAceGammaParam::loadParam() {
    appendInt(&param1, "param1");
    appendFloat(&param2, "param2");
    appendFloat(&param3, "param3");
    appendFloat(&param4, "param4");
    appendInt(&param5, "param5");
    appendInt(&param6, "param6");
    const ChainSection section(sectionIndex);
    if (filePath != nullptr) getData_byVec(section.name, filePath);
}

void struAceGammaParam::saveParam() {
    const ChainSection section(sectionIndex);
    saveData_byVec(section.name, filePath);
}

// ---- struBilatralParam ---------------------------------------------------------------------

struBilatralParam::struBilatralParam() { getDefaultData(); }

struBilatralParam::struBilatralParam(const char* file) {
    getDefaultData();
    loadFrom(*this, file);
}

struBilatralParam::struBilatralParam(const struBilatralParam&) = default;

struBilatralParam& struBilatralParam::operator=(const struBilatralParam& other) {
    return assignValues(*this, other, &struBilatralParam::k_w, &struBilatralParam::k_h,
                        &struBilatralParam::sigColor_x, &struBilatralParam::sigColor_y,
                        &struBilatralParam::sigSpace_x, &struBilatralParam::sigSpace_y);
}

struBilatralParam::~struBilatralParam() = default;

void struBilatralParam::getDefaultData() {
    k_w = 5;
    k_h = 5;
    sigColor_x = 0.5f;
    sigColor_y = 0.5f;
    sigSpace_x = 0.5f;
    sigSpace_y = 0.5f;
    bindInt(&k_w, "k_w");
    bindInt(&k_h, "k_h");
    bindFloat(&sigColor_x, "sigColor_x");
    bindFloat(&sigColor_y, "sigColor_y");
    bindFloat(&sigSpace_x, "sigSpace_x");
    bindFloat(&sigSpace_y, "sigSpace_y");
}

void struBilatralParam::loadParam() { getData("struBilatralParam", filePath); }

void struBilatralParam::saveParam() { saveData("struBilatralParam", filePath); }

// ---- struFastNLMParam ----------------------------------------------------------------------

struFastNLMParam::struFastNLMParam() { getDefaultData(); }

struFastNLMParam::struFastNLMParam(const char* file) {
    getDefaultData();
    loadFrom(*this, file);
}

struFastNLMParam::struFastNLMParam(const struFastNLMParam&) = default;

struFastNLMParam& struFastNLMParam::operator=(const struFastNLMParam& other) {
    return assignValues(*this, other, &struFastNLMParam::rd, &struFastNLMParam::rD,
                        &struFastNLMParam::h);
}

struFastNLMParam::~struFastNLMParam() = default;

void struFastNLMParam::getDefaultData() {
    rd = 1;
    rD = 3;
    h = 3.0f;
    bindInt(&rd, "rd");
    bindInt(&rD, "rD");
    bindFloat(&h, "h");
}

void struFastNLMParam::loadParam() { getData("struFastNLMParam", filePath); }

void struFastNLMParam::saveParam() { saveData("struFastNLMParam", filePath); }

// ---- struUSMParam --------------------------------------------------------------------------

struUSMParam::struUSMParam() { getDefaultData(); }

struUSMParam::struUSMParam(const char* file) {
    getDefaultData();
    loadFrom(*this, file);
}

struUSMParam::struUSMParam(const struUSMParam&) = default;

struUSMParam& struUSMParam::operator=(const struUSMParam& other) {
    return assignValues(*this, other, &struUSMParam::r, &struUSMParam::isNeedNorm,
                        &struUSMParam::lam);
}

struUSMParam::~struUSMParam() = default;

void struUSMParam::getDefaultData() {
    r = 1;
    isNeedNorm = 0;
    lam = 0.5f;
    bindInt(&r, "r");
    bindInt(&isNeedNorm, "isNeedNorm");
    bindFloat(&lam, "lam");
}

// The section is the non-local-means one: existing INI files keep these keys there.
void struUSMParam::loadParam() { getData("struFastNLMParam", filePath); }

void struUSMParam::saveParam() { saveData("struFastNLMParam", filePath); }

// ---- struWLNParam --------------------------------------------------------------------------

struWLNParam::struWLNParam() { getDefaultData(); }

struWLNParam::struWLNParam(const char* file) {
    getDefaultData();
    loadFrom(*this, file);
}

struWLNParam::struWLNParam(const struWLNParam&) = default;

struWLNParam& struWLNParam::operator=(const struWLNParam& other) {
    return assignValues(*this, other, &struWLNParam::wl, &struWLNParam::wr,
                        &struWLNParam::specifymin, &struWLNParam::specifymax);
}

struWLNParam::~struWLNParam() = default;

void struWLNParam::getDefaultData() {
    wl = 0;
    wr = 0;
    specifymin = 0;
    specifymax = 65535;
    bindInt(&wl, "wl");
    bindInt(&wr, "wr");
    bindInt(&specifymin, "specifymin");
    bindInt(&specifymax, "specifymax");
}

void struWLNParam::loadParam() { getData("WLNParam", filePath); }

void struWLNParam::saveParam() { saveData("WLNParam", filePath); }
