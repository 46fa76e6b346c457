#pragma once

#include <atomic>
#include <functional>
#include <thread>
#include <utility>

namespace Nubo::ServiceDiscovery::Testing {

/// Calls a function over and over on a separate thread while it exists.
class Repeating
{
public:
    explicit Repeating(std::function<void()> action)
        : m_thread([this, action = std::move(action)] {
            while (!m_isOver)
                action();
        })
    {}
    ~Repeating()
    {
        m_isOver = true;
        m_thread.join();
    }

    Repeating(const Repeating&) = delete;
    Repeating& operator=(const Repeating&) = delete;

private:
    std::atomic<bool> m_isOver{false};
    std::thread m_thread;
};

}  // namespace Nubo::ServiceDiscovery::Testing
