// Ticker: fires Elapsed every Interval milliseconds while Enabled, delivered only by the pump.
#ifndef LARKPOST_PLATFORM_TICKER_H
#define LARKPOST_PLATFORM_TICKER_H

#include <cstdint>
#include <memory>

namespace larkpost::detail {

class TickerEvents {
public:
    virtual void Elapsed() = 0;

protected:
    ~TickerEvents() = default;
};

class Ticker {
public:
    Ticker();
    ~Ticker();
    Ticker(const Ticker&) = delete;
    Ticker& operator=(const Ticker&) = delete;

    void SetEvents(TickerEvents* sink);
    // True starts the ticks (the first one Interval after), false stops them. A new ticker is
    // stopped.
    void Enabled(bool value);
    bool Enabled() const;
    void Interval(int32_t milliseconds);
    int32_t Interval() const;

private:
    struct State;
    std::shared_ptr<State> m_state;
};

}  // namespace larkpost::detail

#endif
