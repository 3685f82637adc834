// Symbol export for the DICOM library, a library of its own beside Veltrano's: shared where it is
// installed (built on DCMTK), static inside the program where DCMTK is missing.
#pragma once

#if defined(VELTRANO_DICOM_STATIC)
#define VELTRANO_DICOM_API
#elif defined(_WIN32)
#if defined(VELTRANO_DICOM_BUILDING)
#define VELTRANO_DICOM_API __declspec(dllexport)
#else
#define VELTRANO_DICOM_API __declspec(dllimport)
#endif
#else
#define VELTRANO_DICOM_API __attribute__((visibility("default")))
#endif
