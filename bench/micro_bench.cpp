// In-process benchmarks (Google Benchmark): the encoders alone against memcpy, a plain table
// Base64 and POCO's encoders, and the stream's own costs, whose growth must stay linear.
//
// Inputs come from $LARKPOST_BENCH_DATA/enc_bytes.bin (random bytes, for Base64) and
// enc_text.txt (prose with CR LF line ends, for quoted-printable), the same files the Python peer
// encodes. Without that variable the inputs are generated here.
#include <benchmark/benchmark.h>

#include <Poco/Base64Encoder.h>
#include <Poco/Net/QuotedPrintableEncoder.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "bench_support.h"
#include "encoding/base64.h"
#include "encoding/quoted_printable.h"
#include "larkpost/tcp_stream.h"
#include "reference_base64.h"

namespace {

constexpr std::size_t kGeneratedSize = 4 << 20;

std::string DataFile(const char* name) {
    const char* directory = std::getenv("LARKPOST_BENCH_DATA");
    return directory ? bench::ReadFileBytes(std::string(directory) + "/" + name) : std::string();
}

const std::string& RandomBytes() {
    static const std::string bytes = [] {
        std::string data = DataFile("enc_bytes.bin");
        if (data.empty()) {
            data.resize(kGeneratedSize);
            uint64_t state = 0x9E3779B97F4A7C15ull;
            for (char& c : data) {
                state ^= state << 13;
                state ^= state >> 7;
                state ^= state << 17;
                c = static_cast<char>(state >> 24);
            }
        }
        return data;
    }();
    return bytes;
}

const std::string& Prose() {
    static const std::string text = [] {
        std::string data = DataFile("enc_text.txt");
        const std::string line = "The quick brown fox jumps over the lazy dog; pack my box with five dozen jugs.\r\n";
        while (data.size() < kGeneratedSize) data += line;
        return data;
    }();
    return text;
}

std::u16string Widen(const std::string& bytes) {
    std::u16string text(bytes.size(), u'\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) text[i] = static_cast<unsigned char>(bytes[i]);
    return text;
}

void BM_Memcpy(benchmark::State& state) {
    const std::string& input = RandomBytes();
    std::string output(input.size(), '\0');
    for (auto _ : state) {
        std::memcpy(output.data(), input.data(), input.size());
        benchmark::DoNotOptimize(output.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input.size()));
}
BENCHMARK(BM_Memcpy);

void BM_ReferenceBase64(benchmark::State& state) {
    const std::string& input = RandomBytes();
    std::string output(bench::ReferenceBase64Length(input.size()), '\0');
    for (auto _ : state) {
        bench::ReferenceBase64(input, output.data());
        benchmark::DoNotOptimize(output.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input.size()));
}
BENCHMARK(BM_ReferenceBase64);

// The attachment path: file bytes straight into the message text.
void BM_LarkpostBase64Bytes(benchmark::State& state) {
    const std::string& input = RandomBytes();
    std::u16string output;
    output.reserve(larkpost::detail::Base64EncodedLength(input.size()));
    for (auto _ : state) {
        output.clear();
        larkpost::detail::Base64EncodeBytesTo(input, output);
        benchmark::DoNotOptimize(output.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input.size()));
}
BENCHMARK(BM_LarkpostBase64Bytes);

// The text path (login tokens): each character through the code page, a new string per call.
void BM_LarkpostBase64Text(benchmark::State& state) {
    const std::u16string input = Widen(Prose());
    for (auto _ : state) {
        std::u16string output = larkpost::detail::Base64Encode(input);
        benchmark::DoNotOptimize(output.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input.size()));
}
BENCHMARK(BM_LarkpostBase64Text);

void BM_LarkpostQuotedPrintable(benchmark::State& state) {
    const std::u16string input = Widen(Prose());
    std::string output;
    for (auto _ : state) {
        output.clear();
        larkpost::detail::QuotedPrintableEncodeTo(input, output);
        benchmark::DoNotOptimize(output.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input.size()));
}
BENCHMARK(BM_LarkpostQuotedPrintable);

void BM_PocoBase64(benchmark::State& state) {
    const std::string& input = RandomBytes();
    for (auto _ : state) {
        std::ostringstream output;
        Poco::Base64Encoder encoder(output);
        encoder.rdbuf()->setLineLength(76);
        encoder.write(input.data(), static_cast<std::streamsize>(input.size()));
        encoder.close();
        benchmark::DoNotOptimize(output.tellp());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input.size()));
}
BENCHMARK(BM_PocoBase64);

void BM_PocoQuotedPrintable(benchmark::State& state) {
    const std::string& input = Prose();
    for (auto _ : state) {
        std::ostringstream output;
        Poco::Net::QuotedPrintableEncoder encoder(output);
        encoder.write(input.data(), static_cast<std::streamsize>(input.size()));
        encoder.close();
        benchmark::DoNotOptimize(output.tellp());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input.size()));
}
BENCHMARK(BM_PocoQuotedPrintable);

