// The default scene: a synthetic intraoral radiograph of three lower posterior teeth.
//
// The scene is the fraction of the incident dose that reaches each pixel, exp(-A) for the
// summed attenuation A along the ray: soft tissue over the whole field (thin above the crowns,
// thicker towards the roots and one cheek side), alveolar bone with a trabecular texture below
// the crest, and teeth whose crowns carry an enamel cap over dentine, with a pulp chamber and
// root canals, and roots set in the bone inside a thin ligament space and a dense socket wall.
// A slight fall-off of the beam towards the edges is included. Raw values are therefore highest
// where little absorbs (above the crowns) and lowest in the enamel, as a detector sees it.
#pragma once

#include <cstdint>
#include <vector>

namespace virtual_sensor {

// columns x rows transmission values in (0, 1], row-major; the layout varies a little with seed.
std::vector<float> RenderPhantom(int columns, int rows, uint32_t seed);

}  // namespace virtual_sensor
