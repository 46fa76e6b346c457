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

/// What tells one service from another on the network.
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

/// What each unit must know of the services of the others, and what it must not.
///
/// The model is told what is done to the units, which offers come in at each unit's interface, and which
/// events each unit raises. It then judges with hindsight: events against offers, and what a unit knows
/// against what it heard. Where a unit may have missed what came in, because it was being attached or
/// detached at that moment, either is right.
///
/// All operations are thread-safe. Instants are those at which things happened, not those of the call.
class Model
{
public:
    using Clock = std::chrono::steady_clock;
    using Instant = Clock::time_point;
    using Unit = std::size_t;
    using OnFault = std::function<void(const std::string& text)>;

    /// What comes in at a unit's interface.
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

    /// A service that is announced, to an attached unit, must be known after that time, whatever is lost.
    static constexpr std::chrono::seconds usualPatience{30};

    Model(std::size_t units, OnFault onFault);

    /// Makes a service known to the model that the unit can announce.
    void introduce(Unit owner, const Service& service);

    /// To be told before it is done.
    void announce(const Service& service, Instant now);
    void remove(const Service& service, Instant now);

    /// Whether the unit sends and hears. It does not at first. An attachment is told when it has been made,
    /// a detachment before.
    void attach(Unit unit, Instant now);
    void detach(Unit unit, Instant now);

    /// Instead of the unit there is a fresh one that knows nothing, and announces nothing. To be told when
    /// the former one raises no events any more and the fresh one does not yet.
    void replace(Unit unit, Instant now);

    void onMessage(Unit unit, const Service& service, Message message, Instant when);
    void onDiscovered(Unit unit, const Service& service, const std::string& uuid, Instant when);
    void onGone(Unit unit, const Service& service, const std::string& uuid, Instant when);

    /// Judges what has happened up to a moment ago.
    void judge(Instant now, Clock::duration patience = usualPatience);

    /// How many services the units know, all together.
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

    /// What one unit has heard of one service, and made of it.
    struct Knowledge
    {
        bool isKnown = false;
        std::string uuid;
        Expectation expected = Expectation::Unknown;
        Instant expectedSince = never;
        Instant offered = never;        // lastly, perhaps unheard
        Instant surelyOffered = never;  // lastly
        Instant stopped = never;        // lastly, perhaps unheard
        Instant silenceEnded = never;   // an offer came when the time to live may just have been over
        Instant missed = never;         // the last complaint that an announced service is not known

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
