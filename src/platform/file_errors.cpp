#include "platform/file_errors.h"

#include <sys/stat.h>

#include <cerrno>

#include "platform/errors.h"

namespace larkpost::detail {
namespace {

// True when the directory part of path names an existing directory ("." for a bare name).
bool DirectoryOfPathExists(std::string_view nativePath) {
    auto slash = nativePath.rfind('/');
    std::string directory;
    if (slash == std::string_view::npos)
        directory = ".";
    else if (slash == 0)
        directory = "/";
    else
        directory = std::string(nativePath.substr(0, slash));
    struct stat info;
    return ::stat(directory.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

int32_t FileErrorNumber(int err, FileUse use, std::string_view nativePath) {
    switch (err) {
        case ENOENT:
            if (use == FileUse::Read && DirectoryOfPathExists(nativePath))
                return ERROR_FILE_NOT_FOUND_RUNTIME;
            return ERROR_PATH_NOT_FOUND;
        case ENOTDIR: return ERROR_PATH_NOT_FOUND;
        case EACCES:
        case EPERM: return ERROR_PERMISSION_DENIED;
        case ENOSPC:
        case EDQUOT: return ERROR_DISK_FULL;
        case EMFILE:
        case ENFILE: return ERROR_TOO_MANY_FILES;
        case EIO: return ERROR_DEVICE_IO;
        case ENOMEM: return ERROR_OUT_OF_MEMORY;
        case ENAMETOOLONG: return ERROR_BAD_FILE_NAME;
        default: return ERROR_PATH_FILE_ACCESS;  // EISDIR, EROFS, ELOOP, ETXTBSY, ...
    }
}

std::u16string FileErrorDescription(int32_t number) {
    switch (number) {
        case ERROR_OUT_OF_MEMORY: return u"Out of memory";
        case ERROR_BAD_FILE_NAME: return u"Bad file name or number";
        case ERROR_FILE_NOT_FOUND_RUNTIME: return u"File not found";
        case ERROR_DEVICE_IO: return u"Device I/O error";
        case ERROR_DISK_FULL: return u"Disk full";
        case ERROR_TOO_MANY_FILES: return u"Too many files";
        case ERROR_PERMISSION_DENIED: return u"Permission denied";
        case ERROR_PATH_NOT_FOUND: return u"Path not found";
        default: return u"Path/File access error";
    }
}

void RaiseFileError(int err, FileUse use, std::string_view nativePath, std::u16string source) {
    RaiseFileError(FileErrorNumber(err, use, nativePath), std::move(source));
}

void RaiseFileError(int32_t number, std::u16string source) {
    Raise(number, FileErrorDescription(number), std::move(source));
}

}  // namespace larkpost::detail
