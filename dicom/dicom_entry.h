// How the veltrano program reaches the shared DICOM library without linking it: linked, the
// library and DCMTK's dozen libraries behind it would load at every start of the program. The
// program loads it the first time a DICOM file is read or written and asks its one C entry point
// for the file functions. Not installed: hosts link the library and call dicom.h directly.
#pragma once

#include <cstdint>
#include <string>

#include "dicom.h"

namespace vdicom {

struct DicomFileFunctions {
    decltype(&WriteDicom) write;
    decltype(&ReadDicom) read;
};

// The program and the library pass C++ objects to each other, so both must come from one build.
// What they compare: the sizes of the structures they pass.
constexpr uint64_t DicomLayout() {
    return uint64_t(sizeof(DicomImage)) | uint64_t(sizeof(DicomIdentity)) << 16 |
           uint64_t(sizeof(DicomDetector)) << 32 | uint64_t(sizeof(DicomSource)) << 48;
}

inline constexpr char kDicomEntryName[] = "veltrano_dicom_file_functions";

#if defined(VELTRANO_DICOM_LOADER)
// The program's side (dicom_file_loader.cpp): loads the library if that has not been done yet.
// False with a one-line reason when it cannot be loaded or is not from this build.
bool LoadDicomLibrary(std::string& error);
#endif

}  // namespace vdicom

// The file functions when `layout` is the caller's DicomLayout(), else null.
extern "C" VELTRANO_DICOM_API const vdicom::DicomFileFunctions* veltrano_dicom_file_functions(
    uint64_t layout);
