// The entry point of libveltrano_studio.so, the module that "veltrano studio" loads.
#include "studio/studio.h"

extern "C" int veltrano_studio_run(const studio::StudioOptions* options, size_t optionsSize) {
    if (options == nullptr || optionsSize != sizeof(studio::StudioOptions)) {
        return studio::kStudioEntryMismatch;
    }
    return studio::RunStudio(*options);
}
