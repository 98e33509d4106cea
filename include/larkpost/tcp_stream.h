// TcpStream: blocking, buffered text input and output over one TCP connection.
//
// Writes only fill a send buffer; the text leaves in one write when Flush runs, and every read
// flushes first, so a command leaves the host when its reply is read. A read waits at most
// ResponseTimeout + 1 seconds of silence. Text is 16-bit; each character is one byte on the wire
// (Windows-1252, "?" for a character the page lacks).
#ifndef LARKPOST_TCP_STREAM_H
#define LARKPOST_TCP_STREAM_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "larkpost/export.h"

namespace larkpost {

namespace detail {
class TcpStreamImpl;
struct ImplAccess;
}  // namespace detail

class LARKPOST_API TcpStream {
public:
    TcpStream();
    ~TcpStream();
    TcpStream(const TcpStream&) = delete;
    TcpStream& operator=(const TcpStream&) = delete;

    // Ticks (seconds) of silence a read allows: 3 on a new stream, 60 after each Connect. A read
    // fails at tick ResponseTimeout + 1; a negative value counts as 0.
    int32_t ResponseTimeout = 3;

    // Opens a connection, dropping any earlier one. Port is only read.
    void Connect(const std::u16string& HostnameOrIP, const int32_t& Port);
    void Connect(std::string_view HostnameOrIP, const int32_t& Port);
    // Closes the connection. Writes nothing out.
    void Disconnect();
    // Appends to the send buffer; nothing leaves the host.
    void Send(std::u16string_view Data);
    void Send(std::string_view Data);
    // Appends Data and CR LF to the send buffer.
    void SendLine(std::u16string_view Data);
    void SendLine(std::string_view Data);
    // Writes the whole send buffer in one write and waits until it has gone.
    void Flush();
    // True when an answer arrived since the last Flush that sent something, and all of it was read.
    bool AtEndOfStream();
    std::u16string Read(int32_t NumChars);
    std::u16string Peek(int32_t NumChars);
    // The next line, without its CR LF.
    std::u16string ReadLine();
    // The lines that have arrived so far, run together without line ends.
    std::u16string ReadToEnd();
    bool Connected();
    std::u16string LocalHostName();

    // Extension: turns the open connection into a TLS connection, as the client, verifying the
    // server's certificate chain (against CaFile, or the system's trust store when it is empty)
    // and that it was issued for the host given to Connect, unless VerifyCertificate is false.
    // The handshake counts against ResponseTimeout. Anything the server sent that has not been
    // read fails it. On any failure the connection is closed.
    void StartTls(bool VerifyCertificate = true, const std::u16string& CaFile = u"");

private:
    friend struct detail::ImplAccess;
    std::unique_ptr<detail::TcpStreamImpl> m_impl;
};

}  // namespace larkpost

#endif
