// Input: a sequence of events for the state machine, and of times by which its clock advances.

#include "common/Invariants.h"
#include "support/Descriptions.h"
#include "support/RecordingHub.h"
#include "support/TestStateMachine.h"

#include <Poco/Clock.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Nubo::ServiceDiscovery::Fuzzing {

namespace {

using Event = SDStateMachine::ExternalEvent;
using Microseconds = Poco::Clock::ClockDiff;

/// Uses the input as a source of choices. After its end all choices are 0.
class Choices
{
public:
    explicit Choices(std::string_view bytes) : m_bytes(bytes) {}

    bool areLeft() const { return !m_bytes.empty(); }

    std::uint8_t byte()
    {
        if (m_bytes.empty())
            return 0;
        const auto value = static_cast<std::uint8_t>(m_bytes.front());
        m_bytes.remove_prefix(1);
        return value;
    }

    template <class Element, std::size_t size>
    const Element& oneOf(const std::array<Element, size>& elements)
    {
        return elements[byte() % size];
    }

private:
    std::string_view m_bytes;
};

/// A state machine without threads. It turns the clock itself, and reset() turns it back.
class Engine
{
public:
    void reset()
    {
        removeRecords(m_machine, m_workloads);
        m_registry.forget();
        m_deadlines.clear();
        SDClock::turn(-m_elapsed);
        m_elapsed = 0;
        m_lastSecond = SDClock::now();
        m_heardAt = m_lastSecond + hearing;
        m_machine.listenFromNowOn();
        m_machine.run();
    }

    void put(const SDService::Ptr& service)
    {
        const Instance instance = instanceOf(service->getNuboDescription());
        const bool wasLive = isAnnounced(instance);
        const bool added = handle(Event::HTTP_PUT, service);
        require(added != wasLive, "a service is added unless it is announced already");
        require(isAnnounced(instance), "a service that was added is announced");
    }

    void remove(const std::string& uuid)
    {
        const auto isConcerned = [&](const SDService& record) {
            return record.getNuboDescription().getLocalUuid() == uuid && (isLive(record) || isAnswer(record));
        };
        const bool wasThere = any(isConcerned);
        const bool removed = handle(Event::HTTP_DELETE, nullptr, uuid);
        require(removed == wasThere, "what is announced, and only that, can be removed");
        require(!any(isConcerned), "neither offers nor answers are left of what was removed");
    }

    void search(const SDService::Ptr& service)
    {
        const std::string& name = service->getNuboDescription().getName();
        require(handle(Event::HTTP_GET, service), "any name can be searched for");
        require(any([&](const SDService& record) {
                    return record.getType() == SDService::Type::WANTED &&
                           record.getState() == SDService::State::INITIAL_WAIT_PHASE &&
                           record.getNuboDescription().getName() == name;
                }),
                "a search begins at once");
    }

    void receiveFind(const SDService::Ptr& service)
    {
        constexpr std::size_t few = 32;  // a FIND may be ignored while this many records wait
        const bool mustAnswer = m_workloads.aperiodic.size() < few;
        const std::string& name = service->getNuboDescription().getName();
        require(handle(Event::SOMEIP_FIND, service), "a find is no failure");
        if (!mustAnswer)
            return;
        for (const SDService::Ptr& record : m_workloads.all()) {
            const Instance instance = instanceOf(record->getNuboDescription());
            require(!isLive(*record) || record->getNuboDescription().getName() != name ||
                        any([&](const SDService& other) {
                            return isAnswer(other) && instanceOf(other.getNuboDescription()) == instance;
                        }),
                    "every announced instance of the name answers");
        }
    }

    void receiveOffer(SDService::Ptr service, unsigned int ttl)
    {
        const Instance instance = instanceOf(service->getNuboDescription());
        const bool wasKnown = isDiscovered(instance);
        const Poco::Clock before = SDClock::now();
        service->setTTL(ttl);
        const bool handled = handle(Event::SOMEIP_OFFER, service);
        const bool isKnown = isDiscovered(instance);
        require(isKnown == (wasKnown || m_registry.mood == Registry::Mood::Takes),
                "an offered instance is discovered if the registry takes it");
        require(handled == isKnown, "an offer is handled when its instance is known then");
        if (isKnown)
            m_deadlines[instance] = {before + ttl * second, SDClock::now() + ttl * second};
    }

