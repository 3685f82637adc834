// Reading and writing single values in INI-style text files.
//
// Every call reads the whole file, searches it and, for the writers, rewrites the whole file;
// nothing is cached between calls. A section header is a line beginning with "[", its name the
// text up to the next "]"; a key is the text of a body line up to its first "=", compared
// exactly (case-sensitive, no trimming, so "key = v" defines the key "key " with the value " v").
// Lines beginning with ";" are comments; "#" has no special meaning. The text ends at the end
// of the file, at a byte 0xFF or NUL, or after 4 MiB less one character, whichever comes first;
// a writer writes back only that text (cut again at the limit if it grew past it).
//
// Results: 1 found or written, 0 not found or not written, -1 bad arguments.
#pragma once

#include "veltrano/export.h"

// Copies the value of key in section into buffer, cut to bufferSize - 1 characters and
// terminated; returns 1. When the file or the key is missing, copies defaultValue (if not null)
// with a copy bounded by bufferSize characters, which leaves the buffer unterminated when the
// default is bufferSize characters or longer, and returns 0. Returns -1 for a null or empty
// section or key, a null buffer or fileName, or a bufferSize below 1.
VELTRANO_API int ReadString_INI(const char* section, const char* key, char* buffer, int bufferSize,
                                const char* fileName, const char* defaultValue);

// The numeric readers return defaultValue only when the key is not found. With bad arguments
// (for example a null fileName) they return 0, the conversion of an empty text, whatever the
// default: hosts rely on this.
VELTRANO_API int ReadInt_INI(const char* section, const char* key, const char* fileName,
                             int defaultValue);
VELTRANO_API float ReadFloat_INI(const char* section, const char* key, const char* fileName,
                                 float defaultValue);
VELTRANO_API double ReadDouble_INI(const char* section, const char* key, const char* fileName,
                                   double defaultValue);

// Sets key in section to value, creating the file, section or key as needed. A new key becomes
// the first line of the (last) section of that name; a new section is appended at the end.
// When a key is inserted, every "%%" in the text behind it becomes "%" (that text has always
// passed through the formatter); other "%" sequences are kept as they are.
// Returns 1 when written, 0 when the file could not be written, -1 for a null or empty section
// or key, or a null fileName or value.
VELTRANO_API int WriteString_INI(const char* section, const char* key, const char* value,
                                 const char* fileName);
// value written with "%d".
VELTRANO_API int WriteInt_INI(const char* section, const char* key, int value,
                              const char* fileName);
// value written with "%f" (six decimals: 0.5 becomes 0.500000).
VELTRANO_API int WriteFloat_INI(const char* section, const char* key, float value,
                                const char* fileName);
// The key written with nothing after its "=".
VELTRANO_API int WriteNULL_INI(const char* section, const char* key, const char* fileName);
