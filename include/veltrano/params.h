// Parameter records of the processing functions and their persistence in INI files.
//
// Each record derives from paramBase, which binds record fields to INI keys. A record made
// with a file name loads itself from that file at once; loadParam and saveParam read and write
// its keys later. Some records load and save under different sections or keys, and claheParam
// never reads its file; those differences are relied on by existing INI files and hosts.
//
// Copies. A copy-constructed record shares the source's key bindings and path: loading or
// saving through the copy acts on the source's fields. Once the source is destroyed, loading
// and saving through such a copy does nothing (the fields it would touch are gone). Copy
// assignment, by contrast, copies the values and path and keeps the target's own bindings.
#pragma once

#include <memory>

#include "veltrano/export.h"

namespace veltrano {
struct ParamRegistry;
}

class VELTRANO_API paramBase {
public:
    virtual ~paramBase();

    // Forgets every key binding (the record then loads and saves nothing until bound again).
    void clearDataToBeSaved();

protected:
    paramBase();
    // Shares the source's bindings and path.
    paramBase(const paramBase& other);
    // Takes over the source's bindings and path.
    paramBase& operator=(const paramBase& other);

    // Makes target an owned copy of source: -1 when source is null (target unchanged), 1 when
    // target already is source, otherwise the old path is released and a copy made; 1.
    // target must be this record's own path field.
    int CopyFilePath(char*& target, const char* source);

    // Map form: every int binding in field order, then every float binding; the current value
    // is the default, so a missing key leaves a field as it is.
    void getData(const char* section, const char* file);
    void saveData(const char* section, const char* file);
    // List form: the same over the bindings in the order they were added.
    void getData_byVec(const char* section, const char* file);
    void saveData_byVec(const char* section, const char* file);

    // Binding of a field of this record (key names are not copied: pass literals). Map
    // bindings are unique per field, the last key given wins; list bindings keep their order
    // and an identical binding is not added twice.
    void bindInt(int* field, const char* key);
    void bindFloat(float* field, const char* key);
    void appendInt(int* field, const char* key);
    void appendFloat(float* field, const char* key);

    // The rest of every record's file constructor, after its defaults: take the path, then
    // load at once.
    template <class Record>
    static void loadFrom(Record& record, const char* file) {
        record.CopyFilePath(record.filePath, file);
        record.loadParam();
    }

    // Copy assignment of every record: the source's path (a null one keeps the own path) and
    // the listed value fields. The target keeps its own bindings, and the section index is
    // not a value.
    template <class Record, class... Fields>
    static Record& assignValues(Record& self, const Record& other, Fields Record::*... fields) {
        if (&self != &other) {
            self.CopyFilePath(self.filePath, other.filePath);
            ((self.*fields = other.*fields), ...);
        }
        return self;
    }

private:
    std::shared_ptr<veltrano::ParamRegistry> registry_;
    // The registry this record created: it is bound to this record's fields, so it is
    // disowned when the record goes away.
    std::weak_ptr<veltrano::ParamRegistry> ownRegistry_;
    std::shared_ptr<char> pathStorage_;
};

// CLAHE settings (clahe_8U .. clahe_64F). Saved under "claheParam"; loadParam reads nothing.
struct VELTRANO_API claheParam : public paramBase {
    int widthBlockNum = 8;
    int heightBlockNum = 8;
    int histBin = 256;
    int peak = 200;
    float binScale = 0.5f;    // set by the CLAHE functions, not persisted
    float outMax = 65535.0f;  // set by the CLAHE functions, not persisted
    char* filePath = nullptr;

    claheParam();
    explicit claheParam(const char* file);
    claheParam(const claheParam& other);
    claheParam& operator=(const claheParam& other);
    ~claheParam() override;

    // Resets the four settings to 8, 8, 256 and 600 without reading any file.
    void loadParam();
    void saveParam();

private:
    void bindKeys();
};

// CLAHE settings of the post-processing chain. Loads "param1".."param4" (peak, histBin,
// widthBlockNum, heightBlockNum) from "Post_Process_Param_<index>", saves under
// "struClaheParam" with the field names as keys.
struct VELTRANO_API struClaheParam : public paramBase {
    int widthBlockNum = 8;
    int heightBlockNum = 8;
    int histBin = 256;
    int peak = 200;
    float binScale = 0.5f;
    float outMax = 65535.0f;
    int sectionIndex = 0;
    char* filePath = nullptr;

    struClaheParam();
    struClaheParam(const char* file, int index);
    struClaheParam(const struClaheParam& other);
    struClaheParam& operator=(const struClaheParam& other);
    ~struClaheParam() override;

