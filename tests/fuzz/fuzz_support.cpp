#include "fuzz_support.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "larkpost/error.h"

#include "platform/clock.h"
#include "platform/codepage.h"
#include "platform/host_kit.h"
#include "platform/socket_errors.h"

namespace larkpost::fuzz {

void CheckFailed(const char* condition, const char* file, int line) {
    std::fprintf(stderr, "%s:%d: check failed: %s\n", file, line, condition);
    std::abort();
}

// --- ScriptedControl ---

void ScriptedControl::Post(void (ScriptedControl::*step)()) {
    const uint64_t generation = m_generation;
    std::weak_ptr<ScriptedControl> self = weak_from_this();
    detail::HostKitGlobal().Services().PostEvent(self, [self, generation, step] {
        auto control = self.lock();
        if (control && control->m_generation == generation) (control.get()->*step)();
    });
}

void ScriptedControl::Connect(const std::u16string&, int32_t) {
    m_state = detail::sckConnecting;
    Post(m_script.refuseConnect ? &ScriptedControl::DeliverRefusal : &ScriptedControl::DeliverConnect);
}

void ScriptedControl::DeliverConnect() {
    m_state = detail::sckConnected;
    if (m_sink) m_sink->Connect();
    ReleaseNextSegment();
}

void ScriptedControl::DeliverRefusal() {
    m_state = detail::sckError;
    std::u16string description = detail::SocketErrorDescription(detail::sckConnectionRefused);
    bool cancelDisplay = false;
    if (m_sink) m_sink->Error(detail::sckConnectionRefused, description, 0, u"", u"", 0, cancelDisplay);
}

void ScriptedControl::Close() {
    m_state = detail::sckClosed;
    ++m_generation;
    m_pending.clear();
    m_announced.clear();
    m_arrivalQueued = false;
}

void ScriptedControl::SendData(std::string_view bytes) {
    if (m_state != detail::sckConnected) {
        throw RaisedError(detail::sckBadState, detail::SocketErrorDescription(detail::sckBadState));
    }
    m_written.append(bytes);
    m_writes.emplace_back(bytes);
    Post(&ScriptedControl::DeliverSendComplete);
}

void ScriptedControl::DeliverSendComplete() {
    if (m_sink) m_sink->SendComplete();
    ReleaseNextSegment();
}

void ScriptedControl::ReleaseNextSegment() {
    // An empty segment is silence in answer to that write.
    if (m_nextSegment < m_script.segments.size()) {
        m_pending += m_script.segments[m_nextSegment++];
        AnnounceNextChunk();
    }
    const bool drained = m_pending.empty() && m_announced.empty() && !m_arrivalQueued;
    if (drained && m_nextSegment >= m_script.segments.size() && !m_script.silentAtEnd) {
        Post(&ScriptedControl::DeliverPeerClose);
    }
}

std::size_t ScriptedControl::NextChunkSize() {
    std::size_t size = m_chunkIndex < m_script.chunkSizes.size() ? m_script.chunkSizes[m_chunkIndex++]
                                                                : m_script.chunkSize;
    if (size == 0 || size > m_pending.size()) size = m_pending.size();
    return size;
}

void ScriptedControl::AnnounceNextChunk() {
    if (m_arrivalQueued || m_pending.empty()) return;
    const std::size_t size = NextChunkSize();
    m_announced = m_pending.substr(0, size);
    m_pending.erase(0, size);
    m_arrivalQueued = true;
    Post(&ScriptedControl::DeliverArrival);
}

void ScriptedControl::DeliverArrival() {
    m_arrivalQueued = false;
    if (m_sink && !m_announced.empty()) m_sink->DataArrival(static_cast<int32_t>(m_announced.size()));
}

void ScriptedControl::GetData(std::u16string& Data, int32_t, int32_t MaxLen) {
    const std::size_t take =
        MaxLen < 0 ? m_announced.size() : std::min<std::size_t>(m_announced.size(), MaxLen);
    Data = detail::FromAnsi(std::string_view(m_announced).substr(0, take));
    m_announced.erase(0, take);
    if (m_announced.empty()) {
        if (!m_pending.empty()) {
            AnnounceNextChunk();
        } else if (m_nextSegment >= m_script.segments.size() && !m_script.silentAtEnd) {
            Post(&ScriptedControl::DeliverPeerClose);
        }
    }
}

void ScriptedControl::DeliverPeerClose() {
    if (m_state != detail::sckConnected) return;
    m_state = detail::sckClosing;
    if (m_sink) m_sink->Close();
}

// --- ScriptedNetwork ---

ScriptedNetwork::ScriptedNetwork() {
    detail::HostKitGlobal().Services().SetSocketControlFactoryForTesting([this] {
        m_last = std::make_shared<ScriptedControl>(m_next);
        return m_last;
    });
}

ScriptedNetwork::~ScriptedNetwork() {
    detail::HostKitGlobal().Services().SetSocketControlFactoryForTesting({});
}

void UseFastTime() {
    detail::SetTickScaleForTesting(0.0001);  // a 1000 ms tick lasts 100 us
    detail::SetSleepForTesting([](int32_t) {});
}

// --- decoders ---

namespace {

int HexValue(char16_t c) {
    if (c >= u'0' && c <= u'9') return c - u'0';
    if (c >= u'A' && c <= u'F') return c - u'A' + 10;
    return -1;  // lower case is not what the encoder writes
}

int Base64Value(char16_t c) {
    if (c >= u'A' && c <= u'Z') return c - u'A';
    if (c >= u'a' && c <= u'z') return c - u'a' + 26;
    if (c >= u'0' && c <= u'9') return c - u'0' + 52;
    if (c == u'+') return 62;
    if (c == u'/') return 63;
    return -1;
}

}  // namespace

std::optional<std::string> DecodeQuotedPrintable(std::u16string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char16_t c = text[i];
        if (c != u'=') {
            if (c < 33 || c > 126) return std::nullopt;  // only printable ASCII stands literal
            out += static_cast<char>(c);
            continue;
        }
        if (i + 2 >= text.size()) return std::nullopt;  // "=" needs two more characters
        if (text[i + 1] == u'\r' && text[i + 2] == u'\n') {
            i += 2;  // soft break
            continue;
        }
        const int high = HexValue(text[i + 1]);
        const int low = HexValue(text[i + 2]);
        if (high < 0 || low < 0) return std::nullopt;
        out += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return out;
}

std::optional<std::string> DecodeBase64(std::u16string_view text) {
    std::string out;
    uint32_t bits = 0;
    int count = 0;
    int padding = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char16_t c = text[i];
        if (c == u'\r') {
            if (i + 1 >= text.size() || text[i + 1] != u'\n') return std::nullopt;
            ++i;
            continue;
        }
        if (c == u'=') {
            ++padding;
            bits <<= 6;
            ++count;
        } else {
            if (padding) return std::nullopt;  // nothing but padding after the first "="
            const int value = Base64Value(c);
            if (value < 0) return std::nullopt;
            bits = bits << 6 | static_cast<uint32_t>(value);
            ++count;
        }
        if (count == 4) {
            const char bytes[3] = {static_cast<char>(bits >> 16), static_cast<char>(bits >> 8),
                                   static_cast<char>(bits)};
            if (padding > 2) return std::nullopt;
            out.append(bytes, 3 - padding);
            bits = 0;
            count = 0;
            if (padding && i + 1 != text.size()) return std::nullopt;  // padding only at the end
        }
    }
    if (count != 0) return std::nullopt;
    return out;
}

std::u16string CodeUnits(const uint8_t* data, std::size_t size) {
    std::u16string text;
    text.reserve(size / 2);
    for (std::size_t i = 0; i + 1 < size; i += 2) {
        text += static_cast<char16_t>(data[i] | data[i + 1] << 8);
    }
    return text;
}

std::vector<std::u16string> SplitCrlf(std::u16string_view text, std::u16string& rest) {
    std::vector<std::u16string> lines;
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = text.find(u"\r\n", start);
        if (end == std::u16string_view::npos) break;
        lines.emplace_back(text.substr(start, end - start));
        start = end + 2;
    }
    rest = std::u16string(text.substr(start));
    return lines;
}

}  // namespace larkpost::fuzz
