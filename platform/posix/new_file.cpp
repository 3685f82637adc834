#include "platform/new_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace veltrano::platform {

namespace {

NewFileError ErrorOf(int code) {
    switch (code) {
    case EEXIST:
        return NewFileError::Exists;
    case ENOENT:
    case ENOTDIR:
        return NewFileError::NoFolder;
    case EACCES:
    case EPERM:
        return NewFileError::Denied;
    case EROFS:
        return NewFileError::ReadOnly;
    case ENOSPC:
    case EDQUOT:
        return NewFileError::NoSpace;
    default:
        return NewFileError::Other;
    }
}

}  // namespace

std::FILE* CreateNewFile(const std::string& path, NewFileError& error) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666);
    if (fd < 0) {
        error = ErrorOf(errno);
        return nullptr;
    }
    std::FILE* file = ::fdopen(fd, "wb");
    if (file == nullptr) {
        error = ErrorOf(errno);
        ::close(fd);
        ::unlink(path.c_str());
        return nullptr;
    }
    error = NewFileError::None;
    return file;
}

}  // namespace veltrano::platform
