#include "settings.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "driver_interface/sensor_sizes.h"

namespace virtual_sensor {
namespace {

constexpr int kMinDimension = 16;
constexpr int kMaxDimension = 8192;

std::string Trim(const std::string& text) {
    size_t begin = 0;
    size_t end = text.size();
    while (begin < end && std::isspace(static_cast<unsigned char>(text[begin]))) {
        ++begin;
    }
    while (end > begin && std::isspace(static_cast<unsigned char>(text[end - 1]))) {
        --end;
    }
    return text.substr(begin, end - begin);
}

std::string Lower(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

// A whole decimal integer (optional sign) within [lo, hi].
bool ParseInteger(const std::string& text, long long lo, long long hi, long long& value) {
    if (text.empty()) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const long long parsed = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || end == text.c_str() || *end != '\0' || parsed < lo || parsed > hi) {
        return false;
    }
    value = parsed;
    return true;
}

bool ParseInt(const std::string& text, int lo, int hi, int& value) {
    long long parsed = 0;
    if (!ParseInteger(text, lo, hi, parsed)) {
        return false;
    }
    value = static_cast<int>(parsed);
    return true;
}

bool ParseFlag(const std::string& text, bool& value) {
    const std::string word = Lower(text);
    if (word == "1" || word == "true" || word == "yes" || word == "on") {
        value = true;
        return true;
    }
    if (word == "0" || word == "false" || word == "no" || word == "off") {
        value = false;
        return true;
    }
    return false;
}

std::vector<std::string> SplitList(const std::string& text) {
    std::vector<std::string> items;
    std::string item;
    std::istringstream stream(text);
    while (std::getline(stream, item, ',')) {
        items.push_back(Trim(item));
    }
    return items;
}

// "ID:CODE[, ID:CODE ...]"
bool ParseFaults(const std::string& text, std::vector<Fault>& faults) {
    std::vector<Fault> parsed;
    for (const std::string& item : SplitList(text)) {
        const size_t colon = item.find(':');
        if (colon == std::string::npos) {
            return false;
        }
        Fault fault;
        if (!ParseInt(Trim(item.substr(0, colon)), INT32_MIN, INT32_MAX, fault.id) ||
            !ParseInt(Trim(item.substr(colon + 1)), INT32_MIN, INT32_MAX, fault.code)) {
            return false;
        }
        parsed.push_back(fault);
    }
    if (parsed.empty()) {
        return false;
    }
    faults = std::move(parsed);
    return true;
}

// "ID[, ID ...]"
bool ParseIds(const std::string& text, std::vector<int>& ids) {
    std::vector<int> parsed;
    for (const std::string& item : SplitList(text)) {
        int id = 0;
        if (!ParseInt(item, INT32_MIN, INT32_MAX, id)) {
            return false;
        }
        parsed.push_back(id);
    }
    if (parsed.empty()) {
        return false;
    }
    ids = std::move(parsed);
    return true;
}

// Applies one key; false when the value is not acceptable. Unknown keys are ignored so that a
// newer configuration file still works with this sensor.
bool ApplyKey(const std::string& key, const std::string& value, Settings& s) {
    const std::string k = Lower(key);
    if (k == "sensorsize") {
        int size = 0;
        int w = 0, h = 0, cut = 0;
        if (!ParseInt(value, 0, INT32_MAX, size) || !SensorGeometry(size, w, h, cut)) {
            return false;
        }
        s.sensorSize = size;
        return true;
    }
    if (k == "width") {
        return ParseInt(value, kMinDimension, kMaxDimension, s.width);
    }
    if (k == "height") {
        return ParseInt(value, kMinDimension, kMaxDimension, s.height);
    }
    if (k == "exposurems") {
        return ParseInt(value, 0, 3600000, s.exposureMs);
    }
    if (k == "scene") {
        const std::string scene = Lower(value);
        if (scene == "phantom") {
            s.scene = Scene::Phantom;
        } else if (scene == "flat") {
            s.scene = Scene::Flat;
        } else {
            return false;
        }
        return true;
    }
    if (k == "dose") {
        return ParseInt(value, 1, 65535, s.dose);
    }
    if (k == "seed") {
        long long seed = 0;
        if (!ParseInteger(value, 0, UINT32_MAX, seed)) {
            return false;
        }
        s.seed = static_cast<uint32_t>(seed);
        return true;
    }
    if (k == "online") {
        return ParseInt(value, INT32_MIN, INT32_MAX, s.online);
    }
    if (k == "failcommand") {
        return ParseFaults(value, s.failCommands);
    }
    if (k == "rejectcommand") {
        return ParseFaults(value, s.rejectCommands);
    }
    if (k == "hangcommand") {
        return ParseIds(value, s.hangCommands);
    }
    if (k == "failsetattr") {
        return ParseFaults(value, s.failSetAttrs);
    }
    if (k == "noimage") {
        return ParseFlag(value, s.noImage);
    }
    if (k == "nullimage") {
        return ParseFlag(value, s.nullImage);
    }
    return true;
}

bool FindFault(const std::vector<Fault>& faults, int id, int& code) {
    for (const Fault& fault : faults) {
        if (fault.id == id) {
            code = fault.code;
            return true;
        }
    }
    return false;
}

}  // namespace

bool SensorGeometry(int sensorSize, int& width, int& height, int& cornerCut) {
    // The sizes that exist are the ones the detector object expects from attributes 5007 and
    // 5008.
    const fpdsys::SensorSizeRow* row = fpdsys::FindSensorRow(sensorSize);
    if (row == nullptr) {
        return false;
    }
    width = row->width;
    height = row->height;
    cornerCut = row->cornerCut;
    return true;
}

int Settings::columns() const {
    int w = 0, h = 0, cut = 0;
    SensorGeometry(sensorSize, w, h, cut);
    return width > 0 ? width : w;
}

int Settings::rows() const {
    int w = 0, h = 0, cut = 0;
    SensorGeometry(sensorSize, w, h, cut);
    return height > 0 ? height : h;
}

int Settings::cornerCut() const {
    int w = 0, h = 0, cut = 0;
    SensorGeometry(sensorSize, w, h, cut);
    // A frame narrowed by Width keeps the cut of its size row, but never more than a quarter of
    // its width, so that at least half of the top row still sees the exposure.
    return std::min(cut, columns() / 4);
}

bool Settings::failCommand(int command, int& code) const {
    return FindFault(failCommands, command, code);
}

bool Settings::rejectCommand(int command, int& code) const {
    return FindFault(rejectCommands, command, code);
}

bool Settings::hangCommand(int command) const {
    return std::find(hangCommands.begin(), hangCommands.end(), command) != hangCommands.end();
}

bool Settings::failSetAttr(int attribute, int& code) const {
    return FindFault(failSetAttrs, attribute, code);
}

bool ParseSettings(const std::string& text, Settings& settings, std::string& problem) {
    Settings parsed;
    std::istringstream stream(text);
    std::string line;
    bool inSection = false;
    int lineNumber = 0;
    while (std::getline(stream, line)) {
        ++lineNumber;
        const std::string trimmed = Trim(line);
        if (trimmed.empty() || trimmed[0] == ';' || trimmed[0] == '#') {
            continue;
        }
        if (trimmed[0] == '[') {
            const size_t close = trimmed.find(']');
            const std::string name =
                Trim(trimmed.substr(1, close == std::string::npos ? std::string::npos : close - 1));
            inSection = Lower(name) == "virtualsensor";
            continue;
        }
        if (!inSection) {
            continue;
        }
        const size_t equals = trimmed.find('=');
        if (equals == std::string::npos) {
            continue;
        }
        const std::string key = Trim(trimmed.substr(0, equals));
        const std::string value = Trim(trimmed.substr(equals + 1));
        if (!ApplyKey(key, value, parsed)) {
            problem = "VirtualSensor.ini line " + std::to_string(lineNumber) + ": bad value for " +
                      key + ": \"" + value + "\"";
            return false;
        }
    }
    settings = std::move(parsed);
    return true;
}

bool LoadSettings(const char* workDir, Settings& settings, std::string& problem) {
    settings = Settings();
    if (workDir == nullptr || workDir[0] == '\0') {
        return true;
    }
    std::error_code error;
    const std::filesystem::path path = std::filesystem::path(workDir) / "VirtualSensor.ini";
    if (!std::filesystem::is_regular_file(path, error)) {
        return true;
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        problem = "VirtualSensor.ini cannot be read";
        return false;
    }
    std::ostringstream text;
    text << file.rdbuf();
    return ParseSettings(text.str(), settings, problem);
}

}  // namespace virtual_sensor
