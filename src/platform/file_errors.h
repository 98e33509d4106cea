// File failures of the operating system as the runtime's classic numbered errors.
#ifndef LARKPOST_PLATFORM_FILE_ERRORS_H
#define LARKPOST_PLATFORM_FILE_ERRORS_H

#include <cstdint>
#include <string>
#include <string_view>

namespace larkpost::detail {

// The classic runtime numbers of file failures.
inline constexpr int32_t ERROR_OUT_OF_MEMORY = 7;
inline constexpr int32_t ERROR_BAD_FILE_NAME = 52;
inline constexpr int32_t ERROR_FILE_NOT_FOUND_RUNTIME = 53;
inline constexpr int32_t ERROR_DEVICE_IO = 57;
inline constexpr int32_t ERROR_DISK_FULL = 61;
inline constexpr int32_t ERROR_TOO_MANY_FILES = 67;
inline constexpr int32_t ERROR_PERMISSION_DENIED = 70;
inline constexpr int32_t ERROR_PATH_FILE_ACCESS = 75;
inline constexpr int32_t ERROR_PATH_NOT_FOUND = 76;

// How a path was being used when it failed: a missing entry means "file not found" when a file
// was to be read, but "path not found" when it was to be created (its directory is missing).
enum class FileUse { Read, Create };

// The runtime number for an errno value. ENOENT on a read tells a missing file (53) from a
// missing directory (76) by looking at the path's directory.
int32_t FileErrorNumber(int err, FileUse use, std::string_view nativePath);
// The classic English description of one of the numbers above.
std::u16string FileErrorDescription(int32_t number);

// Raises the runtime error for errno err, with the given source.
[[noreturn]] void RaiseFileError(int err, FileUse use, std::string_view nativePath,
                                 std::u16string source);
// Raises one of the numbers above with its classic description.
[[noreturn]] void RaiseFileError(int32_t number, std::u16string source);

}  // namespace larkpost::detail

#endif