    void receiveStopOffer(const SDService::Ptr& service)
    {
        const Instance instance = instanceOf(service->getNuboDescription());
        handle(Event::SOMEIP_STOPOFFER, service);
        require(!isDiscovered(instance), "an instance is gone once its offer is stopped");
    }

    /// Does the same as the hub's stop and start, except for the timers.
    void restart()
    {
        m_machine.m_running = false;
        m_machine.removeAllAnnouncedServices();
        check();
        m_machine.run();
    }

    /// Advances the clock and acts as the timers would: handles records when they are due, and ticks every
    /// second.
    void advance(Microseconds duration)
    {
        const Microseconds end = m_elapsed + duration;
        while (m_elapsed < end) {
            const Microseconds step =
                std::min({end - m_elapsed, second - m_elapsed % second, untilNextDue()});
            SDClock::turn(step);
            m_elapsed += step;
            while (untilNextDue() == 0)
                m_machine.aperiodicTick();
            if (step > 0 && m_elapsed % second == 0)
                endSecond();
            check();
        }
    }

    Microseconds elapsed() const { return m_elapsed; }
    Registry& registry() { return m_registry; }

    static constexpr Microseconds second = 1000000;

private:
    /// Real time passes as well. After a longer second, and after a start, the machine expires no instance
    /// whose offers it may have missed. That lasts for `hearing`, and then until the end of the second.
    static constexpr Microseconds longestSecond = second + 50000;
    static constexpr Microseconds hearing = 2200000;

    /// Range of a record's deadline. It is not exact, because real time passes while an offer is handled.
    struct Deadline
    {
        Poco::Clock earliest;
        Poco::Clock latest;
    };

    bool handle(Event::WorkloadEvent_t type, const SDService::Ptr& service, const std::string& uuid = "")
    {
        bool result = false;
        try {
            result = m_machine.handle(type, service, uuid);
        }
        catch (const Poco::RuntimeException&) {
            require(m_registry.mood == Registry::Mood::Throws, "only the registry throws");
        }
        check();
        return result;
    }

    void endSecond()
    {
        const Poco::Clock before = SDClock::now();
        const Poco::Clock last = std::exchange(m_lastSecond, before);
        if (before - last > longestSecond)
            m_heardAt = before + hearing;
        const std::map<std::string, Instance> known = m_registry.known();
        m_machine.periodicTick();
        const Poco::Clock after = SDClock::now();
        for (const auto& [uuid, instance] : known) {
            const Deadline& deadline = m_deadlines.at(instance);
            if (isDiscovered(instance))
                require(before < deadline.latest || before < m_heardAt,
                        "an instance whose TTL has run out is gone within a second");
            else
                require(after >= deadline.earliest, "an instance stays until its TTL has run out");
        }
    }

    void check()
    {
        checkWorkloads(m_machine, m_workloads, m_registry);
        for (const auto& sent : m_hub.sent()) {
            if (sent.record.getType() == SDService::Type::ANNOUNCED)
                require(
                    (sent.record.getTTL() != 0) == isAnnounced(instanceOf(sent.record.getNuboDescription())),
                    "what is announced is offered, and what is not is withdrawn");
        }
        m_hub.clear();
    }

    /// Returns the microseconds until a record of the aperiodic workload is due; the maximum if there is
    /// none.
    Microseconds untilNextDue() const
    {
        if (m_workloads.aperiodic.empty())
            return std::numeric_limits<Microseconds>::max();
        return std::max<Microseconds>(m_workloads.aperiodic.begin()->first - SDClock::now(), 0);
    }

