#include "platform/directory.h"

#include <io.h>

#include <cstring>

namespace veltrano::platform {

namespace {

void ListInto(const std::string& folder, std::vector<std::string>& files) {
    struct _finddata64i32_t entry;
    const intptr_t search = ::_findfirst64i32((folder + "/*").c_str(), &entry);
    if (search == -1) {
        return;
    }
    do {
        if (std::strcmp(entry.name, ".") == 0 || std::strcmp(entry.name, "..") == 0) {
            continue;
        }
        std::string path = folder + "/" + entry.name;
        if ((entry.attrib & _A_SUBDIR) != 0) {
            ListInto(path, files);
        } else {
            files.push_back(std::move(path));
        }
    } while (::_findnext64i32(search, &entry) == 0);
    ::_findclose(search);
}

}  // namespace

std::vector<std::string> ListFilesRecursive(const std::string& folder) {
    std::vector<std::string> files;
    ListInto(folder, files);
    return files;
}

}  // namespace veltrano::platform
