// CreateNewFile: a file made for writing that did not exist before.
//
// CreateNewFile("out.png.part", error) creates the file and opens it for binary writing, or
// fails if anything at all is at that path already: a file, a folder, a FIFO, or a symbolic
// link (which is never followed), so it cannot be tricked into writing somewhere else. The
// reason for a failure comes back as a NewFileError. POSIX open(O_CREAT | O_EXCL), Win32
// _open(_O_CREAT | _O_EXCL).
#pragma once

#include <cstdio>
#include <string>

namespace veltrano::platform {

enum class NewFileError {
    None,
    Exists,    // something is at the path already
    NoFolder,  // the folder it would go in does not exist
    Denied,    // no permission to create a file in that folder
    ReadOnly,  // the file system is mounted read-only
    NoSpace,   // the disk or the quota is full
    Other,
};

// The open file (close it with fclose), or null with the reason in error.
std::FILE* CreateNewFile(const std::string& path, NewFileError& error);

// "does not exist" and so on, for messages.
inline const char* NewFileErrorText(NewFileError error) {
    switch (error) {
    case NewFileError::None:
        return "no error";
    case NewFileError::Exists:
        return "already exists";
    case NewFileError::NoFolder:
        return "its folder does not exist";
    case NewFileError::Denied:
        return "permission denied";
    case NewFileError::ReadOnly:
        return "the file system is read-only";
    case NewFileError::NoSpace:
        return "no space left on the device";
    case NewFileError::Other:
        break;
    }
    return "cannot be created";
}

}  // namespace veltrano::platform
