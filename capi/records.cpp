// The C interface's parameter records and INI access.
#include "capi/capi_records.h"
#include "veltrano/ini.h"

namespace veltrano::capi {
namespace {

// Points a record's path at the caller's text for one loadParam or saveParam and puts its own
// path back afterwards. The record's storage owns its path, not the pointer, so nothing is freed.
template <class Record>
class PathScope {
public:
    PathScope(Record& record, const char* path) : record_(record), saved_(record.filePath) {
        record_.filePath = const_cast<char*>(path);
    }
    ~PathScope() { record_.filePath = saved_; }
    PathScope(const PathScope&) = delete;
    PathScope& operator=(const PathScope&) = delete;

private:
    Record& record_;
    char* saved_;
};

template <class Record, class CRecord>
int Init(const char* function, CRecord* c) {
    return Guard(function, [&] {
        if (c == nullptr) {
            SetLastError("%s: null record", function);
            return VT_ERR_NULL_ARGUMENT;
        }
        const Record defaults;
        FromRecord(defaults, *c);
        return 1;
    });
}

template <class Record, class CRecord>
int Load(const char* function, CRecord* c, const char* path) {
    return Guard(function, [&] {
        if (c == nullptr || path == nullptr) {
            SetLastError("%s: null %s", function, c == nullptr ? "record" : "INI path");
            return VT_ERR_NULL_ARGUMENT;
        }
        Record record;
        ToRecord(*c, record);
        {
            PathScope<Record> scope(record, path);
            record.loadParam();
        }
        FromRecord(record, *c);
        return 1;
    });
}

template <class Record, class CRecord>
int Save(const char* function, const CRecord* c, const char* path) {
    return Guard(function, [&] {
        if (c == nullptr || path == nullptr) {
            SetLastError("%s: null %s", function, c == nullptr ? "record" : "INI path");
            return VT_ERR_NULL_ARGUMENT;
        }
        Record record;
        ToRecord(*c, record);
        PathScope<Record> scope(record, path);
        record.saveParam();
        return 1;
    });
}

}  // namespace
}  // namespace veltrano::capi

using namespace veltrano::capi;

#define VT_RECORD_FUNCTIONS(Record)                                                        \
    VT_API int VT_CALL vt_##Record##_init(vt_##Record* param) {                            \
        return Init<Record>("vt_" #Record "_init", param);                                 \
    }                                                                                      \
    VT_API int VT_CALL vt_##Record##_load(vt_##Record* param, const char* iniPath) {       \
        return Load<Record>("vt_" #Record "_load", param, iniPath);                        \
    }                                                                                      \
    VT_API int VT_CALL vt_##Record##_save(const vt_##Record* param, const char* iniPath) { \
        return Save<Record>("vt_" #Record "_save", param, iniPath);                        \
    }

extern "C" {

VT_RECORD_FUNCTIONS(claheParam)
VT_RECORD_FUNCTIONS(struClaheParam)
VT_RECORD_FUNCTIONS(clipParam)
VT_RECORD_FUNCTIONS(struAceGammaParam)
VT_RECORD_FUNCTIONS(struBilatralParam)
VT_RECORD_FUNCTIONS(struFastNLMParam)
VT_RECORD_FUNCTIONS(struUSMParam)
VT_RECORD_FUNCTIONS(struWLNParam)

VT_API int VT_CALL vt_struImageBaseParam_init(vt_struImageBaseParam* param) {
    return Init<struImageBaseParam>("vt_struImageBaseParam_init", param);
}

VT_API int VT_CALL vt_ReadString_INI(const char* section, const char* key, char* buffer,
                                     int bufferSize, const char* fileName,
                                     const char* defaultValue) {
    return Guard("ReadString_INI", [&] {
        return ReadString_INI(section, key, buffer, bufferSize, fileName, defaultValue);
    });
}

VT_API int VT_CALL vt_ReadInt_INI(const char* section, const char* key, const char* fileName,
                                  int defaultValue) {
    return GuardValue("ReadInt_INI", defaultValue,
                      [&] { return ReadInt_INI(section, key, fileName, defaultValue); });
}

VT_API float VT_CALL vt_ReadFloat_INI(const char* section, const char* key, const char* fileName,
                                      float defaultValue) {
    return GuardValue("ReadFloat_INI", defaultValue,
                      [&] { return ReadFloat_INI(section, key, fileName, defaultValue); });
}

VT_API double VT_CALL vt_ReadDouble_INI(const char* section, const char* key, const char* fileName,
                                        double defaultValue) {
    return GuardValue("ReadDouble_INI", defaultValue,
                      [&] { return ReadDouble_INI(section, key, fileName, defaultValue); });
}

VT_API int VT_CALL vt_WriteString_INI(const char* section, const char* key, const char* value,
                                      const char* fileName) {
    return Guard("WriteString_INI", [&] { return WriteString_INI(section, key, value, fileName); });
}

VT_API int VT_CALL vt_WriteInt_INI(const char* section, const char* key, int value,
                                   const char* fileName) {
    return Guard("WriteInt_INI", [&] { return WriteInt_INI(section, key, value, fileName); });
}

VT_API int VT_CALL vt_WriteFloat_INI(const char* section, const char* key, float value,
                                     const char* fileName) {
    return Guard("WriteFloat_INI", [&] { return WriteFloat_INI(section, key, value, fileName); });
}

VT_API int VT_CALL vt_WriteNULL_INI(const char* section, const char* key, const char* fileName) {
    return Guard("WriteNULL_INI", [&] { return WriteNULL_INI(section, key, fileName); });
}

}  // extern "C"
