// TcpStream.ReadLine over arbitrary bytes in arbitrary chunks: the lines come back exactly as
// sent, split only at CR LF, whatever the chunking; a line left without its CR LF when the peer
// closes ends in the time-out error, and the stream stays usable for a new connection.
//
// Input: one byte N, then N chunk sizes of one byte each, then the bytes the peer sends.
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "larkpost/error.h"
#include "larkpost/tcp_stream.h"
#include "platform/codepage.h"

using namespace larkpost;

// Five seconds of scaled ticks (half the per-input limit): long enough that only real silence
// ends a wait, even on a machine so busy that a pump stalls for a second.
constexpr int32_t kGenerousTicks = 50000;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::UseFastTime();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::size_t chunkCount = std::min<std::size_t>(data[0], size - 1);
    fuzz::ScriptedControl::Script script;
    for (std::size_t i = 0; i < chunkCount; ++i) script.chunkSizes.push_back(data[1 + i]);
    script.chunkSize = 1 + size % 7;  // after the chosen sizes, small ones
    const std::string bytes(reinterpret_cast<const char*>(data) + 1 + chunkCount, size - 1 - chunkCount);
    script.segments = {bytes};

    std::u16string rest;
    const std::vector<std::u16string> expected = fuzz::SplitCrlf(detail::FromAnsi(bytes), rest);

    fuzz::ScriptedNetwork network;
    network.Next(script);
    TcpStream stream;
    stream.Connect("peer.example", 25);

    std::size_t read = 0;
    // Bounded: one read per expected line and one more that must fail.
    for (std::size_t attempt = 0; attempt <= expected.size(); ++attempt) {
        // Ticks are wall-clock time: a busy machine can let one fall due in the same pump as
        // an arrival that came in time. While lines remain the limit is generous (a second);
        // only the read that must find silence gets the shortest one.
        stream.ResponseTimeout = read < expected.size() ? kGenerousTicks : 0;
        try {
            const std::u16string line = stream.ReadLine();
            FUZZ_CHECK(read < expected.size());
            FUZZ_CHECK(line == expected[read]);
            ++read;
        } catch (const RaisedError& error) {
            // Only after every complete line, and only because the peer went quiet.
            FUZZ_CHECK(read == expected.size());
            FUZZ_CHECK(error.Number() == ERROR_RESPONSE_TIMEOUT);
            break;
        }
    }
    FUZZ_CHECK(read == expected.size());

    // The same stream on a new connection: the first line is the new peer's, and nothing that
    // the old connection left unread comes first.
    fuzz::ScriptedControl::Script next;
    next.segments = {"fresh\r\n"};
    next.silentAtEnd = true;
    network.Next(next);
    stream.Connect("peer.example", 25);
    stream.ResponseTimeout = kGenerousTicks;
    FUZZ_CHECK(stream.ReadLine() == u"fresh");
    return 0;
}
