#pragma once

#include "DataLayer/EngineFrame.h"

#include <Common/OwnProcess.h>

#include <Poco/AbstractDelegate.h>

#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace Nubo::ServiceDiscovery {

/// Delivers the platform's reports to a method of its target. Unlike Poco::Delegate it holds no mutex while
/// it delivers, so a report never waits for a report on another thread.
template <class Target, class Payload>
class ReportDelegate : public Poco::AbstractDelegate<Payload>
{
public:
    using Method = void (Target::*)(Payload&);

    ReportDelegate(Target* target, Method method) : m_target(target), m_method(method) {}

    bool notify(const void* /*sender*/, Payload& payload) override
    {
        Target* target = nullptr;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (!m_target)
                return false;
            target = m_target;
            ++m_calls;
        }
        const Call call(*this);
        (target->*m_method)(payload);
        return true;
    }

    bool equals(const Poco::AbstractDelegate<Payload>& other) const override
    {
        const auto* const like = dynamic_cast<const ReportDelegate*>(other.unwrap());
        return like && like->m_method == m_method && like->target() == target();
    }

    Poco::AbstractDelegate<Payload>* clone() const override { return new ReportDelegate(target(), m_method); }

    /// Stops delivery. Waits until the deliveries on other threads have ended, unless it is called from
    /// within one, or in a forked child, which lacks those threads.
    void disable() override
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_target = nullptr;
        if (!EngineFrame::isOnThisThread(this) && m_process.isThis())
            m_ended.wait(lock, [this] { return m_calls == 0; });
    }

private:
    class Call : EngineFrame
    {
    public:
        explicit Call(ReportDelegate& delegate) : EngineFrame(&delegate, Role::Delivery), m_delegate(delegate)
        {}
        ~Call() override
        {
            const std::lock_guard<std::mutex> lock(m_delegate.m_mutex);
            --m_delegate.m_calls;
            m_delegate.m_ended.notify_all();
        }

    private:
        ReportDelegate& m_delegate;
    };

    Target* target() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_target;
    }

    mutable std::mutex m_mutex;  // guards target and count; not held during a delivery
    std::condition_variable m_ended;
    Target* m_target;
    const Method m_method;
    std::size_t m_calls = 0;
    const Common::OwnProcess m_process;
};

}  // namespace Nubo::ServiceDiscovery
