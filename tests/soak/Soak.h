#pragma once

#include "soak/Model.h"
#include "soak/Resources.h"
#include "soak/SoakUnit.h"
#include "support/Listener.h"
#include "support/Namespace.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery::Testing {

struct SoakPlan
{
    std::chrono::duration<double> duration;
    std::uint32_t seed;
    std::size_t units;
};

struct SoakReport
{
    std::map<std::string, std::size_t> actions;  ///< number of actions of each kind
    Model::Counts events;
    std::uint64_t datagramsPassed = 0;
    std::uint64_t datagramsLost = 0;
    std::uint64_t garbage = 0;
    std::vector<Sample> resident;   ///< as in Resources
    std::vector<Sample> allocated;  ///< the same
    std::vector<Sample> known;      ///< number of services, summed over all units
    Resources before;
    Resources after;
};

/// Takes units on one segment through days of normal operation within minutes: services and units appear and
/// disappear, links fail and lose datagrams, strangers send garbage. A model checks what each unit knows.
class Soak
{
public:
    /// Calls `onFault` with each fault as soon as it is found.
    Soak(const SoakPlan& plan, Model::OnFault onFault);

    SoakReport run();

private:
    /// An action that is repeated at random times.
    struct Routine
    {
        const char* name;
        double meanPause;     // in seconds
        bool (Soak::*act)();  // returns false if there was nothing to act on
    };
    static const std::vector<Routine> routines;

    void begin();
    void perform(const Routine& routine);
    void judge();
    void takeSample();
    void settle();
    void runUntil(Model::Instant end);

    bool addOrRemove();
    bool search();
    bool sendGarbage();
    bool changeLoss();
    bool interruptShortly();
    bool interruptForLong();
    bool interrupt(double duration);
    bool restart();
    bool replace();

    /// Runs the task after `delay` seconds.
    void schedule(double delay, std::function<void()> task);
    void toggle(SoakUnit& unit, bool adds);
    void fill(SoakUnit& unit);
    double random(double least, double most);
    std::size_t randomIndex(std::size_t count);
    SoakUnit& anyUnit();
    SoakUnit* attachedUnit();

    const SoakPlan m_plan;
    std::mt19937 m_random;
    Model m_model;
    const Namespace m_switch{"switch"};
    const Namespace m_stranger{"stranger"};
    std::unique_ptr<Speaker> m_speaker;
    const std::vector<std::string> m_garbage;
    std::vector<std::unique_ptr<SoakUnit>> m_units;
    std::multimap<Model::Instant, std::function<void()>> m_agenda;
    Model::Instant m_begin;
    SoakReport m_report;
};

}  // namespace Nubo::ServiceDiscovery::Testing
