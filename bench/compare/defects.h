// Defect maps for the repair functions (1.0 marks a defective pixel).
#pragma once

#include <vector>

namespace compare {

// 3000 scattered pixels and one dead column.
std::vector<float> ScatteredDefects();

// What a sensor's calibration holds: the scattered pixels and the column, a dead stretch of a
// row and a small cluster.
std::vector<float> RealisticDefects();

}  // namespace compare
