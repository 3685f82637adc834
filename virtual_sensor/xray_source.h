// The X-ray source in front of the virtual sensors of this process. By default every sensor
// shows its configured scene at its configured dose; a calibration run instead asks for flat
// fields of chosen doses between exposures (VirtualSensor_SetFlatDose), as a service engineer
// sets the generator in front of a real sensor.
#pragma once

namespace virtual_sensor {

// The factor of the configured dose for flat exposures, or a negative value when the sensors
// show their configured scene.
double FlatDoseFactor();
void SetFlatDoseFactor(double factor);

}  // namespace virtual_sensor
