#pragma once

#include "support/Flood.h"
#include "support/Namespace.h"
#include "support/Process.h"

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

/// A unit that works under a flood from its network:
///
///     flooder, neighbour ──eth0── unit ──eth1── observer
///
/// The unit offers on both links. The flood does not reach the observer, which records the times of the
/// offers.
namespace Nubo::ServiceDiscovery::Testing {

/// Clock of the kernel's timestamps of arrival.
using FloodClock = std::chrono::system_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

/// Effects of a flood on the unit. Standing services are those announced before it.
struct FloodReport
{
    std::size_t sent = 0;             ///< datagrams of the flood
    std::size_t droppedByKernel = 0;  ///< of these, before the library could take them
    std::size_t droppedByUnit = 0;    ///< counted in its warnings
    std::size_t dropWarnings = 0;
    std::size_t otherComplaints = 0;  ///< further warnings, and errors
    Milliseconds length{0};

    std::size_t offers = 0;            ///< heard of standing services
    Milliseconds longestGap{0};        ///< between two offers of one of them
    std::size_t added = 0;             ///< services, during the flood
    std::size_t announced = 0;         ///< of these
    Milliseconds latestFirstOffer{0};  ///< of one of these, after the call that added it
    Milliseconds longestCall{0};       ///< that added one
    std::size_t discovered = 0;        ///< services
    Milliseconds recovery{0};          ///< until one that was offered after the flood was discovered

    std::size_t memoryBefore = 0;
    std::size_t memoryAtMost = 0;
    std::size_t memoryAfter = 0;
    ProcessorTimes processorTime;  ///< during the flood, by the thread's name
};

class FloodScene
{
public:
    /// Destination of errors and warnings in the unit's log. They are counted in either case.
    enum class LogTo
    {
        Nowhere,
        File
    };

    /// Starts the unit and waits until it announces that many services once a second.
    explicit FloodScene(std::size_t standingServices, LogTo log = LogTo::Nowhere);
    ~FloodScene();

    FloodScene(const FloodScene&) = delete;
    FloodScene& operator=(const FloodScene&) = delete;

    /// The names of the standing services.
    const std::vector<std::string>& standing() const { return m_standing; }

    /// Adds a service every 200 ms while the flood lasts, then waits at most half a minute until the unit
    /// discovers what the neighbour offers. To be called once.
    FloodReport endure(const FloodPlan& plan);

private:
    class Unit;
    class Observer;
    using Additions = std::map<std::string, FloodClock::time_point>;

    Additions addUntilOver(const Flood& flood, FloodReport& report);
    Milliseconds timeToRecover();
    void judgeAdditions(const Additions& additions, FloodReport& report) const;
    void judgeStanding(FloodClock::time_point begin, FloodClock::time_point end, FloodReport& report) const;

    Namespace m_unitNetwork{"unit"};
    Namespace m_flooderNetwork{"flooder"};
    Namespace m_observerNetwork{"observer"};
    std::vector<std::string> m_standing;
    std::unique_ptr<Observer> m_observer;
    std::unique_ptr<Unit> m_unit;
};

}  // namespace Nubo::ServiceDiscovery::Testing
