// The detector object's life: construction, copies and destruction, bringing the driver up and
// down, and the commands that start or end the sensor's session.
#include "veltrano/detector.h"

#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "detector/detector_internal.h"
#include "detector/driver_binding.h"
#include "driver_interface/fpdsys_api.h"
#include "platform/system.h"

using veltrano::detail::DetectorEvents;
using veltrano::detail::Detectors;
using veltrano::detail::DriverBinding;
using veltrano::detail::LogLine;
using veltrano::detail::LogText;

// ---------------------------------------------------------------------------------------------
// Construction, copies and destruction

CVeltrano::CVeltrano(const char* workDir)
    : m_reserved{},
      m_workDir(workDir != nullptr && *workDir != '\0' ? std::string(workDir) : ReadWorkDirPath()),
      m_userStop(false),
      m_progress(0),
      m_endSign(0),
      m_sensorSize(-1),
      m_events(std::make_shared<DetectorEvents>()) {
    veltrano::detail::AddDetector(this);
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
    veltrano::detail::RemoveDetector(this);
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
