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

/// What each unit must send and know while nothing happens but what the program lets happen, at instants that
/// are known exactly: other than Model it needs no latitude for a busy machine. Calls to an engine are told
/// before they are made, but for `start`.
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
        std::size_t wraps = 0;  ///< of session counts
        std::size_t faults = 0;
    };

    TurnedModel(std::size_t units, OnFault onFault);

    void announce(Unit unit, const Service& service);
    void remove(Unit unit, const Service& service);

    /// The unit sends and hears, or does not any more. What it offers need not be offered meanwhile.
    void setUp(Unit unit, bool isUp);
    /// The unit is shut down: all that it offers is withdrawn. It may still send stop-offers.
    void stop(Unit unit);
    void start(Unit unit);
    /// A fresh engine, which is stopped and knows nothing, is in the place of the former one.
    void replace(Unit unit);

    void onSent(Unit unit, const std::vector<SentPacket>& packets);
    void onHandled(Unit unit, const std::vector<SentPacket>& packets);
    void onEvent(Unit unit, const Event& event);

    /// Compares the events with what has been handled. To be called after each timer and each call to an
    /// engine.
    void settle();
    /// Looks for what should have happened by now. To be called once a second or so.
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
        Microseconds changed = never;  // when it was announced or removed
        Microseconds sent = never;     // the last offer, or stop-offer, since
    };

    /// A service of another unit that a unit has heard of.
    struct Heard
    {
        bool isKnown = false;
        std::string uuid{};
        Microseconds deadline = never;  // of the last offer
    };

    struct UnitState
    {
        bool isRunning = false;
        bool isUp = false;
        Microseconds began = never;  // to run and be up, both
        Microseconds started = never;
        std::uint16_t session = 0;  // of the last packet
        bool isSessionKnown = true;
        std::map<Service, Own> own{};
        std::map<Service, Heard> heard{};
        std::deque<Event> due{};  // what the handled datagrams cause
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
