// The detector object: construction, copies, the process-wide list, the driver's callback,
// bringing the driver up and down, device queries and the exposure settings.
#include "veltrano/detector.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <new>
#include <utility>
#include <vector>

#include "detector/detector_internal.h"
#include "detector/driver_binding.h"
#include "imgproc/scratch_buffers.h"
#include "platform/system.h"

using veltrano::detail::Detectors;
using veltrano::detail::DetectorEvents;
using veltrano::detail::DriverBinding;
using veltrano::detail::LogLine;
using veltrano::detail::LogText;

namespace veltrano::detail {

namespace {
// The sensors this library knows, in the order they are matched.
constexpr SensorSizeRow kSensorSizes[] = {
    {1000, 1000, 1500, 211},
    {1500, 1200, 1650, 251},
    {2000, 1300, 1800, 281},
};
}  // namespace

const SensorSizeRow* FindSensorRow(int code) {
    for (const SensorSizeRow& row : kSensorSizes) {
        if (row.code == code) {
            return &row;
        }
    }
    return nullptr;
}

const SensorSizeRow* MatchSensorRow(int width, int height) {
    for (const SensorSizeRow& row : kSensorSizes) {
        if (row.width == width && row.height == height) {
            return &row;
        }
    }
    return nullptr;
}

void CalibrationSize(int code, unsigned long long& width, unsigned long long& height) {
    const SensorSizeRow* row = FindSensorRow(code);
    width = row != nullptr ? static_cast<unsigned long long>(row->width) : 1300u;
    height = row != nullptr ? static_cast<unsigned long long>(row->height) : 1800u;
}

DetectorList& Detectors() {
    // Never destroyed: detector objects with static storage may outlive any other static.
    static DetectorList* list = new DetectorList;
    return *list;
}

void LogText(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

void LogLine(const std::string& text) { LogText(text + "\n"); }

}  // namespace veltrano::detail

// ---------------------------------------------------------------------------------------------
// Construction, copies and the process-wide list

CVeltrano::CVeltrano(const char* workDir)
    : m_reserved{},
      m_workDir(workDir != nullptr && *workDir != '\0' ? std::string(workDir) : ReadWorkDirPath()),
      m_userStop(false),
      m_progress(0),
      m_endSign(0),
      m_sensorSize(-1),
      m_events(std::make_shared<DetectorEvents>()) {
    std::lock_guard<std::mutex> lock(Detectors().mutex);
    Detectors().members.push_back(this);
}

CVeltrano::CVeltrano(const CVeltrano& other)
    : m_reserved{}, m_userStop(false), m_progress(0), m_endSign(0), m_sensorSize(-1) {
    CopyFrom(other);
}

CVeltrano& CVeltrano::operator=(const CVeltrano& other) {
    if (this != &other) {
        CopyFrom(other);
    }
    return *this;
}

void CVeltrano::CopyFrom(const CVeltrano& other) {
    // The binding this object drops may be its last reference; tearing a driver down joins the
    // driver's thread, which may be waiting for the list's lock, so it is released after it.
    std::shared_ptr<DriverBinding> dropped;
    std::lock_guard<std::mutex> lock(Detectors().mutex);
    std::memcpy(m_reserved, other.m_reserved, sizeof(m_reserved));
    m_usbInfo = other.m_usbInfo;
    m_serialNum = other.m_serialNum;
    m_workDir = other.m_workDir;
    m_userStop = other.m_userStop.load();
    m_progress = other.m_progress.load();
    m_endSign = other.m_endSign.load();
    m_sensorSize = other.m_sensorSize.load();
    m_gainImages = other.m_gainImages;
    m_gainLevels = other.m_gainLevels;
    m_rawImage = other.m_rawImage;
    m_defectMap = other.m_defectMap;
    dropped = std::move(m_pDetInstance);
    m_pDetInstance = other.m_pDetInstance;
    m_events = other.m_events;
}

CVeltrano::~CVeltrano() {
    Deinit();
    std::lock_guard<std::mutex> lock(Detectors().mutex);
    std::vector<CVeltrano*>& members = Detectors().members;
    // The count is taken once and the index advances after an erase too, so of two adjacent
    // entries of this object the second one stays in the list. It stays as an empty entry:
    // the callback skips empty entries and must never meet a destroyed object.
    const size_t count = members.size();
    for (size_t i = 0; i < count && i < members.size(); ++i) {
        if (members[i] == this) {
            members.erase(members.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
    for (CVeltrano*& member : members) {
        if (member == this) {
            member = nullptr;
        }
    }
}

void CVeltrano::RegisterMember() {
    std::lock_guard<std::mutex> lock(Detectors().mutex);
    Detectors().members.push_back(this);
}

CVeltrano* CVeltrano::FindByInstanceLocked(int id) {
    if (id == 0) {
        return nullptr;  // 0 is "no instance", which every torn-down binding has
    }
    for (CVeltrano* member : Detectors().members) {
        if (member != nullptr && member->m_pDetInstance != nullptr &&
            member->m_pDetInstance->Instance() == id) {
            return member;
        }
    }
    return nullptr;
}

std::shared_ptr<DriverBinding> CVeltrano::CurrentBinding() const {
    std::lock_guard<std::mutex> lock(Detectors().mutex);
    return m_pDetInstance;
}

CVeltrano* CVeltrano::JudgePtrByID(int id) {
    std::lock_guard<std::mutex> lock(Detectors().mutex);
    return FindByInstanceLocked(id);
}

int CVeltrano::SDKCallbackHandler(int detectorId, int eventId, int /*unused1*/,
                                  const char* /*message*/, int param1, int param2,
                                  int /*unused2*/, void* data) {
    veltrano::platform::RaiseProcessPriority();
    // The lock stays held while the event is handled, so the object cannot be destroyed, nor
    // its binding or raw image replaced, under the callback.
    std::lock_guard<std::mutex> lock(Detectors().mutex);
    CVeltrano* target = FindByInstanceLocked(detectorId);
    if (target == nullptr) {
        return 0;
    }
    target->m_pDetInstance->OnCallback(detectorId, eventId, param1, param2);

    if (eventId == fpdsys::kEvtCommandFailed && param1 == fpdsys::kCmdWaitExposure) {
        // The driver could not arm the sensor: no image will come, so the wait ends with an
        // error instead of lasting until the host stops it.
        target->m_events->armFailed = true;
        target->m_events->auxiliary.set();
    } else if (eventId == fpdsys::kEvtStatus && param1 == fpdsys::kStatusAcquiring) {
        LogLine("Acquiring image...");
    } else if (eventId == fpdsys::kEvtImage) {
        LogLine("enter Evt_Image");
        target->StoreDeliveredImage(data);
        target->m_events->nextStep.set();
        LogLine("Set s_hNextStep");
        LogLine("Get an image!");
    }
    return 0;
}

void CVeltrano::StoreDeliveredImage(const void* record) {
    if (record == nullptr) {
        return;
    }
    const auto* image = static_cast<const fpdsys::ImageRecord*>(record);
    // A record without pixels or with no extent carries no image; it is treated like a null
    // record rather than read.
    if (image->pixels == nullptr || image->columns <= 0 || image->rows <= 0) {
        return;
    }
    // A frame larger than any image the library takes on is not believed either: copying it
    // would read gigabytes the driver may not have, and it could never be corrected.
    const uint64_t count64 =
        static_cast<uint64_t>(image->columns) * static_cast<uint64_t>(image->rows);
    if (count64 > veltrano::kMaxElements) {
        m_rawImage.clearData();
        return;
    }
    const size_t count = static_cast<size_t>(count64);
    std::vector<uint16_t> pixels;
    try {
        pixels.assign(image->pixels, image->pixels + count);
    } catch (const std::bad_alloc&) {
        m_rawImage.clearData();
        return;  // no room for the frame: the acquisition reports it as not delivered
    }
    m_rawImage.clearData();
    m_rawImage.width = static_cast<unsigned long long>(image->columns);
    m_rawImage.height = static_cast<unsigned long long>(image->rows);
    m_rawImage.depth = 1;
    m_rawImage.callMemory(count);
    if (m_rawImage.data == nullptr) {
        return;  // no room for the frame: the acquisition reports it as not delivered
    }
    for (size_t i = 0; i < count; ++i) {
        m_rawImage.data[i] = static_cast<float>(pixels[i]);
    }
}

std::string CVeltrano::ReadWorkDirPath() {
    const char sep = veltrano::platform::PathSeparator();
    const std::string shared = std::string("..") + sep + "common" + sep + "workdir_path.txt";
    std::ifstream file(shared);
    if (!file.is_open()) {
        file.open("workdir_path.txt");
    }
    if (!file.is_open()) {
        return std::string();
    }
    // The first line, at most 127 characters including its line feed.
    std::string line;
    char c = 0;
    while (line.size() < 127 && file.get(c)) {
        line.push_back(c);
        if (c == '\n') {
            break;
        }
    }
    // Line feeds, and the carriage return of a file written on Windows and read elsewhere.
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    return line;
}

// ---------------------------------------------------------------------------------------------
// Bringing the driver up and down

int CVeltrano::Initialize() { return InitializeByPath(m_workDir.c_str()); }

int CVeltrano::InitializeByPath(const char* path) {
    auto binding = std::make_shared<DriverBinding>();
    {
        // A binding already there is dropped; if no copy holds it, it tears its driver down.
        // That happens outside the lock (see CopyFrom).
        std::shared_ptr<DriverBinding> dropped;
        {
            std::lock_guard<std::mutex> lock(Detectors().mutex);
            dropped = std::move(m_pDetInstance);
            m_pDetInstance = binding;
        }
    }
    LogLine("Load libray");
    int result = binding->Load();
    if (result != 0) {
        LogText("\t\t\t[No]\n");
        return result;
    }
    LogText("\t\t\t[Yes]\n");
    LogLine("Create instance");
    result = binding->CreateInstance(path, &CVeltrano::SDKCallbackHandler);
    if (result != 0) {
        LogText("\t\t\t[No] - error:" + binding->ErrorText(result) + "\n");
    } else {
        LogText("\t\t\t[Yes]\n");
    }
    return result;
}

int CVeltrano::Connect() {
    std::shared_ptr<DriverBinding> binding = CurrentBinding();
    if (binding == nullptr) {
        return -1;
    }
    const int result = binding->RunCommand(fpdsys::kCmdConnect, {}, 10000);
    LogText("\t\t\t[No ]:" + binding->ErrorText(result) + "\n");
    if (result == 0) {
        const int size = JudgeSensorSize();
        LogLine("SensroSize:" + std::to_string(size));
        if (size < 0) {
            LogLine("Error: The SensorSize is not exist!");
            return -101;
        }
    }
    return result;
}

void CVeltrano::Disconnect() {
    if (std::shared_ptr<DriverBinding> binding = CurrentBinding()) {
        binding->RunCommand(fpdsys::kCmdDisconnect, {}, 1000);
    }
}

void CVeltrano::Deinit() {
    std::shared_ptr<DriverBinding> binding;
    {
        std::lock_guard<std::mutex> lock(Detectors().mutex);
        binding = std::move(m_pDetInstance);
    }
    if (binding != nullptr) {
        // Copies still holding the binding now find it unloaded.
        binding->Teardown();
        // A copy waiting for an image on the shared events learns that none will come.
        m_events->auxiliary.set();
    }
}

void CVeltrano::ReSet() {
    if (std::shared_ptr<DriverBinding> binding = CurrentBinding()) {
        binding->StartCommand(fpdsys::kCmdReset);
    }
}

void CVeltrano::ReadUserRom() {
    // Without a binding there is no driver to ask; nothing happens.
    if (std::shared_ptr<DriverBinding> binding = CurrentBinding()) {
        binding->StartCommand(fpdsys::kCmdReadUserRom);
    }
}

int CVeltrano::UpdateFirmWare(const char* path) {
    if (path == nullptr) {
        return -1;
    }
    // Only an object without a binding goes on; one with a driver answers -1 untouched. Hosts
    // rely on this inverted test, so it stays.
    if (CurrentBinding() != nullptr) {
        return -1;
    }
    // Without a binding there is no driver to start the update on; nothing is printed.
    return -1;
}

// ---------------------------------------------------------------------------------------------
// Device queries

Enm_Online CVeltrano::GetDectectorState() {
    std::shared_ptr<DriverBinding> binding = CurrentBinding();
    if (binding == nullptr) {
        LogLine("m_pDetInstance is nullptr");
        return Enm_Online_Unknown;
    }
    switch (binding->ReadIntAttribute(fpdsys::kAttrOnlineState)) {
    case 0:
        return Enm_Online_Offline;
    case 1:
        return Enm_Online_Online;
    case 2:
        return Enm_Online_Standby;
    default:
        return Enm_Online_Unknown;
    }
}

std::string CVeltrano::GetDectectorSerialNum() {
    std::shared_ptr<DriverBinding> binding = CurrentBinding();
    m_serialNum = binding != nullptr ? binding->ReadStringAttribute(fpdsys::kAttrSerialNumber)
                                     : std::string();
    return m_serialNum;
}

std::string CVeltrano::GetDectectorUSBInfo() {
    std::shared_ptr<DriverBinding> binding = CurrentBinding();
    m_usbInfo = binding != nullptr ? binding->ReadStringAttribute(fpdsys::kAttrUsbInfo)
                                   : std::string();
    return m_usbInfo;
}

int CVeltrano::JudgeSensorSize() {
    std::shared_ptr<DriverBinding> binding = CurrentBinding();
    int size = -1;
    if (binding != nullptr) {
        const int width = binding->ReadIntAttribute(fpdsys::kAttrImageWidth);
        const int height = binding->ReadIntAttribute(fpdsys::kAttrImageHeight);
        if (const auto* row = veltrano::detail::MatchSensorRow(width, height)) {
            size = row->code;
        }
    }
    m_sensorSize = size;
    return size;
}

int CVeltrano::GetSensorSize() { return m_sensorSize; }

// ---------------------------------------------------------------------------------------------
// Exposure settings

namespace {
// The four messages of a setter: old value, unchanged, write result, new value.
constexpr const char* kDelayMessages[] = {"Old Delaytime is:",
                                          "There is no need to change DelayTime!",
                                          "Set Delaytime result:", "New Delaytime is:"};
constexpr const char* kModeMessages[] = {"Old Triggermode is:",
                                         "There is no need to change Triggermode!",
                                         "Set TriggerMode result:", "New Triggermode is:"};
constexpr const char* kThresholdMessages[] = {
    "Old TriggerThreshold is:", "There is no need to change TriggerThreshold!",
    "Set TriggerThreshold result:", "New TriggerThreshold is:"};
}  // namespace

int CVeltrano::ApplySetting(int attribute, int value, const char* const* messages) {
    std::shared_ptr<DriverBinding> binding = CurrentBinding();
    if (binding == nullptr) {
        return fpdsys::kErrNotLoaded;
    }
    const int old = binding->ReadIntAttribute(attribute);
    LogLine(messages[0] + std::to_string(old));
    int result = 0;
    if (old == value) {
        LogLine(messages[1]);
    } else {
        result = binding->WriteInt(attribute, value);
    }
    // The result line comes in both cases; with nothing written it carries the text for 0.
    LogLine(messages[2] + binding->ErrorText(result));
    LogLine(messages[3] + std::to_string(binding->ReadIntAttribute(attribute)));
    LogLine("");
    return result;
}

int CVeltrano::SetDelayTime(int delayTime) {
    return ApplySetting(fpdsys::kAttrDelayTime, delayTime >= 1 ? delayTime : 0, kDelayMessages);
}

int CVeltrano::SetTriggerMode(int triggerMode) {
    if (triggerMode != 6 && triggerMode != 7) {
        // Deliberately not an error for the caller: the driver keeps its mode.
        LogLine("triggermode must b type 6 and 7");
        return 0;
    }
    return ApplySetting(fpdsys::kAttrTriggerMode, triggerMode, kModeMessages);
}

int CVeltrano::SetTriggerThreshold(int triggerThreshold) {
    return ApplySetting(fpdsys::kAttrTriggerThreshold, triggerThreshold, kThresholdMessages);
}
