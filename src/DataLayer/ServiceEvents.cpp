#include "DataLayer/ServiceEvents.h"

#include <Common/OwnProcess.h>

#include <atomic>
#include <memory>

namespace Nubo::ServiceDiscovery {

namespace {

using Payload = ServiceListEventPayload;
using Delegate = Poco::AbstractDelegate<Payload>;

/// Wraps the delegate of a subscriber so that it can be disabled without waiting. Poco's delegates hold a
/// lock while the subscriber runs, and their removal waits for that lock while holding the lock of the
/// event. A subscriber that removes itself and another thread that removes it at the same time would
/// deadlock.
class UnlockedDelegate : public Delegate
{
public:
    explicit UnlockedDelegate(const Delegate& delegate) : m_state(std::make_shared<State>(delegate)) {}

    bool notify(const void* sender, Payload& payload) override
    {
        const std::shared_ptr<State> state = m_state;  // the subscriber may remove itself
        return state->isEnabled && state->delegate->notify(sender, payload);
    }
    bool equals(const Delegate& other) const override { return m_state->delegate->equals(other); }
    Delegate* clone() const override { return new UnlockedDelegate(*this); }
    void disable() override { m_state->isEnabled = false; }
    const Delegate* unwrap() const override { return m_state->delegate->unwrap(); }

private:
    struct State
    {
        explicit State(const Delegate& original) : delegate(original.clone()) {}

        const std::unique_ptr<Delegate> delegate;
        std::atomic<bool> isEnabled{true};
    };

    UnlockedDelegate(const UnlockedDelegate& other) = default;

    const std::shared_ptr<State> m_state;
};

}  // namespace

ServiceListEventPayload::ServiceListEventPayload(EventType eventType, const NuboServiceDescription* service,
                                                 const std::string& localUuid)
    : m_eventType(eventType)
    , m_service(service)
    , m_localUuid(localUuid)
{}

ServiceListEvent::ServiceListEvent() : m_process(Common::OwnProcess::mark()) {}

void ServiceListEvent::operator+=(const Delegate& delegate)
{
    if (m_process != Common::OwnProcess::mark())
        return;
    BasicEvent::operator+=(UnlockedDelegate(delegate));
}

void ServiceListEvent::operator-=(const Delegate& delegate)
{
    if (m_process != Common::OwnProcess::mark())
        return;
    BasicEvent::operator-=(delegate);
}

void ServiceListEvent::clear()
{
    if (m_process == Common::OwnProcess::mark())
        BasicEvent::clear();
}

void ServiceListEvent::notify(const void* sender, Payload& payload)
{
    Poco::ScopedLockWithUnlock<Poco::FastMutex> lock(_mutex);
    if (!_enabled)
        return;
    auto strategy = _strategy;  // a delegate may add and remove others
    lock.unlock();
    payload.m_isDelivered = true;
    strategy.notify(sender, payload);
}

}  // namespace Nubo::ServiceDiscovery
