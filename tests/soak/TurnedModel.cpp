#include "soak/TurnedModel.h"

#include <algorithm>
#include <utility>

namespace Nubo::ServiceDiscovery::Testing {

using TurnedTime::millisecond;
using TurnedTime::second;

namespace {

/// One cycle, plus the time that records due together wait for each other.
constexpr auto longestPause = second + 50 * millisecond;

/// After its start a unit hears the others first, before it takes anything for gone.
constexpr auto firstHearing = 1100 * millisecond;

constexpr std::uint16_t lastSession = 0xFFFE;  // 0 and 0xFFFF are never sent

}  // namespace

TurnedModel::TurnedModel(std::size_t units, OnFault onFault) : m_onFault(std::move(onFault)), m_units(units)
{}

void TurnedModel::announce(Unit unit, const Service& service)
{
    m_units.at(unit).own[service] = {true, TurnedTime::now(), never};
}

void TurnedModel::remove(Unit unit, const Service& service)
{
    m_units.at(unit).own[service] = {false, TurnedTime::now(), never};
}

void TurnedModel::setUp(Unit unit, bool isUp)
{
    m_units.at(unit).isUp = isUp;
    m_units.at(unit).began = TurnedTime::now();
    if (!isUp)
        m_units.at(unit).isSessionKnown = false;  // it also counts packets that it cannot send
}

void TurnedModel::stop(Unit unit)
{
    UnitState& state = m_units.at(unit);
    for (auto& [service, own] : state.own) {
        if (own.isAnnounced)
            own = {false, TurnedTime::now(), never};
    }
    state.isRunning = false;
}

void TurnedModel::start(Unit unit)
{
    UnitState& state = m_units.at(unit);
    for (const auto& [service, own] : state.own) {
        if (state.isUp && !own.isAnnounced && own.changed >= state.began && own.sent == never)
            fault(unit, service, "was shut down and has not withdrawn");
    }
    state.own.clear();
    state.isRunning = true;
    state.started = state.began = TurnedTime::now();
}

void TurnedModel::replace(Unit unit)
{
    const bool isUp = m_units.at(unit).isUp;
    m_units.at(unit) = UnitState{};
    m_units.at(unit).isUp = isUp;
}

void TurnedModel::onSent(Unit unit, const std::vector<SentPacket>& packets)
{
    UnitState& state = m_units.at(unit);
    for (const SentPacket& packet : packets) {
        checkSession(unit, packet.session);
        if (!packet.isOffer)
            continue;
        const bool isStop = packet.ttl == 0;
        Own& own = state.own[packet.service];
        if (own.isAnnounced == isStop || own.changed == never)
            fault(unit, packet.service, isStop ? "withdraws" : "offers what it does not announce:");
        if (!isStop && !state.isRunning)
            fault(unit, packet.service, "was shut down and offers");
        if (!isStop && own.sent >= state.began && TurnedTime::now() - own.sent > longestPause)
            fault(unit, packet.service, "has not offered for too long:");
        own.sent = TurnedTime::now();
    }
}

/// Checks that session IDs increase by one from packet to packet.
void TurnedModel::checkSession(Unit unit, std::uint16_t session)
{
    UnitState& state = m_units.at(unit);
    const bool wraps = state.isSessionKnown && state.session == lastSession;
    const auto expected = static_cast<std::uint16_t>(wraps ? 1 : state.session + 1);
    if (state.isSessionKnown ? session != expected : session == 0 || session > lastSession)
        complain(unit,
                 "sends session " + std::to_string(session) + " instead of " + std::to_string(expected));
    m_counts.wraps += wraps ? 1 : 0;
    state.session = session;
    state.isSessionKnown = true;
}

void TurnedModel::onHandled(Unit unit, const std::vector<SentPacket>& packets)
{
    UnitState& state = m_units.at(unit);
    for (const SentPacket& packet : packets) {
        if (!packet.isOffer)
            continue;
        const bool isOffer = packet.ttl != 0;
        Heard& heard = state.heard[packet.service];
        if (heard.isKnown != isOffer)
            state.due.push_back({isOffer, packet.service, ""});
        heard.isKnown = isOffer;
        if (isOffer)
            heard.deadline = TurnedTime::now() + packet.ttl * second;
    }
}

void TurnedModel::onEvent(Unit unit, const Event& event)
{
    ++(event.isDiscovery ? m_counts.discovered : m_counts.gone);
    m_units.at(unit).events.push_back(event);
}

void TurnedModel::settle()
{
    for (Unit unit = 0; unit < m_units.size(); ++unit) {
        UnitState& state = m_units[unit];
        for (const Event& event : state.events)
            checkEvent(unit, event);
        state.events.clear();
        for (const Event& missing : state.due)
            fault(unit, missing.service, missing.isDiscovery ? "has not discovered" : "has not lost");
        state.due.clear();
    }
}

void TurnedModel::checkEvent(Unit unit, const Event& event)
{
    UnitState& state = m_units.at(unit);
    Heard& heard = state.heard[event.service];
    const bool isDue = !state.due.empty() && state.due.front().isDiscovery == event.isDiscovery &&
                       !(state.due.front().service < event.service) &&
                       !(event.service < state.due.front().service);
    const bool hasRunOut = !event.isDiscovery && heard.isKnown && TurnedTime::now() >= heard.deadline;
    if (!state.isRunning)
        fault(unit, event.service, "was shut down and is notified of");
    if (!isDue && !hasRunOut)
        fault(unit, event.service,
              event.isDiscovery ? "discovers without a reason" : "loses without a reason");
    if (!event.isDiscovery && event.uuid != heard.uuid)
        fault(unit, event.service, "loses by another identifier");
    if (isDue)
        state.due.pop_front();
    else
        heard.isKnown = event.isDiscovery;
    if (event.isDiscovery)
        heard.uuid = event.uuid;
}

void TurnedModel::judge()
{
    for (Unit unit = 0; unit < m_units.size(); ++unit) {
        UnitState& state = m_units[unit];
        if (!state.isRunning)
            continue;
        for (const auto& [service, own] : state.own)
            checkOwn(unit, service, own);
        for (auto& [service, heard] : state.heard) {
            const Microseconds since = std::max(heard.deadline, state.started + firstHearing);
            if (!heard.isKnown || TurnedTime::now() <= since + longestPause)
                continue;
            fault(unit, service, "still knows what has run out:");
            heard.isKnown = false;  // reported once
        }
    }
}

/// Checks that an announced service is offered every second, and that a removed one is withdrawn.
void TurnedModel::checkOwn(Unit unit, const Service& service, const Own& own)
{
    const UnitState& state = m_units.at(unit);
    const Microseconds now = TurnedTime::now();
    const Microseconds since = std::max(own.changed, state.began);
    if (!state.isUp || now - since <= longestPause)
        return;
    if (own.isAnnounced && now - own.sent > longestPause)
        fault(unit, service, "has not offered for too long:");
    if (!own.isAnnounced && own.changed >= state.began && own.sent == never)
        fault(unit, service, "has not withdrawn");
}

void TurnedModel::complain(Unit unit, const std::string& what)
{
    ++m_counts.faults;
    m_onFault("unit " + std::to_string(unit + 1) + " " + what);
}

std::size_t TurnedModel::known() const
{
    std::size_t count = 0;
    for (const UnitState& state : m_units)
        count += static_cast<std::size_t>(std::count_if(
            state.heard.begin(), state.heard.end(), [](const auto& entry) { return entry.second.isKnown; }));
    return count;
}

void TurnedModel::fault(Unit unit, const Service& service, const std::string& what)
{
    complain(unit,
             what + " \"" + service.name + "\" at [" + service.address + "]:" + std::to_string(service.port));
}

}  // namespace Nubo::ServiceDiscovery::Testing
