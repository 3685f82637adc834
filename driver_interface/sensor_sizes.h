// The sensors that exist, as the detector object and the driver both know them: the size code
// that GetSensorSize returns, the two image dimensions the driver reports under attributes 5007
// and 5008 (the calibration images have the same), and the side of the two triangles cut from
// the frame's upper corners.
#pragma once

namespace fpdsys {

struct SensorSizeRow {
    int code;
    int width;
    int height;
    int cornerCut;
};

// In the order they are matched.
inline constexpr SensorSizeRow kSensorSizes[] = {
    {1000, 1000, 1500, 211},
    {1500, 1200, 1650, 251},
    {2000, 1300, 1800, 281},
};

// The calibration image dimensions taken for a code that is not in the table.
inline constexpr int kDefaultCalibrationWidth = 1300;
inline constexpr int kDefaultCalibrationHeight = 1800;

// The row of a size code; null when the code is not in the table.
inline const SensorSizeRow* FindSensorRow(int code) {
    for (const SensorSizeRow& row : kSensorSizes) {
        if (row.code == code) {
            return &row;
        }
    }
    return nullptr;
}

// The first row, in table order, with these two image dimensions; null when there is none.
inline const SensorSizeRow* MatchSensorRow(int width, int height) {
    for (const SensorSizeRow& row : kSensorSizes) {
        if (row.width == width && row.height == height) {
            return &row;
        }
    }
    return nullptr;
}

}  // namespace fpdsys