// A loopback peer for the stream: for each request line "<n>" it replies with one line of n
// characters. It serves one connection and ends when the client closes or after 60 s of silence.
class LineServer {
public:
    LineServer() {
        m_listen = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (m_listen < 0 || bind(m_listen, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            listen(m_listen, 1) != 0 || getsockname(m_listen, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            throw std::runtime_error("line server: cannot listen");
        }
        m_port = ntohs(address.sin_port);
        m_thread = std::thread([this] { Serve(); });
    }
    ~LineServer() {
        m_thread.join();
        close(m_listen);
    }
    LineServer(const LineServer&) = delete;
    LineServer& operator=(const LineServer&) = delete;

    int Port() const { return m_port; }

private:
    static bool WaitReadable(int fd) {
        pollfd entry{fd, POLLIN, 0};
        return poll(&entry, 1, 60000) == 1;
    }

    void Serve() {
        if (!WaitReadable(m_listen)) return;
        const int fd = accept(m_listen, nullptr, nullptr);
        if (fd < 0) return;
        std::string pending;
        std::string reply;
        char chunk[4096];
        for (;;) {
            const auto lineEnd = pending.find("\r\n");
            if (lineEnd != std::string::npos) {
                const std::size_t size = std::strtoul(pending.c_str(), nullptr, 10);
                pending.erase(0, lineEnd + 2);
                reply.assign(size, 'x');
                reply += "\r\n";
                bench::WriteAll(fd, reply.data(), reply.size());
                continue;
            }
            if (!WaitReadable(fd)) break;
            const ssize_t got = read(fd, chunk, sizeof chunk);
            if (got <= 0) break;
            pending.append(chunk, static_cast<std::size_t>(got));
        }
        close(fd);
    }

    int m_listen = -1;
    int m_port = 0;
    std::thread m_thread;
};

// One reply line of n characters: the request's flush, the transfer and ReadLine's scan.
void BM_StreamReadLine(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    LineServer server;
    larkpost::TcpStream stream;
    stream.Connect("127.0.0.1", server.Port());
    stream.ResponseTimeout = 30;
    const std::string request = std::to_string(size);
    for (auto _ : state) {
        stream.SendLine(request);
        const std::u16string line = stream.ReadLine();
        if (line.size() != size) state.SkipWithError("short line");
    }
    stream.Disconnect();
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
    state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_StreamReadLine)->RangeMultiplier(2)->Range(128 << 10, 1 << 20)->Complexity(benchmark::oN)
    ->Unit(benchmark::kMillisecond);

// A text of n characters handed to Send in pieces of 512, as MailClient hands it a message.
// Nothing is connected, so the text only accumulates in the send buffer.
void BM_StreamSendPieces(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const std::u16string piece(512, u'x');
    for (auto _ : state) {
        state.PauseTiming();
        std::optional<larkpost::TcpStream> stream;
        stream.emplace();
        state.ResumeTiming();
        for (std::size_t sent = 0; sent < size; sent += piece.size()) {
            stream->Send(std::u16string_view(piece).substr(0, std::min(piece.size(), size - sent)));
        }
        state.PauseTiming();
        stream.reset();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
    state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_StreamSendPieces)->Arg(2560 << 10)->Arg(5 << 20)->Arg(10 << 20)->Arg(20 << 20)->Complexity(benchmark::oN)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