    // Resets the four settings to 8, 8, 256 and 600, then reads them if a path is set.
    void loadParam();
    void saveParam();

private:
    void bindKeys();
};

// Edge margins cut by edgeClip_*; section "clipParam".
struct VELTRANO_API clipParam : public paramBase {
    int up = 20;
    int down = 20;
    int left = 200;
    int right = 200;
    char* filePath = nullptr;

    clipParam();
    explicit clipParam(const char* file);
    clipParam(const clipParam& other);
    clipParam& operator=(const clipParam& other);
    ~clipParam() override;

    void loadParam();
    void saveParam();

private:
    void getDefaultData();
};

// Ace_Gamma settings: keys "param1".."param6" in field order, section
// "Post_Process_Param_<index>".
struct VELTRANO_API struAceGammaParam : public paramBase {
    int param1 = 20;      // radius
    float param2 = 1.0f;  // alpha
    float param3 = 3.0f;  // maximum gain
    float param4 = 0.8f;  // gamma
    int param5 = 0;       // non-zero: exact enhancement
    int param6 = 0;       // 1: histogram equalisation
    int sectionIndex = 0;
    char* filePath = nullptr;

    struAceGammaParam();
    explicit struAceGammaParam(int index);
    struAceGammaParam(const char* file, int index);
    struAceGammaParam(const struAceGammaParam& other);
    struAceGammaParam& operator=(const struAceGammaParam& other);
    ~struAceGammaParam() override;

    void loadParam();
    void saveParam();

private:
    void getDefaultData();
};

// Bilateral filter settings; section "struBilatralParam".
struct VELTRANO_API struBilatralParam : public paramBase {
    int k_w = 5;
    int k_h = 5;
    float sigColor_x = 0.5f;
    float sigColor_y = 0.5f;
    float sigSpace_x = 0.5f;
    float sigSpace_y = 0.5f;
    char* filePath = nullptr;

    struBilatralParam();
    explicit struBilatralParam(const char* file);
    struBilatralParam(const struBilatralParam& other);
    struBilatralParam& operator=(const struBilatralParam& other);
    ~struBilatralParam() override;

    void loadParam();
    void saveParam();
    void getDefaultData();
};

// Non-local-means settings; section "struFastNLMParam".
struct VELTRANO_API struFastNLMParam : public paramBase {
    int rd = 1;      // patch radius
    int rD = 3;      // search radius
    float h = 3.0f;  // filtering strength
    char* filePath = nullptr;

    struFastNLMParam();
    explicit struFastNLMParam(const char* file);
    struFastNLMParam(const struFastNLMParam& other);
    struFastNLMParam& operator=(const struFastNLMParam& other);
    ~struFastNLMParam() override;

    void loadParam();
    void saveParam();
    void getDefaultData();
};

// Unsharp-masking settings. Persisted in the section "struFastNLMParam", shared with the
// non-local-means record; existing files keep them there.
struct VELTRANO_API struUSMParam : public paramBase {
    int r = 1;
    int isNeedNorm = 0;
    float lam = 0.5f;
    char* filePath = nullptr;

    struUSMParam();
    explicit struUSMParam(const char* file);
    struUSMParam(const struUSMParam& other);
    struUSMParam& operator=(const struUSMParam& other);
    ~struUSMParam() override;

    void loadParam();
    void saveParam();
    void getDefaultData();
};

// Window levelling settings; section "WLNParam".
struct VELTRANO_API struWLNParam : public paramBase {
    int wl = 0;
    int wr = 0;
    int specifymin = 0;
    int specifymax = 65535;
    char* filePath = nullptr;

    struWLNParam();
    explicit struWLNParam(const char* file);
    struWLNParam(const struWLNParam& other);
    struWLNParam& operator=(const struWLNParam& other);
    ~struWLNParam() override;

    void loadParam();
    void saveParam();
    void getDefaultData();
};

// Basic display settings of an image. A plain record: it is never loaded or saved.
struct VELTRANO_API struImageBaseParam {
    int offset = 0;
    float gain = 1.0f;
    float gamma = 1.0f;
    int width = 0;
    int height = 0;

    struImageBaseParam() = default;
    struImageBaseParam(const struImageBaseParam& other) = default;
    // Both assignments copy all five fields (there is nothing to move).
    struImageBaseParam& operator=(const struImageBaseParam& other) = default;
    struImageBaseParam& operator=(struImageBaseParam&& other) = default;
};
