#include "platform/log_file.h"
#include "platform/log_path_override.h"

#include <windows.h>

namespace platform {

// FILE_APPEND_DATA alone puts every write at the end of the file as one
// step. The share mode denies nothing, so an editor or another process can
// read the log while the library writes it, and the log can be moved aside
// at a rotation while another process still has it open.
bool LogFile::open(const std::string& path, bool empty)
{
    close();
    HANDLE file = CreateFileA(path.c_str(), FILE_APPEND_DATA | SYNCHRONIZE,
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                              empty ? CREATE_ALWAYS : OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    LARGE_INTEGER size{};
    sizeAtOpen_ = GetFileSizeEx(file, &size) ? static_cast<uint64_t>(size.QuadPart) : 0;
    handle_ = reinterpret_cast<intptr_t>(file);
    return true;
}

void LogFile::close()
{
    if (handle_ == kClosed) return;
    CloseHandle(reinterpret_cast<HANDLE>(handle_));
    handle_ = kClosed;
}

bool LogFile::append(const char* data, size_t size)
{
    if (handle_ == kClosed) return false;
    DWORD written = 0;
    BOOL ok = WriteFile(reinterpret_cast<HANDLE>(handle_), data, static_cast<DWORD>(size), &written, nullptr);
    return ok && written == size;
}

bool replaceFile(const std::string& from, const std::string& to)
{
    pauseBeforeLogMove();
    return MoveFileExA(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING) != 0;
}

// The log is a text file: each "\n" reaches the disk as CR LF, as the
// run-time library's text mode would write it. A "\r\n" in the text so
// becomes CR CR LF.
std::string textForLogFile(const char* text)
{
    std::string converted;
    if (text == nullptr) return converted;
    for (const char* c = text; *c; ++c) {
        if (*c == '\n') converted += '\r';
        converted += *c;
    }
    return converted;
}

}  // namespace platform
