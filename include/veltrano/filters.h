#pragma once

#include "veltrano/export.h"
