#pragma once

#include "soak/Resources.h"
#include "soak/TurnedModel.h"
#include "soak/TurnedWire.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery::Testing {

struct TurnedSoakPlan
{
    double days;
    std::uint32_t seed;
    std::size_t units;
};

struct TurnedSoakReport
{
    std::map<std::string, std::size_t> actions;  ///< number of actions of each kind
    TurnedModel::Counts events;
    TurnedWire::Counts datagrams;
    Resources before;  ///< after a hundredth of the time
    Resources after;
};

class TurnedUnit;

/// Runs engines in one process, on a wire without sockets and with a simulated clock, so that weeks of their
/// time pass in minutes: services appear and disappear, links fail and lose datagrams, engines are shut down,
/// killed and replaced. A model checks what each engine sends and reports.
class TurnedSoak
{
public:
    TurnedSoak(const TurnedSoakPlan& plan, TurnedModel::OnFault onFault);
    ~TurnedSoak();

    TurnedSoak(const TurnedSoak&) = delete;
    TurnedSoak& operator=(const TurnedSoak&) = delete;

    TurnedSoakReport run();

private:
    using Microseconds = TurnedTime::Microseconds;

    /// An action that is repeated at random times.
    struct Routine
    {
        const char* name;
        double meanPause;           // in seconds, with four units
        bool (TurnedSoak::*act)();  // returns false if there was nothing to act on
    };
    static const std::vector<Routine> routines;

    void perform(const Routine& routine);
    void judge();
    void settle();
    void runUntil(Microseconds end);

    bool addOrRemove();
    bool search();
    bool changeLoss();
    bool cutLink();
    bool cutLinkForLong();
    bool takeInterface();
    bool takeInterfaceForLong();
    bool interrupt(double duration, void (TurnedUnit::*set)(bool));
    bool restart();
    bool replace();

    void schedule(double delay, std::function<void()> task);
    void fill(TurnedUnit& unit);
    double random(double least, double most);
    std::size_t randomIndex(std::size_t count);
    TurnedUnit& anyUnit();

    const TurnedSoakPlan m_plan;
    std::mt19937 m_random;
    TurnedModel m_model;
    TurnedWire m_wire;
    std::vector<std::unique_ptr<TurnedUnit>> m_units;
    std::multimap<Microseconds, std::function<void()>> m_agenda;
    TurnedSoakReport m_report;
};

}  // namespace Nubo::ServiceDiscovery::Testing
