// The trace log's place on Windows: the public documents folder, as the
// shell's known-folder API reports it (C:\Users\Public\Documents on a
// standard installation).
#include "platform/log_folder.h"
#include "platform/log_path_override.h"

#include <windows.h>
#include <knownfolders.h>
#include <shlobj.h>

namespace platform {

std::string logFilePath()
{
    std::string overridden = logPathOverride();
    if (!overridden.empty()) return overridden;

    std::string folder = "C:\\Users\\Public\\Documents";
    PWSTR widePath = nullptr;
    if (SUCCEEDED(SHGetKnownFolderPath(FOLDERID_PublicDocuments, 0, nullptr, &widePath)) && widePath) {
        int needed = WideCharToMultiByte(CP_ACP, 0, widePath, -1, nullptr, 0, nullptr, nullptr);
        if (needed > 1) {
            std::string converted(static_cast<size_t>(needed), '\0');
            WideCharToMultiByte(CP_ACP, 0, widePath, -1, &converted[0], needed, nullptr, nullptr);
            converted.resize(static_cast<size_t>(needed - 1));
            folder = converted;
        }
    }
    if (widePath) CoTaskMemFree(widePath);
    return folder + "\\QuorvaneDLL.log";
}

}  // namespace platform
