// libcurl's side of the transfer workloads in bench/run.py: an SMTP upload from memory on one easy
// handle, which keeps its connection open between transfers. libcurl has no message assembly of
// its own to compare (its MIME API feeds an upload and never yields the text), so it has no
// assemble workload.
//
//   bench_curl send port=N message=FILE
//   bench_curl session port=N count=N message=FILE
//   bench_curl idle port=N
#include <curl/curl.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include "bench_support.h"

namespace {

struct Upload {
    const std::string* text = nullptr;
    std::size_t offset = 0;
};

std::size_t ReadUpload(char* buffer, std::size_t size, std::size_t count, void* user) {
    auto* upload = static_cast<Upload*>(user);
    const std::size_t left = upload->text->size() - upload->offset;
    const std::size_t n = std::min(left, size * count);
    std::memcpy(buffer, upload->text->data() + upload->offset, n);
    upload->offset += n;
    return n;
}

// One easy handle, one connection: each Transfer is MAIL FROM, RCPT TO, DATA and the text.
class CurlSession {
public:
    // With a CA file, implicit TLS (smtps) verified against it.
    CurlSession(int port, const std::string& caFile) : m_handle(curl_easy_init()) {
        if (!m_handle) throw std::runtime_error("curl_easy_init failed");
        m_recipients = curl_slist_append(nullptr, "<rcpt@example.com>");
        const std::string url = (caFile.empty() ? "smtp" : "smtps") + std::string("://127.0.0.1:") +
                                std::to_string(port) + "/localhost";
        curl_easy_setopt(m_handle, CURLOPT_URL, url.c_str());
        if (!caFile.empty()) curl_easy_setopt(m_handle, CURLOPT_CAINFO, caFile.c_str());
        curl_easy_setopt(m_handle, CURLOPT_MAIL_FROM, "<sender@example.com>");
        curl_easy_setopt(m_handle, CURLOPT_MAIL_RCPT, m_recipients);
        curl_easy_setopt(m_handle, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(m_handle, CURLOPT_READFUNCTION, ReadUpload);
        curl_easy_setopt(m_handle, CURLOPT_READDATA, &m_upload);
        curl_easy_setopt(m_handle, CURLOPT_TIMEOUT, 60L);
    }
    ~CurlSession() {
        curl_easy_cleanup(m_handle);
        curl_slist_free_all(m_recipients);
    }
    CurlSession(const CurlSession&) = delete;
    CurlSession& operator=(const CurlSession&) = delete;

    void Transfer(const std::string& text) {
        m_upload = Upload{&text, 0};
        curl_easy_setopt(m_handle, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(text.size()));
        const CURLcode code = curl_easy_perform(m_handle);
        if (code != CURLE_OK) throw std::runtime_error(curl_easy_strerror(code));
    }

private:
    CURL* m_handle;
    curl_slist* m_recipients = nullptr;
    Upload m_upload;
};

int SendMessages(const bench::Args& args, long count) {
    const std::string text = bench::ReadFileBytes(args.Text("message"));
    CurlSession session(static_cast<int>(args.Number("port")), args.Has("ca") ? args.Text("ca") : "");
    // Opens the connection (greeting, EHLO) outside the measurement, as the other clients do.
    session.Transfer("Subject: open\r\n\r\nopen\r\n");

    const double cpuBefore = bench::CpuSeconds();
    const auto start = bench::Clock::now();
    for (long i = 0; i < count; ++i) session.Transfer(text);
    const double seconds = bench::SecondsSince(start);
    const double cpu = bench::CpuSeconds() - cpuBefore;

    bench::Result()
        .Set("seconds", seconds)
        .Set("cpu_seconds", cpu)
        .Set("messages", static_cast<double>(count))
        .Set("bytes", static_cast<double>(text.size()))
        .Print();
    return 0;
}

// The greeting never comes; the server response time-out of 10 s ends the wait.
int Idle(const bench::Args& args) {
    CURL* handle = curl_easy_init();
    const std::string url = "smtp://127.0.0.1:" + std::to_string(args.Number("port")) + "/localhost";
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_CONNECT_ONLY, 1L);
    curl_easy_setopt(handle, CURLOPT_SERVER_RESPONSE_TIMEOUT, 10L);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, 20L);
    const double cpuBefore = bench::CpuSeconds();
    const auto start = bench::Clock::now();
    const CURLcode code = curl_easy_perform(handle);
    const double seconds = bench::SecondsSince(start);
    const double cpu = bench::CpuSeconds() - cpuBefore;
    curl_easy_cleanup(handle);
    const std::string outcome = code == CURLE_OPERATION_TIMEDOUT ? "timeout" : curl_easy_strerror(code);
    bench::Result().Set("seconds", seconds).Set("cpu_seconds", cpu).Set("outcome", outcome).Print();
    return outcome == "timeout" ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s send|session|idle key=value...\n", argv[0]);
        return 2;
    }
    curl_global_init(CURL_GLOBAL_DEFAULT);
    int status = 2;
    try {
        const std::string workload = argv[1];
        const bench::Args args(argc, argv, 2);
        if (workload == "send") status = SendMessages(args, 1);
        else if (workload == "session") status = SendMessages(args, args.Number("count"));
        else if (workload == "idle") status = Idle(args);
        else std::fprintf(stderr, "unknown workload %s\n", workload.c_str());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_curl: %s\n", error.what());
        status = 1;
    }
    curl_global_cleanup();
    return status;
}
