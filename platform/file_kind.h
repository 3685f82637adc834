// FileKind: what a path names, as the file system reports it.
//
// FileKindOf(path) answers for what opening the path would reach, following symbolic links;
// LinkKindOf(path) answers for the directory entry itself (SymbolicLink for a link).
// FinalTarget(path) is the file a chain of links ends at. Programs use them to refuse a FIFO, a
// device or a folder before they open it: opening a FIFO blocks until someone writes to it.
// POSIX stat/lstat/realpath; Win32 CreateFile and GetFileType.
#pragma once

#include <string>

namespace veltrano::platform {

enum class FileKind {
    Missing,  // nothing there (or a folder on the way is missing)
    Regular,  // an ordinary file
    Directory,
    Fifo,    // a named pipe
    Device,  // a character or block device (/dev/null, NUL, a disk)
    Socket,
    SymbolicLink,  // only from LinkKindOf
    Other,         // the path exists but cannot be examined, or is of no kind above
};

FileKind FileKindOf(const std::string& path);
FileKind LinkKindOf(const std::string& path);

// The absolute path that path resolves to once every symbolic link is followed; empty when it
// cannot be resolved (a link to nothing, a missing folder on the way).
std::string FinalTarget(const std::string& path);

// "a folder", "a FIFO", "a device" and so on, for messages.
inline const char* FileKindName(FileKind kind) {
    switch (kind) {
    case FileKind::Missing:
        return "nothing";
    case FileKind::Regular:
        return "a regular file";
    case FileKind::Directory:
        return "a folder";
    case FileKind::Fifo:
        return "a FIFO";
    case FileKind::Device:
        return "a device";
    case FileKind::Socket:
        return "a socket";
    case FileKind::SymbolicLink:
        return "a symbolic link";
    case FileKind::Other:
        break;
    }
    return "not a file that can be examined";
}

}  // namespace veltrano::platform