    template <class Predicate>
    bool any(Predicate predicate) const
    {
        const ServicesContainer all = m_workloads.all();
        return std::any_of(all.begin(), all.end(),
                           [&](const SDService::Ptr& record) { return predicate(*record); });
    }

    bool isAnnounced(const Instance& instance) const
    {
        return any([&](const SDService& record) {
            return isLive(record) && instanceOf(record.getNuboDescription()) == instance;
        });
    }

    bool isDiscovered(const Instance& instance) const
    {
        const auto& known = m_registry.known();
        return std::any_of(known.begin(), known.end(),
                           [&](const auto& entry) { return entry.second == instance; });
    }

    Testing::PlatformScope m_platform;
    ServiceDiscovery m_facade;
    Registry m_registry{m_facade};
    Testing::RecordingHub m_hub{m_facade};
    Testing::TestStateMachine m_machine{m_hub};
    const Workloads m_workloads{m_machine.m_aperiodicWorkload, m_machine.m_periodicWorkload};
    Microseconds m_elapsed = 0;
    Poco::Clock m_lastSecond;
    Poco::Clock m_heardAt;
    std::map<Instance, Deadline> m_deadlines;  ///< of all discovered instances; may contain others
};

/// Chooses one of a few services, so that events concern the same ones.
SDService::Ptr chooseService(Choices& choices)
{
    static const std::array<std::string, 2> names{"Media", "Navi"};
    static const std::array<std::string, 2> addresses{"fd00::1", "fd00::2"};
    static constexpr std::array<unsigned short, 2> ports{8080, 8081};
    const std::string& name = choices.oneOf(names);
    const std::string& address = choices.oneOf(addresses);
    const unsigned short port = choices.oneOf(ports);
    return Testing::makeService(name, address, port);
}

std::string chooseUuid(Choices& choices)
{
    static const std::array<std::string, 4> uuids{"a", "b", "c", "discovered-1"};
    return choices.oneOf(uuids);
}

Microseconds chooseDuration(Choices& choices)
{
    const std::uint8_t choice = choices.byte();
    constexpr std::uint8_t firstOfSeconds = 128;
    constexpr Microseconds step = 8000;
    return choice < firstOfSeconds ? choice * step : (choice - firstOfSeconds + 1) * Engine::second;
}

void handleNext(Engine& engine, Choices& choices)
{
    enum Kind : std::uint8_t
    {
        Put,
        Remove,
        Search,
        Find,
        Offer,
        StopOffer,
        Advance,
        Mood,
        Restart,
        kinds
    };
    switch (static_cast<Kind>(choices.byte() % kinds)) {
        case Put: {
            SDService::Ptr service = chooseService(choices);
            service->setLocalUuid(chooseUuid(choices));
            return engine.put(service);
        }
        case Remove:
            return engine.remove(chooseUuid(choices));
        case Search:
            return engine.search(chooseService(choices));
        case Find:
            return engine.receiveFind(chooseService(choices));
        case Offer: {
            static constexpr std::array<unsigned int, 5> ttls{1, 3, 10, 120, 0xFFFFFF};
            const SDService::Ptr service = chooseService(choices);
            return engine.receiveOffer(service, choices.oneOf(ttls));
        }
        case StopOffer:
            return engine.receiveStopOffer(chooseService(choices));
        case Advance:
            return engine.advance(chooseDuration(choices));
        case Mood: {
            static constexpr std::array moods{Registry::Mood::Takes, Registry::Mood::Refuses,
                                              Registry::Mood::Throws};
            engine.registry().mood = choices.oneOf(moods);
            return;
        }
        case Restart:
            return engine.restart();
        case kinds:
            return;
    }
}

}  // namespace

void tryInput(std::string_view input)
{
    constexpr Microseconds longest = 600 * Engine::second;
    static Engine engine;  // shared, because creating its threads takes long
    engine.reset();
    Choices choices(input);
    while (choices.areLeft() && engine.elapsed() < longest)
        handleNext(engine, choices);
}

}  // namespace Nubo::ServiceDiscovery::Fuzzing
