#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

namespace Nubo::ServiceDiscovery::Testing {

/// Identifies a service on the network.
struct Service
{
    std::string name;
    std::string address;
    unsigned short port;

    bool operator<(const Service& other) const
    {
        return std::tie(name, address, port) < std::tie(other.name, other.address, other.port);
    }
};

/// Models which services of the other units each unit must know, and which it must not know.
///
/// The caller reports what happens to the units, which offers arrive at each unit's interface, and which
/// events each unit raises. The model later compares events with offers, and what a unit knows with what it
/// received. Where a unit may have missed a message because it was being attached or detached at that moment,
/// both outcomes are correct.
///
/// All operations are thread-safe. Instants are the times of what is reported, not of the call.
class Model
{
public:
    using Clock = std::chrono::steady_clock;
    using Instant = Clock::time_point;
    using Unit = std::size_t;
    using OnFault = std::function<void(const std::string& text)>;

    /// A message that arrives at a unit's interface.
    enum class Message
    {
        Offer,
        StopOffer
    };

    struct Counts
    {
        std::size_t discovered = 0;
        std::size_t gone = 0;
        std::size_t faults = 0;
    };

    /// After this time an attached unit must know an announced service, regardless of losses.
    static constexpr std::chrono::seconds usualPatience{30};

    Model(std::size_t units, OnFault onFault);

    /// Registers a service that the unit may announce later.
    void introduce(Unit owner, const Service& service);

    /// Call these before the engine is called.
    void announce(const Service& service, Instant now);
    void remove(const Service& service, Instant now);

    /// Sets whether the unit can send and receive. Initially it cannot. Call attach() after the change and
    /// detach() before it.
    void attach(Unit unit, Instant now);
    void detach(Unit unit, Instant now);

    /// Replaces the unit with a new one that knows and announces nothing. Call this when the old one raises
    /// no more events and the new one none yet.
    void replace(Unit unit, Instant now);

    void onMessage(Unit unit, const Service& service, Message message, Instant when);
    void onDiscovered(Unit unit, const Service& service, const std::string& uuid, Instant when);
    void onGone(Unit unit, const Service& service, const std::string& uuid, Instant when);

    /// Checks everything up to a few seconds before `now`.
    void judge(Instant now, Clock::duration patience = usualPatience);

    /// Total number of services that the units know.
    std::size_t known() const;

    /// Reports a fault that was found elsewhere.
    void complain(const std::string& text);

    Counts counts() const;

private:
    static constexpr Instant never{Clock::duration::min() / 2};

    struct Announcement
    {
        Unit owner = 0;
        bool isAnnounced = false;
        Instant since = never;
    };

    enum class Expectation
    {
        Known,
        Unknown,
        Either
    };

    /// What one unit has received about one service, and whether it knows it.
    struct Knowledge
    {
        bool isKnown = false;
        std::string uuid;
        Expectation expected = Expectation::Unknown;
        Instant expectedSince = never;
        Instant offered = never;        // last time, perhaps not received
        Instant surelyOffered = never;  // last time
        Instant stopped = never;        // last time, perhaps not received
        Instant silenceEnded = never;   // an offer arrived when the time to live may just have elapsed
        Instant missed = never;         // last fault that an announced service is not known

        void expect(Expectation expectation, Instant since);
    };

    struct UnitState
    {
        bool isAttached = false;
        Instant since = never;
        std::map<Service, Knowledge> knowledge;
    };

    struct Heard
    {
        Unit unit;
        Service service;
        Message message;
        Instant when;
    };

    struct Event
    {
        Unit unit;
        Service service;
        std::string uuid;
        bool isDiscovery;
        Instant when;
    };

    void setAnnounced(const Service& service, bool isAnnounced, Instant now);
    void apply(const Heard& heard);
    void checkSender(const Heard& heard);
    void apply(const Event& event);
    void discover(Knowledge& knowledge, const Event& event);
    void lose(Knowledge& knowledge, const Event& event);
    void judgeKnowledge(Unit unit, const Service& service, Instant now);
    void judgeReachable(Unit unit, Instant now, Clock::duration patience);
    void fault(Unit unit, const Service& service, const std::string& what);

    mutable std::mutex m_mutex;
    const OnFault m_onFault;
    std::vector<UnitState> m_units;
    std::map<Service, Announcement> m_services;
    std::deque<Heard> m_heard;
    std::deque<Event> m_events;
    Counts m_counts;
};

}  // namespace Nubo::ServiceDiscovery::Testing
