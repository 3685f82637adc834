// Recursive directory listing, in the order the operating system returns the entries.
//
// ListFilesRecursive("dir") gives the paths of all files below dir ("dir/a.gn", "dir/sub/b.dft"),
// descending into each sub-folder where it is met; "." and ".." are skipped. A folder that cannot
// be opened yields nothing. Windows uses the _findfirst64i32 family with the pattern "dir/*",
// elsewhere opendir/readdir.
#pragma once

#include <string>
#include <vector>

namespace veltrano::platform {

std::vector<std::string> ListFilesRecursive(const std::string& folder);

}  // namespace veltrano::platform
