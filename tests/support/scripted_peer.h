// ScriptedPeer: a loopback TCP server on its own thread that plays a fixed script against the
// client under test and records every byte it receives. Every step is bounded in time.
//
//   ScriptedPeer peer;
//   peer.Send("220 ready\r\n").ExpectLine().Send("250 hi\r\n").ReadUntil("\r\n.\r\n").Close();
//   peer.Start();
//   ... client connects to 127.0.0.1:peer.Port() ...
//   peer.Join();
//   EXPECT_EQ(peer.Lines()[0], "EHLO host");
#ifndef LARKPOST_TESTS_SCRIPTED_PEER_H
#define LARKPOST_TESTS_SCRIPTED_PEER_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace larkpost::test {

class ScriptedPeer {
public:
    ScriptedPeer();
    ~ScriptedPeer();
    ScriptedPeer(const ScriptedPeer&) = delete;
    ScriptedPeer& operator=(const ScriptedPeer&) = delete;

    int32_t Port() const { return m_port; }

    // Script steps, run in order once Start is called. The first steps wait for a connection.
    ScriptedPeer& Accept();                          // waits for the next connection (implicit at the start)
    ScriptedPeer& Send(std::string bytes);           // one write
    ScriptedPeer& SendSlowly(std::string bytes, std::chrono::milliseconds gap);  // one byte a write
    ScriptedPeer& ExpectLine();                      // reads up to and including the next CR LF
    ScriptedPeer& ExpectLines(int count);
    ScriptedPeer& ReadUntil(std::string terminator); // reads until the received bytes end with it
    ScriptedPeer& Pause(std::chrono::milliseconds duration);
    ScriptedPeer& Close();                           // orderly close (FIN)
    ScriptedPeer& Reset();                           // abortive close (RST)
    ScriptedPeer& WaitForClose();                    // reads until the client closes
    // A dialogue: for each line the client sends, the reply from the list in turn.
    ScriptedPeer& Reply(std::string reply) { return ExpectLine().Send(std::move(reply)); }

    void Start();
    // Waits (bounded) for the script to end; returns false if it did not finish in time.
    bool Join(std::chrono::milliseconds limit = std::chrono::seconds(20));

    // Everything received, over all connections, in order.
    std::string Received() const;
    // The lines read by ExpectLine/ExpectLines, without CR LF.
    std::vector<std::string> Lines() const;
    // The bytes received on connection n (0-based).
    std::string ReceivedOn(std::size_t connection) const;
    int Connections() const;
    // Failures the script met (a step timed out, a read found the connection closed, ...).
    std::vector<std::string> Problems() const;

private:
    using Step = std::function<bool()>;
    bool ReadSome(std::chrono::milliseconds limit);
    void Run();
    void Note(std::string problem);

    int m_listenFd = -1;
    int m_fd = -1;
    int32_t m_port = 0;
    std::vector<Step> m_steps;
    std::thread m_thread;
    mutable std::mutex m_mutex;
    std::condition_variable m_done;
    bool m_finished = false;
    std::string m_pending;  // received bytes not yet consumed by a step
    std::string m_received;
    std::vector<std::string> m_perConnection;
    std::vector<std::string> m_lines;
    std::vector<std::string> m_problems;
    std::chrono::milliseconds m_stepLimit{10000};
};

}  // namespace larkpost::test

#endif
