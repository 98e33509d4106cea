// What the fuzz targets share: a socket control that plays fuzz-chosen server bytes without any
// network, reference decoders for the encoders' round trips, and a check that stops the run.
#ifndef LARKPOST_FUZZ_SUPPORT_H
#define LARKPOST_FUZZ_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/socket_control.h"

// A failed check is a finding: print it and abort, so libFuzzer saves the input.
#define FUZZ_CHECK(condition)                                                              \
    do {                                                                                   \
        if (!(condition)) ::larkpost::fuzz::CheckFailed(#condition, __FILE__, __LINE__);  \
    } while (0)

namespace larkpost::fuzz {

[[noreturn]] void CheckFailed(const char* condition, const char* file, int line);

// A socket control whose peer is a script. Events go through the thread's event queue, so they
// reach the stream only inside its pumps, as with the real control.
//
// The peer's bytes come in segments: the first arrives after the connection stands, and each
// SendData of the client releases the next one (after its SendComplete). Each segment arrives in
// the chunks given, one DataArrival per pump: the next chunk is announced when the previous one
// has been fetched. When the script is exhausted the peer closes the connection (or, with
// silentAtEnd, stays silent).
class ScriptedControl : public detail::SocketControl,
                        public std::enable_shared_from_this<ScriptedControl> {
public:
    struct Script {
        std::vector<std::string> segments;
        std::size_t chunkSize = 0;          // 0: a segment arrives whole
        std::vector<std::size_t> chunkSizes; // used in turn before chunkSize, when given
        bool refuseConnect = false;         // the Connect outcome is Error 10061
        bool silentAtEnd = false;
    };

    explicit ScriptedControl(Script script) : m_script(std::move(script)) {}

    void SetEvents(detail::SocketControlEvents* sink) override { m_sink = sink; }
    void Protocol(int32_t) override {}
    void LocalPort(int32_t) override {}
    void Connect(const std::u16string& RemoteHost, int32_t RemotePort) override;
    int16_t State() override { return m_state; }
    void Close() override;
    void SendData(std::string_view bytes) override;
    void GetData(std::u16string& Data, int32_t Type, int32_t MaxLen) override;
    std::u16string LocalHostName() override { return u"fuzz.example"; }
    std::u16string LocalIP() override { return m_state == detail::sckConnected ? u"127.0.0.1" : u""; }

    // Every byte the client wrote, and each write on its own.
    const std::string& Written() const { return m_written; }
    const std::vector<std::string>& Writes() const { return m_writes; }

private:
    void Post(void (ScriptedControl::*step)());
    void ReleaseNextSegment();
    void AnnounceNextChunk();
    void DeliverConnect();
    void DeliverRefusal();
    void DeliverSendComplete();
    void DeliverArrival();
    void DeliverPeerClose();
    std::size_t NextChunkSize();

    Script m_script;
    detail::SocketControlEvents* m_sink = nullptr;
    int16_t m_state = detail::sckClosed;
    uint64_t m_generation = 0;  // bumped by Close: events queued before it are dropped
    std::size_t m_nextSegment = 0;
    std::size_t m_chunkIndex = 0;
    std::string m_pending;       // bytes of the current segment not yet announced
    std::string m_announced;     // bytes announced by DataArrival and not yet fetched
    bool m_arrivalQueued = false;
    std::string m_written;
    std::vector<std::string> m_writes;
};

// Makes every socket control of this thread a ScriptedControl with the given script, and keeps
// the last one made for inspection. Restores the real factory when destroyed.
class ScriptedNetwork {
public:
    ScriptedNetwork();
    ~ScriptedNetwork();
    void Next(ScriptedControl::Script script) { m_next = std::move(script); }
    std::shared_ptr<ScriptedControl> Last() const { return m_last; }

private:
    ScriptedControl::Script m_next;
    std::shared_ptr<ScriptedControl> m_last;
};

// Fast, silent time for the client: every tick lasts a few microseconds and Sleep returns at
// once. Per thread.
void UseFastTime();

// RFC 2045 decoders, strict: nullopt on anything that is not exactly their form.
std::optional<std::string> DecodeQuotedPrintable(std::u16string_view text);
std::optional<std::string> DecodeBase64(std::u16string_view text);

// The input read as 16-bit code units (little-endian pairs; an odd last byte is dropped).
std::u16string CodeUnits(const uint8_t* data, std::size_t size);

// The lines of text between CR LF pairs; the characters behind the last CR LF go to rest.
std::vector<std::u16string> SplitCrlf(std::u16string_view text, std::u16string& rest);

}  // namespace larkpost::fuzz

#endif
