#pragma once

#include "ServiceDiscovery.h"
#include "support/Listener.h"
#include "support/Namespace.h"
#include "support/SystemFaults.h"
#include "support/TestUnit.h"

#include <KELUtilLib/Logging.h>

#include <Poco/Message.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace Nubo::ServiceDiscovery::Testing {

/// Phase of a unit's life in which a call fails.
enum class Phase
{
    Start,      ///< the unit is made and started
    Discovery,  ///< it offers, searches, answers and discovers
    Flap,       ///< its interface goes and comes
    Stop,
    Destruction
};

/// A registry that knows the services of other units. Faults do not affect it.
class KnownServices
{
public:
    explicit KnownServices(ServiceDiscovery& discovery);
    ~KnownServices();

    KnownServices(const KnownServices&) = delete;
    KnownServices& operator=(const KnownServices&) = delete;

    bool has(const std::string& name) const;
    /// Discoveries of known services, and losses of unknown ones.
    std::size_t contradictions() const;

private:
    void onServiceListChanged(ServiceDiscovery::ServiceListEventPayload& payload);

    ServiceDiscovery& m_discovery;
    mutable std::mutex m_mutex;
    std::set<std::string> m_names;
    std::size_t m_contradictions = 0;
};

/// Sets the level of the log while it exists.
class LogThreshold
{
public:
    explicit LogThreshold(Poco::Message::Priority level) : m_former(Logging::Log::Logger().getLevel())
    {
        Logging::Log::Logger().setLevel(level);
    }
    ~LogThreshold() { Logging::Log::Logger().setLevel(m_former); }

    LogThreshold(const LogThreshold&) = delete;
    LogThreshold& operator=(const LogThreshold&) = delete;

private:
    const int m_former;
};

/// Surroundings for one unit after the other: a link on which another unit sends and listens. The unit finds
/// its interface itself, by the kernel's notices.
class FaultyLife
{
public:
    FaultyLife();
    ~FaultyLife();

    FaultyLife(const FaultyLife&) = delete;
    FaultyLife& operator=(const FaultyLife&) = delete;

    /// Runs a unit's whole life with one phase under the plan. Expects that the unit goes on or refuses,
    /// works again after a restart at the latest, and leaves nothing behind. Returns the number of calls that
    /// the plan could concern.
    std::size_t live(Phase phase, const SystemFault::Plan& plan);

private:
    struct Unit
    {
        NetlinkScope platform;
        ServiceDiscovery discovery;
        KnownServices known{discovery};
    };

    void make();
    void start();
    void play(Phase phase);
    void discover();
    void flap();
    void stop();

    void expectTruth(Phase phase);
    void expectGoingOn(Phase phase);
    void expectWorking();
    void expectOnTheWire(const std::string& name);
    void speakUntil(const std::string& datagram, const std::string& name, bool isKnown);

    const LogThreshold m_level{Poco::Message::PRIO_INFORMATION};  // as in a vehicle
    NetworkPair m_network;
    std::unique_ptr<Speaker> m_speaker;
    std::unique_ptr<Listener> m_listener;
    std::unique_ptr<Unit> m_unit;
    bool m_hasSaidYes = false;     ///< to startup()
    bool m_isAnnouncing = false;   ///< a service that was added in the phase
    std::size_t m_lastNumber = 0;  ///< in the names of services
};

}  // namespace Nubo::ServiceDiscovery::Testing
