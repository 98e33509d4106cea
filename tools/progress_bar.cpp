#include "progress_bar.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace larkpost::cli {

std::string FormatSize(int64_t bytes) {
    char text[32];
    if (bytes < 1024) {
        std::snprintf(text, sizeof text, "%lld B", static_cast<long long>(bytes));
    } else if (bytes < 1024 * 1024) {
        std::snprintf(text, sizeof text, "%.1f KiB", static_cast<double>(bytes) / 1024);
    } else {
        std::snprintf(text, sizeof text, "%.1f MiB", static_cast<double>(bytes) / (1024 * 1024));
    }
    return text;
}

std::string FormatProgressLine(std::string_view label, int64_t sent, int64_t total,
                               double bytesPerSecond, int columns) {
    sent = std::clamp<int64_t>(sent, 0, std::max<int64_t>(total, 0));
    int percent = total > 0 ? static_cast<int>(sent * 100 / total) : 100;
    std::string tail = sent < total ? FormatSize(sent) + " of " + FormatSize(total)
                                    : FormatSize(total) + ", waiting for the server";
    if (sent < total && bytesPerSecond > 0) {
        const auto left = static_cast<long long>((total - sent) / bytesPerSecond + 0.5);
        char rate[64];
        std::snprintf(rate, sizeof rate, "/s  %lld:%02lld left", left / 60, left % 60);
        tail += "  " + FormatSize(static_cast<int64_t>(bytesPerSecond)) + rate;
    }
    char percentText[8];
    std::snprintf(percentText, sizeof percentText, "%3d%%", percent);
    // label + " [" + bar + "] " + percent + "  " + tail, within the terminal's width.
    const std::string head = std::string(label) + " [";
    int fixed = static_cast<int>(head.size() + 2 + 4 + 2 + tail.size());
    int width = std::clamp(columns - 1 - fixed, 10, 50);
    int filled = total > 0 ? static_cast<int>(sent * width / total) : width;
    std::string line = head + std::string(filled, '#') + std::string(width - filled, '.') + "] " +
                       percentText + "  " + tail;
    // One column stays free: a line that fills the last column wraps on some terminals.
    std::size_t limit = columns > 1 ? static_cast<std::size_t>(columns - 1) : 1;
    if (line.size() > limit) line.resize(limit);
    return line;
}

ProgressBar::ProgressBar(int fd, bool enabled) : m_fd(fd), m_enabled(enabled) {}

ProgressBar::~ProgressBar() { Clear(); }

int ProgressBar::Columns() const {
    winsize size{};
    if (::ioctl(m_fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
    return 80;
}

void ProgressBar::Write(const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(m_fd, text.data() + done, text.size() - done);
        if (n <= 0) return;  // a terminal that went away: the bar is not worth an error
        done += static_cast<std::size_t>(n);
    }
}

void ProgressBar::Update(std::string_view label, int64_t sent, int64_t total) {
    if (!m_enabled) return;
    auto now = std::chrono::steady_clock::now();
    const bool newStage = label != m_label;
    if (newStage) m_label = label, m_labelStart = now;
    if (m_drawn && !newStage && sent < total && now - m_lastDraw < std::chrono::milliseconds(50))
        return;
    // The rate once there is a measure of it: a quarter second of this stage.
    const std::chrono::duration<double> elapsed = now - m_labelStart;
    const double rate = elapsed.count() >= 0.25 ? static_cast<double>(sent) / elapsed.count() : 0;
    std::string line = FormatProgressLine(label, sent, total, rate, Columns());
    if (m_drawn && line == m_lastLine) return;
    // Carriage return, the line, then erase what an older, longer line left behind.
    Write("\r" + line + "\x1b[K");
    m_lastLine = std::move(line);
    m_lastDraw = now;
    m_drawn = true;
}

void ProgressBar::Clear() {
    if (!m_enabled || !m_drawn) return;
    Write("\r\x1b[K");
    m_drawn = false;
    m_lastLine.clear();
}

}  // namespace larkpost::cli
