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
    explicit ChainSection(int index) { std::snprintf(name, sizeof name, "Post_Process_Param_%d", index); }
};

}  // namespace

// ---- claheParam ----------------------------------------------------------------------------

claheParam::claheParam() { bindKeys(); }

// The two unpersisted floats keep their defaults, 0.5 and 65535.
claheParam::claheParam(const char* file) {
    bindKeys();
    CopyFilePath(filePath, file);
    loadParam();
}

claheParam::claheParam(const claheParam& other)
    : paramBase(other),
      widthBlockNum(other.widthBlockNum),
      heightBlockNum(other.heightBlockNum),
      histBin(other.histBin),
      peak(other.peak),
      binScale(other.binScale),
      outMax(other.outMax),
      filePath(other.filePath) {}

claheParam& claheParam::operator=(const claheParam& other) {
    if (this == &other) return *this;
    CopyFilePath(filePath, other.filePath);
    widthBlockNum = other.widthBlockNum;
    heightBlockNum = other.heightBlockNum;
    histBin = other.histBin;
    peak = other.peak;
    binScale = other.binScale;
    outMax = other.outMax;
    return *this;
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
    CopyFilePath(filePath, file);
    loadParam();
}

struClaheParam::struClaheParam(const struClaheParam& other)
    : paramBase(other),
      widthBlockNum(other.widthBlockNum),
      heightBlockNum(other.heightBlockNum),
      histBin(other.histBin),
      peak(other.peak),
      binScale(other.binScale),
      outMax(other.outMax),
      sectionIndex(other.sectionIndex),
      filePath(other.filePath) {}

struClaheParam& struClaheParam::operator=(const struClaheParam& other) {
    if (this == &other) return *this;
    CopyFilePath(filePath, other.filePath);
    widthBlockNum = other.widthBlockNum;
    heightBlockNum = other.heightBlockNum;
    histBin = other.histBin;
    peak = other.peak;
    binScale = other.binScale;
    outMax = other.outMax;
    return *this;
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
    CopyFilePath(filePath, file);
    loadParam();
}

clipParam::clipParam(const clipParam& other)
    : paramBase(other),
      up(other.up),
      down(other.down),
      left(other.left),
      right(other.right),
      filePath(other.filePath) {}

clipParam& clipParam::operator=(const clipParam& other) {
    if (this == &other) return *this;
    CopyFilePath(filePath, other.filePath);
    up = other.up;
    down = other.down;
    left = other.left;
    right = other.right;
    return *this;
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
    CopyFilePath(filePath, file);
    loadParam();
}

struAceGammaParam::struAceGammaParam(const struAceGammaParam& other)
    : paramBase(other),
      param1(other.param1),
      param2(other.param2),
      param3(other.param3),
      param4(other.param4),
      param5(other.param5),
      param6(other.param6),
      sectionIndex(other.sectionIndex),
      filePath(other.filePath) {}

struAceGammaParam& struAceGammaParam::operator=(const struAceGammaParam& other) {
    if (this == &other) return *this;
    CopyFilePath(filePath, other.filePath);
    param1 = other.param1;
    param2 = other.param2;
    param3 = other.param3;
    param4 = other.param4;
    param5 = other.param5;
    param6 = other.param6;
    return *this;
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
    CopyFilePath(filePath, file);
    loadParam();
}

struBilatralParam::struBilatralParam(const struBilatralParam& other)
    : paramBase(other),
      k_w(other.k_w),
      k_h(other.k_h),
      sigColor_x(other.sigColor_x),
      sigColor_y(other.sigColor_y),
      sigSpace_x(other.sigSpace_x),
      sigSpace_y(other.sigSpace_y),
      filePath(other.filePath) {}

struBilatralParam& struBilatralParam::operator=(const struBilatralParam& other) {
    if (this == &other) return *this;
    CopyFilePath(filePath, other.filePath);
    k_w = other.k_w;
    k_h = other.k_h;
    sigColor_x = other.sigColor_x;
    sigColor_y = other.sigColor_y;
    sigSpace_x = other.sigSpace_x;
    sigSpace_y = other.sigSpace_y;
    return *this;
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
    CopyFilePath(filePath, file);
    loadParam();
}

struFastNLMParam::struFastNLMParam(const struFastNLMParam& other)
    : paramBase(other), rd(other.rd), rD(other.rD), h(other.h), filePath(other.filePath) {}

struFastNLMParam& struFastNLMParam::operator=(const struFastNLMParam& other) {
    if (this == &other) return *this;
    CopyFilePath(filePath, other.filePath);
    rd = other.rd;
    rD = other.rD;
    h = other.h;
    return *this;
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
    CopyFilePath(filePath, file);
    loadParam();
}

struUSMParam::struUSMParam(const struUSMParam& other)
    : paramBase(other), r(other.r), isNeedNorm(other.isNeedNorm), lam(other.lam), filePath(other.filePath) {}

struUSMParam& struUSMParam::operator=(const struUSMParam& other) {
    if (this == &other) return *this;
    CopyFilePath(filePath, other.filePath);
    r = other.r;
    isNeedNorm = other.isNeedNorm;
    lam = other.lam;
    return *this;
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
    CopyFilePath(filePath, file);
    loadParam();
}

struWLNParam::struWLNParam(const struWLNParam& other)
    : paramBase(other),
      wl(other.wl),
      wr(other.wr),
      specifymin(other.specifymin),
      specifymax(other.specifymax),
      filePath(other.filePath) {}

struWLNParam& struWLNParam::operator=(const struWLNParam& other) {
    if (this == &other) return *this;
    CopyFilePath(filePath, other.filePath);
    wl = other.wl;
    wr = other.wr;
    specifymin = other.specifymin;
    specifymax = other.specifymax;
    return *this;
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
