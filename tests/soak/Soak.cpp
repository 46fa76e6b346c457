#include "soak/Soak.h"

#include "support/Flood.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace Nubo::ServiceDiscovery::Testing {

using std::chrono::seconds;

namespace {

/// Number of services that a unit announces, give or take one.
constexpr std::size_t usualServices = SoakUnit::services / 2;

constexpr double mostLoss = 0.3;

/// In seconds.
constexpr double judgementInterval = 1;
constexpr double shortestSampleInterval = 1;

/// Limits the memory that samples take in a long run, because that memory is measured.
constexpr std::size_t mostSamples = 600;

/// In seconds. All services expire during the long one.
constexpr double shortestOutage = 0.2;
constexpr double longestUsualOutage = 8;
constexpr double longOutage = 130;

/// Time after the end until all units know all announced services. Offers are sent every second; a busy
/// machine and the model cause further delay.
constexpr seconds settlement{8};
constexpr seconds settledPatience{7};

Model::Clock::duration inClockTicks(std::chrono::duration<double> duration)
{
    return std::chrono::duration_cast<Model::Clock::duration>(duration);
}

}  // namespace

const std::vector<Soak::Routine> Soak::routines{
    {"services added or removed", 0.3, &Soak::addOrRemove},
    {"searches", 0.5, &Soak::search},
    {"bursts of garbage", 1, &Soak::sendGarbage},
    {"changes of loss", 5, &Soak::changeLoss},
    {"short outages", 10, &Soak::interruptShortly},
    {"long outages", 200, &Soak::interruptForLong},
    {"units restarted", 30, &Soak::restart},
    {"units killed and replaced", 40, &Soak::replace},
};

Soak::Soak(const SoakPlan& plan, Model::OnFault onFault)
    : m_plan(plan)
    , m_random(plan.seed)
    , m_model(plan.units, std::move(onFault))
    , m_garbage(garbage(1000))
{
    m_switch.ip("link add br0 type bridge mcast_snooping 0");
    m_switch.ip("link set br0 up");
    connect(m_stranger, "eth0", m_switch, "stranger");
    m_switch.ip("link set stranger master br0");
    m_stranger.addAddress("eth0", std::string(strangerAddress) + "/64");
    m_speaker = std::make_unique<Speaker>(m_stranger, "eth0", strangerAddress);
    for (Model::Unit number = 0; number < plan.units; ++number)
        m_units.push_back(
            std::make_unique<SoakUnit>(number, m_switch, m_model, static_cast<std::uint32_t>(m_random())));
}

SoakReport Soak::run()
{
    begin();
    runUntil(m_begin + inClockTicks(m_plan.duration));
    settle();
    return m_report;
}

void Soak::begin()
{
    for (const auto& unit : m_units)
        fill(*unit);
    for (std::vector<Sample>* samples : {&m_report.resident, &m_report.allocated, &m_report.known})
        samples->reserve(mostSamples + 1);
    m_report.before = Resources::current();
    m_begin = Model::Clock::now();
    judge();
    takeSample();
    for (const Routine& routine : routines) {
        // Every routine must run at least once, even in a short run.
        const double latest = std::min(routine.meanPause, m_plan.duration.count() / 2);
        schedule(random(0, latest), [&] { perform(routine); });
    }
}

void Soak::perform(const Routine& routine)
{
    if ((this->*routine.act)())
        ++m_report.actions[routine.name];
    schedule(random(0.5, 1.5) * routine.meanPause, [&] { perform(routine); });
}

void Soak::judge()
{
    m_model.judge(Model::Clock::now());
    schedule(judgementInterval, [this] { judge(); });
}

void Soak::takeSample()
{
    const double age = std::chrono::duration<double>(Model::Clock::now() - m_begin).count();
    const Resources resources = Resources::current();
    m_report.resident.push_back({age, resources.resident});
    m_report.allocated.push_back({age, resources.allocated});
    m_report.known.push_back({age, static_cast<double>(m_model.known())});
    schedule(std::max(shortestSampleInterval, m_plan.duration.count() / double{mostSamples}),
             [this] { takeSample(); });
}

