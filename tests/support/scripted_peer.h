// ScriptedPeer: a loopback TCP server that plays the server's side of a transcript on a thread
// of its own and records every byte it receives. The transcript's items, split at "|":
//   "< line"   the server sends the line with CR LF; "~ bytes" sends the bytes alone;
//   "> line"   a line from the client: the peer reads on until it has come. "<host>" stands
//              for this machine's name, "<text>" for a message text and its end (CR LF . CR
//              LF), a leading "<slice>" for the text's first 512 characters;
//   "!accept"  the next connection (the first is implicit); "!close" an orderly close (FIN),
//   "!reset"   an abortive one (RST); "!wait" until the client closes;
//   "!tls P"   a TLS handshake as the server with the certificate P.pem and key P.key; the
//              steps after it go through TLS, and the record holds what they decrypt;
//              "!tls-refused P" one that the client must break off;
//   "!hello"   the next bytes from the client (its TLS hello); from here until a "!tls" what
//              the client sends is TLS records, left out of the record.
// Each step waits at most 10 s.
#ifndef LARKPOST_TESTS_SCRIPTED_PEER_H
#define LARKPOST_TESTS_SCRIPTED_PEER_H

#include <cstdint>
#include <future>
#include <mutex>
#include <string>
#include <string_view>

struct ssl_st;

namespace larkpost::test {

// A loopback port that nobody listens on at this moment; whether one takes connections.
int32_t FreeLoopbackPort();
bool LoopbackListening(int32_t port);
// A loopback port whose listener's accept queue is full (for the process's life): a connect
// to it never completes, as the listener drops the handshake.
int32_t FullLoopbackPort();

class ScriptedPeer {
public:
    explicit ScriptedPeer(std::string_view transcript, const std::string& text = {});
    ~ScriptedPeer();
    int32_t Port() const { return m_port; }
    // What the client must send over the whole transcript.
    const std::string& Expected() const { return m_expected; }
    // Waits (20 s at most) for the end of the script; then what the peer received, followed by
    // what went wrong ("[...]": a step that timed out, a close too early, no end in time).
    std::string Result();

private:
    bool Run(char kind, const std::string& bytes);
    long Receive();
    long Transmit(const std::string& data, std::size_t from);
    void EndTls();

    int32_t m_port = 0;
    int m_listen = -1, m_fd = -1;
    ssl_st* m_tls = nullptr;
    bool m_unreadable = false;  // the client sends TLS records the peer has no session for
    std::string m_expected;
    std::future<void> m_run;
    std::mutex m_mutex;
    std::string m_pending, m_received, m_problems;  // m_pending: not yet read by a step
};

}  // namespace larkpost::test

#endif
