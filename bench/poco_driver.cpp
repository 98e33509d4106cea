// POCO Net's side of the workloads in bench/run.py: Poco::Net::MailMessage for the assembly and
// SMTPClientSession for the transfers, each used the way its documentation shows.
//
//   bench_poco assemble mode=build|save attach=FILE body=FILE html=FILE out=FILE
//   bench_poco send port=N message=FILE       (a prepared message text, sent over an open session)
//   bench_poco session port=N count=N message=FILE [nodelay=1: TCP_NODELAY on the session's socket]
//   bench_poco idle port=N
#include <Poco/Exception.h>
#include <Poco/Net/FilePartSource.h>
#include <Poco/Net/MailMessage.h>
#include <Poco/Net/MailRecipient.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SMTPClientSession.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/StringPartSource.h>
#include <Poco/Timespan.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "bench_support.h"

namespace {

using Poco::Net::MailMessage;
using Poco::Net::SMTPClientSession;

const char* const kSender = "sender@example.com";
const char* const kRecipient = "rcpt@example.com";

int Assemble(const bench::Args& args) {
    const std::string mode = args.Text("mode");
    const std::string body = bench::ReadFileBytes(args.Text("body"));
    const std::string html = bench::ReadFileBytes(args.Text("html"));
    const long baselineKb = bench::PeakRssKb();

    const auto start = bench::Clock::now();
    MailMessage message;
    message.setSender(kSender);
    message.addRecipient(Poco::Net::MailRecipient(Poco::Net::MailRecipient::PRIMARY_RECIPIENT, kRecipient));
    message.setSubject("Larkpost benchmark");
    message.addContent(new Poco::Net::StringPartSource(body, "text/plain"), MailMessage::ENCODING_QUOTED_PRINTABLE);
    message.addContent(new Poco::Net::StringPartSource(html, "text/html"), MailMessage::ENCODING_QUOTED_PRINTABLE);
    message.addAttachment("attachment.bin",
                          new Poco::Net::FilePartSource(args.Text("attach"), "application/octet-stream"),
                          MailMessage::ENCODING_BASE64);
    std::size_t bytes = 0;
    if (mode == "build") {
        std::ostringstream text;
        message.write(text);
        bytes = text.str().size();
    } else {
        std::ofstream file(args.Text("out"), std::ios::binary | std::ios::trunc);
        message.write(file);
        file.close();
    }
    const double seconds = bench::SecondsSince(start);
    if (mode != "build") bytes = bench::FileSize(args.Text("out"));

    bench::Result()
        .Set("seconds", seconds)
        .Set("bytes", static_cast<double>(bytes))
        .Set("baseline_kb", static_cast<double>(baselineKb))
        .Print();
    return 0;
}

// MAIL FROM, RCPT TO and DATA, then the prepared text (POCO dot-stuffs it on the way).
void Transfer(SMTPClientSession& session, const std::string& text) {
    session.sendAddresses(kSender, {kRecipient});
    session.sendData();
    std::istringstream in(text);
    session.sendMessage(in);
}

int SendMessages(const bench::Args& args, long count) {
    const std::string text = bench::ReadFileBytes(args.Text("message"));
    // What the session's (host, port) constructor does, with the socket in our hands: POCO leaves
    // Nagle on, so each small command can wait for a delayed ACK; the other implementations set
    // TCP_NODELAY, and nodelay=1 shows POCO with it for fairness.
    Poco::Net::StreamSocket socket(
        Poco::Net::SocketAddress("127.0.0.1", static_cast<Poco::UInt16>(args.Number("port"))));
    if (args.Has("nodelay")) socket.setNoDelay(true);
    SMTPClientSession session(socket);
    session.setTimeout(Poco::Timespan(60, 0));
    session.login("localhost");

    const double cpuBefore = bench::CpuSeconds();
    const auto start = bench::Clock::now();
    for (long i = 0; i < count; ++i) Transfer(session, text);
    const double seconds = bench::SecondsSince(start);
    const double cpu = bench::CpuSeconds() - cpuBefore;
    session.close();

    bench::Result()
        .Set("seconds", seconds)
        .Set("cpu_seconds", cpu)
        .Set("messages", static_cast<double>(count))
        .Set("bytes", static_cast<double>(text.size()))
        .Print();
    return 0;
}

// The greeting never comes; the session's receive time-out of 10 s ends the wait.
int Idle(const bench::Args& args) {
    Poco::Net::StreamSocket socket(
        Poco::Net::SocketAddress("127.0.0.1", static_cast<Poco::UInt16>(args.Number("port"))));
    SMTPClientSession session(socket);
    session.setTimeout(Poco::Timespan(10, 0));
    const double cpuBefore = bench::CpuSeconds();
    const auto start = bench::Clock::now();
    std::string outcome = "no time-out";
    try {
        session.login("localhost");
    } catch (const Poco::TimeoutException&) {
        outcome = "timeout";
    } catch (const Poco::Exception& error) {
        outcome = error.displayText();
    }
    const double seconds = bench::SecondsSince(start);
    const double cpu = bench::CpuSeconds() - cpuBefore;
    bench::Result().Set("seconds", seconds).Set("cpu_seconds", cpu).Set("outcome", outcome).Print();
    return outcome == "timeout" ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s assemble|send|session|idle key=value...\n", argv[0]);
        return 2;
    }
    try {
        const std::string workload = argv[1];
        const bench::Args args(argc, argv, 2);
        if (workload == "assemble") return Assemble(args);
        if (workload == "send") return SendMessages(args, 1);
        if (workload == "session") return SendMessages(args, args.Number("count"));
        if (workload == "idle") return Idle(args);
        std::fprintf(stderr, "unknown workload %s\n", workload.c_str());
        return 2;
    } catch (const Poco::Exception& error) {
        std::fprintf(stderr, "bench_poco: %s\n", error.displayText().c_str());
        return 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_poco: %s\n", error.what());
        return 1;
    }
}
