#pragma once

#include "support/Waiting.h"

#include <Poco/Clock.h>
#include <Poco/Timer.h>

#include <atomic>
#include <functional>
#include <utility>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

/// A timer that has fallen behind: its second interval passed while the first was still being handled.
class LateTimer
{
public:
    /// Calls the function with the timer, once.
    explicit LateTimer(std::function<void(Poco::Timer&)> onLateInterval) : m_onLate(std::move(onLateInterval))
    {
        m_timer.start(Poco::TimerCallback<LateTimer>(*this, &LateTimer::onTimer));
        EXPECT_TRUE(eventually([&] { return m_isDone.load(); }));
        m_timer.stop();
    }

private:
    void onTimer(Poco::Timer& timer)
    {
        const Poco::Clock begin;
        if (timer.skipped() == 0)
            eventually([&] { return begin.isElapsed(Poco::Clock::ClockDiff{3000} * interval); });
        else if (!m_isDone.exchange(true))
            m_onLate(timer);
    }

    static constexpr long interval = 10;  // milliseconds

    std::function<void(Poco::Timer&)> m_onLate;
    std::atomic<bool> m_isDone{false};
    Poco::Timer m_timer{0, interval};
};

}  // namespace Nubo::ServiceDiscovery::Testing
