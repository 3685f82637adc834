// Veltrano: the intraoral X-ray sensor driver and image-processing library.
//
// This umbrella header declares everything a host sees: the image matrix, the detector object,
// the processing functions and their pixel-type codes, INI access and parameter records, the
// post-processing chain, and the calibration of a sensor from its own exposures. Link with the
// veltrano library (libveltrano.so / veltrano.dll). All declarations have C++ linkage.
#pragma once

#include "veltrano/export.h"

#include "veltrano/imgmat.h"
#include "veltrano/ini.h"
#include "veltrano/params.h"

#include "veltrano/pixel_type.h"
#include "veltrano/normalize.h"
#include "veltrano/point_ops.h"
#include "veltrano/clahe.h"
#include "veltrano/contrast.h"
#include "veltrano/filters.h"
#include "veltrano/bilateral.h"
#include "veltrano/fastnlm.h"
#include "veltrano/defect_repair.h"
#include "veltrano/geometry.h"
#include "veltrano/usm.h"

#include "veltrano/detector.h"
#include "veltrano/calibration_builder.h"
#include "veltrano/chain.h"
