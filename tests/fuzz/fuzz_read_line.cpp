// TcpStream.ReadLine over any bytes in any chunks, one arrival a pump: the lines are exactly the
// pieces between CR LF; a part-line left when the peer closes ends in the time-out error after
// every whole line; a new connection of the same stream reads only its own peer's line.
// Input: a byte N, N chunk sizes (0: a small one), then the bytes the peer sends.
#include <functional>
#include <vector>

#include "fuzz_support.h"
#include "larkpost/error.h"
#include "larkpost/tcp_stream.h"
#include "platform/codepage.h"
#include "support/fake_socket_control.h"

using namespace larkpost;
using test::FakeEvent;

extern "C" int LLVMFuzzerInitialize(int*, char***) { return fuzz::UseFastTime(); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::size_t sizes = size ? std::min<std::size_t>(data[0], size - 1) : 0;
    const std::string bytes(reinterpret_cast<const char*>(data) + sizes + 1,
                            size ? size - sizes - 1 : 0);
    std::vector<std::u16string> lines;
    for (std::size_t start = 0, end; (end = bytes.find("\r\n", start)) != bytes.npos;
         start = end + 2)
        lines.push_back(detail::FromAnsi(bytes.substr(start, end - start)));

    test::FakeSocketFactory sockets;
    TcpStream stream;
    stream.Connect("peer.example", 25);
    auto control = sockets.Last();
    std::size_t at = 0, chunk = 0;
    std::function<void()> arrive = [&] {  // a chunk a pump, then the close
        const std::size_t n = chunk < sizes && data[1 + chunk] ? data[1 + chunk] : 1 + size % 7;
        ++chunk;
        control->Post(at >= bytes.size() ? test::FakeScript{FakeEvent::Closed()}
                                         : test::FakeScript{FakeEvent::Arrival(bytes.substr(at, n)),
                                                            FakeEvent::Run(arrive)});
        at += n;
    };
    arrive();
    std::size_t read = 0;
    try {
        for (; read <= lines.size(); ++read) {  // one read past the lines, which must fail
            // Five seconds of scaled ticks where data must come: a stalled pump is no silence.
            stream.ResponseTimeout = read < lines.size() ? 50000 : 0;
            const std::u16string line = stream.ReadLine();
            assert(read < lines.size() && line == lines[read]);
        }
    } catch (const RaisedError& error) {
        assert(error.Number() == ERROR_RESPONSE_TIMEOUT);
    }
    assert(read == lines.size());

    sockets.NextConnect({FakeEvent::Connected(), FakeEvent::Arrival("fresh\r\n")});
    stream.Connect("peer.example", 25);
    stream.ResponseTimeout = 50000;
    assert(stream.ReadLine() == u"fresh");
    return 0;
}
