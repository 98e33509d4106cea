// The file access of the message: paths as the system sees them, descriptors that always close,
// reads and complete writes. Failures raise the runtime's numbered file errors.
#ifndef LARKPOST_MESSAGE_FILE_IO_H
#define LARKPOST_MESSAGE_FILE_IO_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace larkpost::detail {

// The path handed to the system: UTF-8. Nothing for a path that cannot name a file: empty, with
// a NUL character, or with a lone surrogate.
std::optional<std::string> NativePath(std::u16string_view path);

// An open descriptor, closed when the handle goes, on every path out of a call.
class FileHandle {
public:
    FileHandle() = default;
    explicit FileHandle(int fd) : m_fd(fd) {}
    ~FileHandle();
    FileHandle(FileHandle&& other) noexcept : m_fd(other.m_fd) { other.m_fd = -1; }
    FileHandle& operator=(FileHandle&& other) noexcept;
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;

    int Get() const { return m_fd; }
    // Closes now and gives the errno of a failed close, or 0.
    int Close();

private:
    int m_fd = -1;
};

// A regular file opened for reading, with its size at the moment of opening.
struct OpenedFile {
    FileHandle handle;
    std::uint64_t size = 0;
};

// Opens a regular file, or a link to one, for reading. Anything else (a directory, a FIFO, a
// device) fails with "Path/File access error"; the open never blocks on a FIFO.
OpenedFile OpenFileForReading(const std::string& nativePath);
// Reads up to count bytes at the current position into buffer; fewer only at the end of the file.
std::size_t ReadInto(const OpenedFile& file, char* buffer, std::size_t count,
                     const std::string& nativePath);

// Opens for reading and writing, creating an empty file when there is none; an existing file
// keeps its content.
FileHandle OpenFileForWriting(const std::string& nativePath);
// Writes all of bytes at the current position.
void WriteAll(const FileHandle& file, std::string_view bytes, const std::string& nativePath);
// Cuts a regular file to length bytes; a file of another kind (a device, a pipe) is left alone.
void TruncateRegularFile(const FileHandle& file, std::uint64_t length,
                         const std::string& nativePath);
// Closes the file, raising what a failed close reports (a delayed write error, for instance).
void CloseFile(FileHandle& file, const std::string& nativePath);

}  // namespace larkpost::detail

#endif
