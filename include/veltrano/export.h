// Symbol export for the Veltrano shared library.
//
// The library is built with hidden visibility on every platform, so only what a header marks
// with VELTRANO_API is reachable from a host: the same rule the Windows DLL has by nature.
#pragma once

#if defined(_WIN32)
#if defined(VELTRANO_BUILDING)
#define VELTRANO_API __declspec(dllexport)
#else
#define VELTRANO_API __declspec(dllimport)
#endif
#else
#define VELTRANO_API __attribute__((visibility("default")))
#endif
