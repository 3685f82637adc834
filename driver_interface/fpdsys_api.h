// The binary interface of the detector driver library "FpdSys".
//
// The driver is loaded at run time and its seven entry points are looked up by these exact,
// undecorated names (C linkage, the platform's default calling convention). The records are
// exchanged by pointer and must keep the layouts below byte for byte. The detector object calls
// this interface and the virtual sensor implements it; both include this header.
#pragma once

#include <cstdint>

namespace fpdsys {

enum ValueType : int32_t { kInt = 0, kFloat = 1, kString = 2 };

// Attribute value exchanged with GetAttr / SetAttr (524 bytes).
struct Value {
    int32_t type;  // ValueType
    int32_t intValue;
    float floatValue;
    char text[512];  // NUL-terminated
};
static_assert(sizeof(Value) == 524, "driver value record is 524 bytes");

// One command parameter; Invoke takes an array of them (536 bytes each).
struct Param {
    int32_t reserved;  // always 0
    int32_t type;      // ValueType
    int32_t intValue;
    float floatValue;
    char text[512];     // at most 511 characters and a NUL
    uint8_t unused[8];  // never set by the caller
};
static_assert(sizeof(Param) == 536, "driver command parameter is 536 bytes");

// Filled by GetErrInfo: a code field and the message text.
struct ErrInfo {
    int32_t code;
    char text[512];
};

// The data pointer of event 1001 (image ready) points to this record.
struct ImageRecord {
    int32_t columns;
    int32_t rows;
    int32_t unused;
    const uint16_t* pixels;  // columns x rows, row-major
};

// Callback: detector ID (the instance handle), event ID, an ignored integer, an ignored message,
// parameter 1, parameter 2, an ignored integer, and a data pointer.
using Callback = int (*)(int, int, int, const char*, int, int, int, void*);

using CreateFn = int (*)(const char* workDir, Callback callback, int* instance);
using DestroyFn = int (*)(int instance);
using GetAttrFn = int (*)(int instance, int attributeId, Value* value);
using SetAttrFn = int (*)(int instance, int attributeId, const Value* value);
using InvokeFn = int (*)(int instance, int commandId, Param* params, int paramCount);
using AbortFn = int (*)(int instance);
using GetErrInfoFn = int (*)(int code, ErrInfo* info);

// Events and their meaning to the system.
enum Event : int32_t {
    kEvtCommandDone = 4,    // parameter 1 = command ID
    kEvtCommandFailed = 5,  // parameter 1 = command ID, parameter 2 = error code
    kEvtStatus = 7,         // parameter 1 = 1004 while an image is being acquired
    kEvtImage = 1001,       // data = ImageRecord*
};
constexpr int32_t kStatusAcquiring = 1004;

enum Command : int32_t {
    kCmdConnect = 2,
    kCmdDisconnect = 3,
    kCmdPrepare = 6,  // issued with the integer 0x20000 before each acquisition
    kCmdReset = 8,
    kCmdWaitExposure = 1002,
    kCmdReadUserRom = 2001,
    kCmdUpdateFirmware = 2008,
    kCmdWriteUserRam = 2031,
};

enum Attribute : int32_t {
    kAttrUsbInfo = 151,
    kAttrSerialNumber = 2062,
    kAttrTriggerMode = 2506,
    kAttrDelayTime = 2510,
    kAttrTriggerThreshold = 2564,
    kAttrOnlineState = 5002,
    kAttrImageWidth = 5007,
    kAttrImageHeight = 5008,
};

// Binding result codes of our own (not the driver's).
constexpr int kErrNotLoaded = 6;
constexpr int kErrLoadFailed = 9;
constexpr int kErrNullString = 20;
constexpr int kErrTimeout = 22;

}  // namespace fpdsys
