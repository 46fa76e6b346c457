#pragma once

#include "soak/Model.h"
#include "soak/Offers.h"
#include "soak/TurnedTime.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery::Testing {

/// Models what each unit must send and know. The program controls everything that happens, at exactly known
/// instants; unlike Model, this class therefore needs no tolerance for a busy machine. Report calls to an
/// engine before they are made, except `start`.
class TurnedModel
{
public:
    using Microseconds = TurnedTime::Microseconds;
    using Unit = std::size_t;
    using OnFault = std::function<void(const std::string& text)>;

    struct Event
    {
        bool isDiscovery;
        Service service;
        std::string uuid;
    };

    struct Counts
    {
        std::size_t discovered = 0;
        std::size_t gone = 0;
        std::size_t wraps = 0;  ///< of session counters
        std::size_t faults = 0;
    };

    TurnedModel(std::size_t units, OnFault onFault);

    void announce(Unit unit, const Service& service);
    void remove(Unit unit, const Service& service);

    /// Sets whether the unit can send and receive. While it cannot, its services need not be offered.
    void setUp(Unit unit, bool isUp);
    /// The unit is shut down, so all its services are withdrawn. It may still send stop-offers.
    void stop(Unit unit);
    void start(Unit unit);
    /// Replaces the engine with a new one, which is stopped and knows nothing.
    void replace(Unit unit);

    void onSent(Unit unit, const std::vector<SentPacket>& packets);
    void onHandled(Unit unit, const std::vector<SentPacket>& packets);
    void onEvent(Unit unit, const Event& event);

    /// Compares the events with the handled datagrams. Call this after each timer and each call to an engine.
    void settle();
    /// Checks what should have happened by now. Call this about once a second.
    void judge();

    /// Reports a fault that was found elsewhere.
    void complain(Unit unit, const std::string& what);

    std::size_t known() const;
    const Counts& counts() const { return m_counts; }

private:
    static constexpr Microseconds never = -1;

    /// A service that a unit has announced.
    struct Own
    {
        bool isAnnounced = false;
        Microseconds changed = never;  // time at which it was announced or removed
        Microseconds sent = never;     // time of the last offer or stop-offer since then
    };

    /// A service of another unit, about which a unit has received a message.
    struct Heard
    {
        bool isKnown = false;
        std::string uuid{};
        Microseconds deadline = never;  // end of the last offer's time to live
    };

    struct UnitState
    {
        bool isRunning = false;
        bool isUp = false;
        Microseconds began = never;  // time since which it has been both running and up
        Microseconds started = never;
        std::uint16_t session = 0;  // of the last packet
        bool isSessionKnown = true;
        std::map<Service, Own> own{};
        std::map<Service, Heard> heard{};
        std::deque<Event> due{};  // events that the handled datagrams must cause
        std::deque<Event> events{};
    };

    void checkSession(Unit unit, std::uint16_t session);
    void checkOwn(Unit unit, const Service& service, const Own& own);
    void checkEvent(Unit unit, const Event& event);
    void fault(Unit unit, const Service& service, const std::string& what);

    const OnFault m_onFault;
    std::vector<UnitState> m_units;
    Counts m_counts;
};

}  // namespace Nubo::ServiceDiscovery::Testing
