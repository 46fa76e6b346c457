#include "soak/TurnedSoak.h"

#include "soak/TurnedUnit.h"

#include <algorithm>
#include <utility>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

constexpr double secondsPerDay = 86400;

/// Number of services that a unit announces, give or take one.
constexpr std::size_t usualServices = TurnedUnit::services / 2;

constexpr double mostLoss = 0.3;

/// In seconds. All services expire during the long one.
constexpr double judgementInterval = 1;
constexpr double shortestOutage = 0.2;
constexpr double longestUsualOutage = 30;
constexpr double longOutage = 130;

}  // namespace

const std::vector<TurnedSoak::Routine> TurnedSoak::routines{
    {"services added or removed", 40, &TurnedSoak::addOrRemove},
    {"searches", 60, &TurnedSoak::search},
    {"changes of loss", 300, &TurnedSoak::changeLoss},
    {"links cut", 300, &TurnedSoak::cutLink},
    {"links cut for long", 3000, &TurnedSoak::cutLinkForLong},
    {"interfaces taken away", 300, &TurnedSoak::takeInterface},
    {"interfaces taken away for long", 3000, &TurnedSoak::takeInterfaceForLong},
    {"engines restarted", 1200, &TurnedSoak::restart},
    {"engines killed and replaced", 3600, &TurnedSoak::replace},
};

TurnedSoak::TurnedSoak(const TurnedSoakPlan& plan, TurnedModel::OnFault onFault)
    : m_plan(plan)
    , m_random(plan.seed)
    , m_model(plan.units, std::move(onFault))
    , m_wire(static_cast<std::uint32_t>(m_random()))
{
    m_wire.onSent = [this](const TurnedWire::Port& from, const std::vector<SentPacket>& packets) {
        m_model.onSent(from.unit, packets);
    };
    m_wire.onHandled = [this](const TurnedWire::Port& to, const std::vector<SentPacket>& packets) {
        m_model.onHandled(to.unit, packets);
    };
    for (std::size_t number = 0; number < plan.units; ++number)
        m_units.push_back(std::make_unique<TurnedUnit>(number, m_wire, m_model));
}

TurnedSoak::~TurnedSoak() = default;

TurnedSoakReport TurnedSoak::run()
{
    const Microseconds begin = TurnedTime::now();
    const auto duration = static_cast<Microseconds>(m_plan.days * secondsPerDay) * TurnedTime::second;
    for (const auto& unit : m_units)
        fill(*unit);
    judge();
    for (const Routine& routine : routines)
        schedule(random(0, routine.meanPause), [&] { perform(routine); });
    runUntil(begin + duration / 100);
    m_report.before = Resources::current();
    runUntil(begin + duration);
    m_report.after = Resources::current();
    m_report.events = m_model.counts();
    m_report.datagrams = m_wire.counts();
    return m_report;
}

void TurnedSoak::runUntil(Microseconds end)
{
    const auto afterEach = [this] { settle(); };
    while (!m_agenda.empty() && m_agenda.begin()->first <= end) {
        const auto next = m_agenda.extract(m_agenda.begin());
        TurnedTime::passUntil(next.key(), afterEach);
        next.mapped()();
        settle();
    }
    TurnedTime::passUntil(end, afterEach);
}

void TurnedSoak::settle()
{
    m_wire.settle();
    for (const auto& unit : m_units)
        unit->passOnEvents();
    m_model.settle();
}

void TurnedSoak::perform(const Routine& routine)
{
    if ((this->*routine.act)())
        ++m_report.actions[routine.name];
    schedule(random(0.5, 1.5) * routine.meanPause, [&] { perform(routine); });
}

void TurnedSoak::judge()
{
    m_model.judge();
    schedule(judgementInterval, [this] { judge(); });
}

bool TurnedSoak::addOrRemove()
{
    TurnedUnit& unit = anyUnit();
    const bool isCoinHead = randomIndex(2) == 0;
    const bool adds = unit.announced() < usualServices || (unit.announced() == usualServices && isCoinHead);
    std::size_t index = randomIndex(TurnedUnit::services);
    while (unit.isAnnounced(index) == adds)
        index = (index + 1) % TurnedUnit::services;
    if (adds)
        unit.add(index);
    else
        unit.remove(index);
    return true;
}

bool TurnedSoak::search()
{
    anyUnit().search(TurnedUnit::serviceName(randomIndex(m_units.size()), randomIndex(TurnedUnit::services)));
    return true;
}

bool TurnedSoak::changeLoss()
{
    anyUnit().setLoss(random(0, mostLoss));
    return true;
}

bool TurnedSoak::cutLink()
{
    return interrupt(random(shortestOutage, longestUsualOutage), &TurnedUnit::setPlugged);
}

bool TurnedSoak::cutLinkForLong()
{
    return interrupt(longOutage, &TurnedUnit::setPlugged);
}

bool TurnedSoak::takeInterface()
{
    return interrupt(random(shortestOutage, longestUsualOutage), &TurnedUnit::setReported);
}

bool TurnedSoak::takeInterfaceForLong()
{
    return interrupt(longOutage, &TurnedUnit::setReported);
}

bool TurnedSoak::interrupt(double duration, void (TurnedUnit::*set)(bool))
{
    TurnedUnit& unit = anyUnit();
    if (unit.isOut())
        return false;
    (unit.*set)(false);
    schedule(duration, [&unit, set] { (unit.*set)(true); });
    return true;
}

bool TurnedSoak::restart()
{
    TurnedUnit& unit = anyUnit();
    if (unit.isOut())
        return false;
    unit.restart();
    fill(unit);
    return true;
}

bool TurnedSoak::replace()
{
    TurnedUnit& unit = anyUnit();
    if (unit.isOut())
        return false;
    unit.replace();
    fill(unit);
    return true;
}

void TurnedSoak::schedule(double delay, std::function<void()> task)
{
    m_agenda.emplace(TurnedTime::now() + static_cast<Microseconds>(delay * TurnedTime::second),
                     std::move(task));
}

void TurnedSoak::fill(TurnedUnit& unit)
{
    while (unit.announced() < usualServices) {
        const std::size_t index = randomIndex(TurnedUnit::services);
        if (!unit.isAnnounced(index))
            unit.add(index);
    }
}

double TurnedSoak::random(double least, double most)
{
    return std::uniform_real_distribution<double>(least, most)(m_random);
}

std::size_t TurnedSoak::randomIndex(std::size_t count)
{
    return std::uniform_int_distribution<std::size_t>(0, count - 1)(m_random);
}

TurnedUnit& TurnedSoak::anyUnit()
{
    return *m_units.at(randomIndex(m_units.size()));
}

}  // namespace Nubo::ServiceDiscovery::Testing
