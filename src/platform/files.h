// Files as the message uses them: paths as the system sees them, files that always close, reads,
// complete writes, and the directory search behind attaching. Failures raise the runtime's
// numbered file errors (platform/file_errors.h) with the source given when the file was opened.
#ifndef LARKPOST_PLATFORM_FILES_H
#define LARKPOST_PLATFORM_FILES_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace larkpost::detail {

// The path handed to the system: UTF-8. Nothing for a path that cannot name a file: empty, with a
// control character (U+0000 to U+001F, U+007F), or with a lone surrogate.
std::optional<std::string> NativePath(std::u16string_view path);

// True when nativePath names a regular file or a symbolic link to one.
bool IsPlainFile(const std::string& nativePath);

// Calls visit with the name of each entry of a directory until it returns true; true then.
// False when the directory cannot be read or no entry was taken. Names with a control character
// are passed over, as NativePath refuses them.
bool AnyDirectoryEntry(const std::string& directory,
                       const std::function<bool(std::string_view name)>& visit);

// One open file, closed when the object goes, on every path out of a call.
class PlatformFile {
public:
    // A regular file, or a link to one, for reading; anything else (a directory, a FIFO, a
    // device) fails with "Path/File access error". The open never blocks on a FIFO.
    static PlatformFile OpenForReading(std::string nativePath, std::u16string source);
    // Write-only, created empty when missing; an existing file keeps its content until written.
    // A FIFO that nobody reads fails at once instead of blocking.
    static PlatformFile OpenForWriting(std::string nativePath, std::u16string source);

    PlatformFile(PlatformFile&& other) noexcept;
    PlatformFile& operator=(PlatformFile&&) = delete;
    PlatformFile(const PlatformFile&) = delete;
    PlatformFile& operator=(const PlatformFile&) = delete;
    ~PlatformFile();

    // Size when opened for reading.
    std::uint64_t Size() const { return m_size; }
    // Reads up to count bytes at the current position; fewer only at the end of the file.
    std::size_t Read(char* buffer, std::size_t count);
    // Writes all of bytes at the current position.
    void WriteAll(std::string_view bytes);
    // Cuts a regular file to length bytes; a file of another kind is left alone.
    void TruncateIfRegular(std::uint64_t length);
    // For a regular file opened for writing: a new, empty file beside it (beside the file a link
    // leads to) with its permissions, which ReplaceWith puts in its place. Nothing for a FIFO or a
    // device, or where the directory takes no new file: such a file is written in place.
    std::optional<PlatformFile> CreateReplacement();
    // Closes the replacement and renames it over this file's path; the replaced content is then
    // gone whole. Until then, and if this fails, the replacement is removed when it goes.
    void ReplaceWith(PlatformFile replacement);
    // Closes now, raising what a failed close reports (a delayed write error, for instance).
    void Close();

private:
    PlatformFile(int fd, std::string nativePath, std::u16string source);
    [[noreturn]] void RaiseErrno(int err, bool creating) const;

    int m_fd;
    std::uint64_t m_size = 0;
    std::string m_path;
    std::u16string m_source;
    std::string m_replaces;  // a replacement: the path it is to take; removed while it is set
};

// Test seam, per thread: the steps of file access can be made to fail. When the function
// returns an errno value for a step, the step fails with it and the system is not asked; 0 lets
// the step run. An empty function restores the real behaviour.
enum class FileStep { Open, Read, Write, Truncate, Close, Search, Replace };
void SetFileFaultForTesting(std::function<int(FileStep)> fault);

}  // namespace larkpost::detail

#endif
