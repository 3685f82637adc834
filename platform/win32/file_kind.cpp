#include "platform/file_kind.h"

#include <windows.h>

namespace veltrano::platform {

namespace {

// Opens the entry without reading or writing it (so a pipe or device is not disturbed) and asks
// what it is. FILE_FLAG_BACKUP_SEMANTICS lets a folder be opened too.
FileKind Query(const std::string& path, bool followLinks) {
    const DWORD flags =
        FILE_FLAG_BACKUP_SEMANTICS | (followLinks ? 0 : FILE_FLAG_OPEN_REPARSE_POINT);
    HANDLE handle =
        ::CreateFileA(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                      nullptr, OPEN_EXISTING, flags, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        const DWORD error = ::GetLastError();
        return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? FileKind::Missing
                                                                              : FileKind::Other;
    }
    FileKind kind = FileKind::Other;
    switch (::GetFileType(handle)) {
    case FILE_TYPE_CHAR:
        kind = FileKind::Device;
        break;
    case FILE_TYPE_PIPE:
        kind = FileKind::Fifo;
        break;
    case FILE_TYPE_DISK: {
        BY_HANDLE_FILE_INFORMATION info;
        if (::GetFileInformationByHandle(handle, &info)) {
            if (!followLinks && (info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
                kind = FileKind::SymbolicLink;
            } else if ((info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
                kind = FileKind::Directory;
            } else {
                kind = FileKind::Regular;
            }
        }
        break;
    }
    default:
        break;
    }
    ::CloseHandle(handle);
    return kind;
}

}  // namespace

FileKind FileKindOf(const std::string& path) { return Query(path, true); }

FileKind LinkKindOf(const std::string& path) { return Query(path, false); }

std::string FinalTarget(const std::string& path) {
    HANDLE handle =
        ::CreateFileA(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                      nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return std::string();
    char buffer[MAX_PATH * 4];
    const DWORD n =
        ::GetFinalPathNameByHandleA(handle, buffer, sizeof buffer, FILE_NAME_NORMALIZED);
    ::CloseHandle(handle);
    if (n == 0 || n >= sizeof buffer) return std::string();
    std::string text(buffer, n);
    // The answer comes in the long-path form "\\?\C:\..."; the plain form opens the same file.
    if (text.compare(0, 4, "\\\\?\\") == 0) text.erase(0, 4);
    return text;
}

}  // namespace veltrano::platform
