#include "platform/new_file.h"

#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <cerrno>

namespace veltrano::platform {

namespace {

NewFileError ErrorOf(int code) {
    switch (code) {
    case EEXIST:
        return NewFileError::Exists;
    case ENOENT:
        return NewFileError::NoFolder;
    case EACCES:
        return NewFileError::Denied;
    case ENOSPC:
        return NewFileError::NoSpace;
    default:
        return NewFileError::Other;
    }
}

}  // namespace

std::FILE* CreateNewFile(const std::string& path, NewFileError& error) {
    const int fd = ::_open(path.c_str(), _O_WRONLY | _O_CREAT | _O_EXCL | _O_BINARY | _O_NOINHERIT,
                           _S_IREAD | _S_IWRITE);
    if (fd < 0) {
        error = ErrorOf(errno);
        return nullptr;
    }
    std::FILE* file = ::_fdopen(fd, "wb");
    if (file == nullptr) {
        error = ErrorOf(errno);
        ::_close(fd);
        ::_unlink(path.c_str());
        return nullptr;
    }
    error = NewFileError::None;
    return file;
}

}  // namespace veltrano::platform
