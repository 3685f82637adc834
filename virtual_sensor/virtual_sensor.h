// The virtual sensor: a stand-in for the detector's driver library, built as libFpdSys.so
// (FpdSys.dll on Windows), so that hosts, tests and demonstrations run a whole acquisition
// without hardware. Besides the driver's seven entry points it exports functions of its own,
// declared here: one writes the calibration files matching the sensor it plays, one sets the
// X-ray source in front of it (flat fields of a chosen dose, for calibration runs), and one
// hands out the sensor's fixed pattern (gain, dark offset, defects) so that a calibration made
// from its exposures can be compared with the truth.
//
// Configuration: a file "VirtualSensor.ini" in the working directory given to Create (and to
// VirtualSensor_WriteCalibration), section [VirtualSensor]:
//   SensorSize = 1000 | 1500 | 2000      frame 1000x1500, 1200x1650 or 1300x1800 (default 1500)
//   Width, Height = N                    deliver and report another frame size
//   ExposureMs = N                       delay from arming (command 1002) to the image (300)
//   Scene = phantom | flat               a synthetic intraoral radiograph, or a uniform exposure
//   Dose = N                             mean raw signal of a flat exposure (20000)
//   Seed = N                             fixed pattern (gain, defects) and noise (1)
//   Online = N                           value of attribute 5002 (1)
//   FailCommand = ID:CODE                command ID completes with event 5, parameter 2 = CODE
//   RejectCommand = ID:CODE              Invoke of command ID returns CODE, no callback
//   HangCommand = ID                     Invoke of command ID returns 1, nothing follows
//   FailSetAttr = ID:CODE                SetAttr of attribute ID returns CODE
//   NoImage = 1                          command 1002 is accepted, no image ever arrives
//   NullImage = 1                        event 1001 carries a null data pointer
// The fault keys take a comma-separated list ("FailCommand = 6:17, 2031:18"). A value that
// cannot be meant makes Create fail with code 10, whose text names the offending line.
// An exposure whose frame does not fit in the memory left fails through event 5 with code 11.
#pragma once

#if defined(_WIN32)
#if defined(VIRTUAL_SENSOR_BUILDING)
#define VIRTUAL_SENSOR_API __declspec(dllexport)
#else
#define VIRTUAL_SENSOR_API __declspec(dllimport)
#endif
#else
#define VIRTUAL_SENSOR_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

// Writes the sensor's calibration for the configuration in workDir/VirtualSensor.ini (or the
// defaults) into workDir/Correct/Default: "VirtualSensor.gn" holds a 1040-byte header and one
// flat frame, or four flat frames of increasing dose when frames is 4 (columns x rows
// little-endian 16-bit pixels each, the first pixel holding the frame's gain level);
// "VirtualSensor.dft" holds a 1040-byte header and columns x rows bytes, 1 at every defective
// pixel. Returns 0 on success; 1 for a null or empty workDir or a frame count other than 1 or 4,
// 2 for a configuration that Create would reject, 3 when the folder cannot be made, 4 when a
// file cannot be written, 5 when the frame does not fit in the memory left.
VIRTUAL_SENSOR_API int VirtualSensor_WriteCalibration(const char* workDir, int frames);

// Sets the X-ray source of every virtual sensor in this process, from the next exposure on: a
// factor of 0 or more makes each exposure a flat field of factor x the sensor's configured Dose,
// whatever its Scene (0: no radiation, only the dark signal; a large factor saturates); a
// negative factor returns to the configured scene and dose, the state at load time. The noise
// of each frame is drawn as before. Returns 0; 1 for a factor above 100 or not a number, which
// changes nothing.
VIRTUAL_SENSOR_API int VirtualSensor_SetFlatDose(double factor);

// The fixed pattern of the sensor configured in workDir/VirtualSensor.ini (or the defaults), one
// value per pixel row after row: gain (raw signal per unit of dose), dark offset (raw units) and
// defects (1 at a defective pixel, 0 elsewhere: the map of the defect file). A good pixel reads
// gain x dose x scene + dark offset + noise; a defective one its own stuck value. Any output may
// be null; count is the number of elements each given output holds and must be columns x rows.
// Returns 0 on success; 1 for a null or empty workDir or a count other than columns x rows, 2 for
// a configuration that Create would reject, 5 when the pattern does not fit in the memory left.
VIRTUAL_SENSOR_API int VirtualSensor_GetFixedPattern(const char* workDir, float* gain,
                                                     float* darkOffset, unsigned char* defects,
                                                     long long count);

#ifdef __cplusplus
}
#endif
