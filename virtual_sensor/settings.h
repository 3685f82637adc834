// The virtual sensor's configuration: the section [VirtualSensor] of "VirtualSensor.ini" in the
// working directory handed to Create. Every key is optional; a missing file means a healthy
// 1500-size sensor with the default scene. A key with a value that cannot be meant (a sensor
// size that does not exist, a fault without its code) is an error rather than a silent default,
// so that a test set-up never runs with a configuration other than the one it wrote.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace virtual_sensor {

// The two dark triangles cut from the upper corners of a frame: a pixel is dark by geometry
// when r + c <= cut or c - r >= columns - cut. Loops over a frame take it once.
struct CutCorners {
    int cut;
    int columns;
    bool contains(int column, int row) const {
        return row + column <= cut || column - row >= columns - cut;
    }
    // The columns [first, end) of a row that are not cut, 0 <= first <= end <= columns (first ==
    // end when the whole row is). Loops over a frame walk these spans instead of asking for every
    // pixel.
    void uncut(int row, int& first, int& end) const {
        first = std::min(columns, std::max(0, cut - row + 1));
        end = std::max(first, std::min(columns, columns - cut + row));
    }
};

enum class Scene { Phantom, Flat };

// One configured fault: a command or attribute ID and the code it yields.
struct Fault {
    int id = 0;
    int code = 0;
};

struct Settings {
    int sensorSize = 1500;  // 1000, 1500 or 2000
    int width = 0;          // 0: the width of the sensor size
    int height = 0;         // 0: the height of the sensor size
    int exposureMs = 300;
    Scene scene = Scene::Phantom;
    int dose = 20000;
    uint32_t seed = 1;
    int online = 1;
    std::vector<Fault> failCommands;
    std::vector<Fault> rejectCommands;
    std::vector<int> hangCommands;
    std::vector<Fault> failSetAttrs;
    bool noImage = false;
    bool nullImage = false;

    // Frame size as reported by attributes 5007 / 5008 and delivered with each image.
    int columns() const;
    int rows() const;
    // Size of the two dark triangles cut from the upper corners of every frame.
    int cornerCut() const;
    CutCorners cutCorners() const { return CutCorners{cornerCut(), columns()}; }

    // Fault lookups; each returns false when the ID has no such fault.
    bool failCommand(int command, int& code) const;
    bool rejectCommand(int command, int& code) const;
    bool hangCommand(int command) const;
    bool failSetAttr(int attribute, int& code) const;
};

// Width, height and corner cut of a sensor size; false for a size that does not exist.
bool SensorGeometry(int sensorSize, int& width, int& height, int& cornerCut);

// Reads workDir/VirtualSensor.ini into settings (left at its defaults for keys that are absent,
// and entirely when there is no such file or workDir is null or empty). Returns false and a
// description of the offending line in problem when a value is not acceptable.
bool LoadSettings(const char* workDir, Settings& settings, std::string& problem);

// The same from the text of an INI file.
bool ParseSettings(const std::string& text, Settings& settings, std::string& problem);

}  // namespace virtual_sensor