/// Ends all outages and losses, and then checks that no service is missing.
void Soak::settle()
{
    m_agenda.clear();
    for (const auto& unit : m_units) {
        if (unit->isOut())
            unit->endOutage();
        unit->link().lose(0);
    }
    std::this_thread::sleep_for(settlement);
    m_model.judge(Model::Clock::now(), settledPatience);

    m_report.after = Resources::current();
    m_report.events = m_model.counts();
    for (const auto& unit : m_units) {
        m_report.datagramsPassed += unit->link().count().passed;
        m_report.datagramsLost += unit->link().count().lost;
    }
}

void Soak::runUntil(Model::Instant end)
{
    while (!m_agenda.empty() && m_agenda.begin()->first < end) {
        const auto next = m_agenda.extract(m_agenda.begin());
        std::this_thread::sleep_until(next.key());
        next.mapped()();
    }
}

bool Soak::addOrRemove()
{
    SoakUnit& unit = anyUnit();
    const bool isCoinHead = randomIndex(2) == 0;
    toggle(unit, unit.announced() < usualServices || (unit.announced() == usualServices && isCoinHead));
    return true;
}

bool Soak::search()
{
    anyUnit().search(SoakUnit::serviceName(randomIndex(m_units.size()), randomIndex(SoakUnit::services)));
    return true;
}

bool Soak::sendGarbage()
{
    constexpr int burst = 20;
    for (int i = 0; i < burst; ++i)
        m_speaker->send(m_garbage.at(m_report.garbage++ % m_garbage.size()));
    return true;
}

bool Soak::changeLoss()
{
    anyUnit().link().lose(random(0, mostLoss));
    return true;
}

bool Soak::interruptShortly()
{
    return interrupt(random(shortestOutage, longestUsualOutage));
}

bool Soak::interruptForLong()
{
    return interrupt(longOutage);
}

bool Soak::interrupt(double duration)
{
    constexpr SoakUnit::Outage kinds[] = {SoakUnit::Outage::InterfaceGone, SoakUnit::Outage::InterfaceDown,
                                          SoakUnit::Outage::LinkCut};
    SoakUnit* unit = attachedUnit();
    if (!unit)
        return false;
    unit->beginOutage(kinds[randomIndex(std::size(kinds))]);
    schedule(duration, [unit] { unit->endOutage(); });
    return true;
}

bool Soak::restart()
{
    SoakUnit* unit = attachedUnit();
    if (!unit)
        return false;
    unit->restart();
    fill(*unit);
    return true;
}

bool Soak::replace()
{
    SoakUnit* unit = attachedUnit();
    if (!unit)
        return false;
    unit->replace();
    fill(*unit);
    return true;
}

void Soak::schedule(double delay, std::function<void()> task)
{
    m_agenda.emplace(Model::Clock::now() + inClockTicks(std::chrono::duration<double>(delay)),
                     std::move(task));
}

/// Adds a service that the unit does not announce yet, or removes one that it announces.
void Soak::toggle(SoakUnit& unit, bool adds)
{
    std::size_t index = randomIndex(SoakUnit::services);
    while (unit.isAnnounced(index) == adds)
        index = (index + 1) % SoakUnit::services;
    if (adds)
        unit.add(index);
    else
        unit.remove(index);
}

void Soak::fill(SoakUnit& unit)
{
    while (unit.announced() < usualServices)
        toggle(unit, true);
}

double Soak::random(double least, double most)
{
    return std::uniform_real_distribution<double>(least, most)(m_random);
}

std::size_t Soak::randomIndex(std::size_t count)
{
    return std::uniform_int_distribution<std::size_t>(0, count - 1)(m_random);
}

SoakUnit& Soak::anyUnit()
{
    return *m_units.at(randomIndex(m_units.size()));
}

/// Returns a random unit without an outage, or null if there is none.
SoakUnit* Soak::attachedUnit()
{
    std::vector<SoakUnit*> attached;
    for (const auto& unit : m_units) {
        if (!unit->isOut())
            attached.push_back(unit.get());
    }
    return attached.empty() ? nullptr : attached.at(randomIndex(attached.size()));
}

}  // namespace Nubo::ServiceDiscovery::Testing
