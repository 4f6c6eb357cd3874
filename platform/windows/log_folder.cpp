// The trace log's place on Windows: the public documents folder,
// "%PUBLIC%\Documents" (C:\Users\Public\Documents on a standard
// installation). It is found from the environment rather than through the
// shell's known-folder API: shell32 and COM may load further modules, and
// the library must not import them at all, let alone call them while the
// loader lock could be held. A machine without PUBLIC (a service with a
// bare environment) uses the standard place on the system drive.
#include "platform/log_folder.h"
#include "platform/log_path_override.h"

#include <windows.h>

namespace platform {
namespace {

std::string narrowVariable(const wchar_t* name)
{
    wchar_t wide[MAX_PATH];
    const DWORD length = GetEnvironmentVariableW(name, wide, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) return std::string();
    const int needed = WideCharToMultiByte(CP_ACP, 0, wide, static_cast<int>(length), nullptr, 0, nullptr, nullptr);
    if (needed <= 0) return std::string();
    std::string narrow(static_cast<size_t>(needed), '\0');
    WideCharToMultiByte(CP_ACP, 0, wide, static_cast<int>(length), &narrow[0], needed, nullptr, nullptr);
    return narrow;
}

}  // namespace

std::string logFilePath()
{
    std::string overridden = logPathOverride();
    if (!overridden.empty()) return overridden;

    std::string folder = narrowVariable(L"PUBLIC");
    if (!folder.empty()) {
        folder += "\\Documents";
    } else {
        std::string drive = narrowVariable(L"SystemDrive");
        folder = (drive.empty() ? std::string("C:") : drive) + "\\Users\\Public\\Documents";
    }
    return folder + "\\QuorvaneDLL.log";
}

}  // namespace platform
