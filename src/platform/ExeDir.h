#pragma once
#include <string>

namespace quorvel::platform {

// Folder of the running executable with a trailing '/': the station folder.
std::string ExeDir();

// Everything up to and including the last '/' or '\' of `path` (empty when neither occurs).
std::string FolderOf(const std::string& path);

}  // namespace quorvel::platform
