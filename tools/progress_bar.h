// The progress bar of a send, drawn on one terminal line.
#ifndef LARKPOST_TOOLS_PROGRESS_BAR_H
#define LARKPOST_TOOLS_PROGRESS_BAR_H

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace larkpost::cli {

// "Sending [#####.....]  45%  1.2 MiB of 2.5 MiB  850.0 KiB/s  0:02 left" for a terminal of
// the given width; no rate and time left while the rate is 0 (not known yet). At the end the
// counts give way to a note of what comes next.
std::string FormatProgressLine(std::string_view label, int64_t sent, int64_t total,
                               double bytesPerSecond, int columns);

// "512 B", "1.5 KiB", "2.5 MiB".
std::string FormatSize(int64_t bytes);

class ProgressBar {
public:
    // Draws on fd only when enabled (fd is a terminal and the user did not ask for quiet).
    ProgressBar(int fd, bool enabled);
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    // Redraws when what it shows has changed, at most every 50 ms but always at the end:
    // progress events come every 512 characters. A new label starts a new rate.
    void Update(std::string_view label, int64_t sent, int64_t total);
    // Removes the bar, leaving the line empty.
    void Clear();

private:
    int Columns() const;
    void Write(const std::string& text);

    int m_fd;
    bool m_enabled;
    bool m_drawn = false;
    std::string m_lastLine;
    std::string m_label;
    std::chrono::steady_clock::time_point m_labelStart;
    std::chrono::steady_clock::time_point m_lastDraw;
};

}  // namespace larkpost::cli

#endif
