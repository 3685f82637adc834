#include "platform/file_kind.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>

namespace veltrano::platform {

namespace {

FileKind KindOfMode(mode_t mode) {
    if (S_ISREG(mode)) return FileKind::Regular;
    if (S_ISDIR(mode)) return FileKind::Directory;
    if (S_ISFIFO(mode)) return FileKind::Fifo;
    if (S_ISCHR(mode) || S_ISBLK(mode)) return FileKind::Device;
    if (S_ISSOCK(mode)) return FileKind::Socket;
    if (S_ISLNK(mode)) return FileKind::SymbolicLink;
    return FileKind::Other;
}

// stat or lstat of the path; Missing when nothing is there, Other when it cannot be examined
// (no permission to search a folder on the way, for one).
FileKind Query(const std::string& path, int (*query)(const char*, struct stat*)) {
    struct stat info;
    if (query(path.c_str(), &info) == 0) return KindOfMode(info.st_mode);
    return errno == ENOENT || errno == ENOTDIR ? FileKind::Missing : FileKind::Other;
}

}  // namespace

FileKind FileKindOf(const std::string& path) { return Query(path, ::stat); }

FileKind LinkKindOf(const std::string& path) { return Query(path, ::lstat); }

std::string FinalTarget(const std::string& path) {
    char* resolved = ::realpath(path.c_str(), nullptr);
    if (resolved == nullptr) return std::string();
    std::string text(resolved);
    std::free(resolved);
    return text;
}

}  // namespace veltrano::platform
