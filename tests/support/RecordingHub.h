#pragma once

#include "DataLayer/SDClock.h"
#include "LogicLayer/SDCommunicationHub.h"
#include "ServiceDiscovery.h"
#include "support/Platform.h"
#include "support/Registry.h"

#include <functional>
#include <mutex>
#include <vector>

namespace Nubo::ServiceDiscovery::Testing {

/// A hub that records announcements instead of sending them.
class RecordingHub : public SDCommunicationHub
{
public:
    /// One record of an announcement, as it was then.
    struct Sent
    {
        Poco::Clock time;
        std::size_t call;  ///< number of the announce() call, from 1
        bool isBatch;      ///< announced as a list
        SDService record;
    };

    using SDCommunicationHub::m_requestHandlerQueue;
    using SDCommunicationHub::m_sender;
    using SDCommunicationHub::SDCommunicationHub;

    /// Called for every announcement before it is recorded, on the announcing thread. To be set before the
    /// first one.
    std::function<void()> onAnnounce;

    void announce(const SDService::Ptr& service) override
    {
        if (onAnnounce)
            onAnnounce();
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_sent.push_back({SDClock::now(), ++m_calls, false, *service});
    }

    void announce(const std::vector<SDService::Ptr>& services) override
    {
        if (onAnnounce)
            onAnnounce();
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_calls;
        for (const SDService::Ptr& service : services)
            m_sent.push_back({SDClock::now(), m_calls, true, *service});
    }

    std::vector<Sent> sent() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_sent;
    }

    /// The announced records with that name.
    std::vector<Sent> sent(const std::string& name) const
    {
        std::vector<Sent> result;
        for (const Sent& one : sent()) {
            if (one.record.getNuboDescription().getName() == name)
                result.push_back(one);
        }
        return result;
    }

    void clear()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_sent.clear();
    }

private:
    mutable std::mutex m_mutex;
    std::size_t m_calls = 0;
    std::vector<Sent> m_sent;
};

/// The surroundings of a state machine: platform, facade, a registry, a hub that records.
struct EngineFixture
{
    PlatformScope platform;
    ServiceDiscovery facade;
    Registry registry{facade};
    RecordingHub hub{facade};
};

}  // namespace Nubo::ServiceDiscovery::Testing
