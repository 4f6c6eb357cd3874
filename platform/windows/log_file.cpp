#include "platform/log_file.h"
#include "platform/log_path_override.h"

#include <windows.h>
#include <aclapi.h>

#include <memory>
#include <vector>

namespace platform {
namespace {

// The user this process runs as and the owner it gives the objects it
// makes (an elevated administrator's files belong to Administrators).
struct CallerSids {
    std::vector<BYTE> user;
    std::vector<BYTE> owner;
};

std::vector<BYTE> tokenSid(HANDLE token, TOKEN_INFORMATION_CLASS kind)
{
    DWORD needed = 0;
    GetTokenInformation(token, kind, nullptr, 0, &needed);
    if (needed == 0) return {};
    std::vector<BYTE> buffer(needed);
    if (!GetTokenInformation(token, kind, buffer.data(), needed, &needed)) return {};
    PSID sid = kind == TokenUser ? reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid
                                 : reinterpret_cast<TOKEN_OWNER*>(buffer.data())->Owner;
    if (sid == nullptr || !IsValidSid(sid)) return {};
    const BYTE* first = static_cast<const BYTE*>(sid);
    return std::vector<BYTE>(first, first + GetLengthSid(sid));
}

CallerSids callerSids()
{
    CallerSids sids;
    HANDLE token = nullptr;
    if (!OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &token) &&
        !OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token))
        return sids;
    sids.user = tokenSid(token, TokenUser);
    sids.owner = tokenSid(token, TokenOwner);
    CloseHandle(token);
    return sids;
}

// A DACL with one entry: full access for the caller, nothing for anyone
// else; marked protected, so the folder's inherited entries stay out.
struct OwnerOnlyDacl {
    std::vector<BYTE> acl;
    bool make(const std::vector<BYTE>& sid)
    {
        if (sid.empty()) return false;
        PSID user = const_cast<BYTE*>(sid.data());
        const DWORD size = sizeof(ACL) + sizeof(ACCESS_ALLOWED_ACE) + GetLengthSid(user);
        acl.assign(size, 0);
        ACL* list = reinterpret_cast<ACL*>(acl.data());
        return InitializeAcl(list, size, ACL_REVISION) && AddAccessAllowedAce(list, ACL_REVISION, FILE_ALL_ACCESS, user);
    }
    ACL* get() { return reinterpret_cast<ACL*>(acl.data()); }
};

}  // namespace

// FILE_FLAG_OPEN_REPARSE_POINT opens a symbolic link or junction itself
// instead of what it points to, and the check then refuses it. A new file
// gets the owner-only DACL at creation; an existing file of ours gets it
// set again, since an earlier version left the folder's DACL on it.
//
// Writes go to the end of the file in one call (the offset 0xFFFFFFFF:
// 0xFFFFFFFF means "at the end"). The share mode denies nothing, so an
// editor or another process can read the log while the library writes it,
// and the log can be moved aside at a rotation while another process still
// has it open.
//
// "In use by another live process" is an exclusive byte-range lock
// (LockFileEx) on one byte far past any end the log reaches, held while
// the file is open: it blocks no read or write, and the system drops it
// when the holder closes the file or ends in any way.
LogOpenResult LogFile::open(const std::string& path, bool empty)
{
    close();
    const CallerSids sids = callerSids();
    OwnerOnlyDacl dacl;
    SECURITY_DESCRIPTOR descriptor;
    SECURITY_ATTRIBUTES attributes{sizeof attributes, &descriptor, FALSE};
    const bool haveDacl = dacl.make(sids.user) &&
                          InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION) &&
                          SetSecurityDescriptorDacl(&descriptor, TRUE, dacl.get(), FALSE) &&
                          SetSecurityDescriptorControl(&descriptor, SE_DACL_PROTECTED, SE_DACL_PROTECTED);
    // Without the caller's identity the file could not be made private:
    // no log rather than a readable one.
    if (!haveDacl) return {LogOpenOutcome::failed, ""};

    HANDLE file = CreateFileA(path.c_str(),
                              FILE_READ_DATA | FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_READ_ATTRIBUTES |
                                  READ_CONTROL | WRITE_DAC | SYNCHRONIZE,
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, &attributes, OPEN_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        const DWORD error = GetLastError();
        if (error == ERROR_ACCESS_DENIED) return {LogOpenOutcome::refused, "it cannot be written by this user"};
        return {LogOpenOutcome::failed, ""};
    }
    auto refuse = [&](LogOpenOutcome outcome, const char* reason) {
        CloseHandle(file);
        return LogOpenResult{outcome, reason ? reason : ""};
    };

    BY_HANDLE_FILE_INFORMATION info{};
    if (!GetFileInformationByHandle(file, &info)) return refuse(LogOpenOutcome::failed, nullptr);
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR ownerDescriptor = nullptr;
    const bool ownerKnown = GetSecurityInfo(file, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr,
                                            nullptr, nullptr, &ownerDescriptor) == ERROR_SUCCESS &&
                            owner != nullptr;
    LogFileFacts facts;
    facts.regular = GetFileType(file) == FILE_TYPE_DISK &&
                    (info.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) == 0;
    facts.ownedByCaller =
        ownerKnown && ((!sids.user.empty() && EqualSid(owner, const_cast<BYTE*>(sids.user.data()))) ||
                       (!sids.owner.empty() && EqualSid(owner, const_cast<BYTE*>(sids.owner.data()))));
    facts.links = info.nNumberOfLinks;
    if (ownerDescriptor) LocalFree(ownerDescriptor);
    if (const char* doubt = logFileDoubt(facts)) return refuse(LogOpenOutcome::refused, doubt);

    OVERLAPPED pastTheEnd{};
    pastTheEnd.Offset = 0xFFFFFFF0u;
    pastTheEnd.OffsetHigh = 0x3FFFFFFFu;
    if (!LockFileEx(file, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &pastTheEnd))
        return refuse(LogOpenOutcome::inUse, "another running process writes it");

    if (SetSecurityInfo(file, SE_FILE_OBJECT, DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
                        nullptr, nullptr, dacl.get(), nullptr) != ERROR_SUCCESS)
        return refuse(LogOpenOutcome::failed, nullptr);

    LARGE_INTEGER size{};
    sizeAtOpen_ = GetFileSizeEx(file, &size) ? static_cast<uint64_t>(size.QuadPart) : 0;
    if (empty && sizeAtOpen_ != 0) {
        FILE_END_OF_FILE_INFO end{};
        if (!SetFileInformationByHandle(file, FileEndOfFileInfo, &end, sizeof end))
            return refuse(LogOpenOutcome::failed, nullptr);
        sizeAtOpen_ = 0;
    }
    handle_ = reinterpret_cast<intptr_t>(file);
    return {LogOpenOutcome::opened, ""};
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
    OVERLAPPED atEnd{};
    atEnd.Offset = 0xFFFFFFFFu;
    atEnd.OffsetHigh = 0xFFFFFFFFu;
    DWORD written = 0;
    BOOL ok = WriteFile(reinterpret_cast<HANDLE>(handle_), data, static_cast<DWORD>(size), &written, &atEnd);
    return ok && written == size;
}

// MoveFileEx replaces a link at `to` itself, never what it points to.
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
