#include "soak/Model.h"

#include <algorithm>
#include <utility>

namespace Nubo::ServiceDiscovery::Testing {

using std::chrono::seconds;

namespace {

/// The time to live is 120 s, and the engine checks it once a second.
constexpr seconds shortestLife{118};
constexpr seconds longestLife{122};

/// Messages are applied with a delay, so that they are in order; events later still, after their causes.
constexpr seconds hindsightOfMessages{1};
constexpr seconds hindsightOfEvents{2};

/// Time from an offer to its effect on a busy machine.
constexpr seconds latency{5};

/// A unit that has been attached for a shorter time may miss messages.
constexpr seconds attachmentTime{2};

/// Time during which removed services may still be offered, and newly announced ones withdrawn, because
/// messages arrive late.
constexpr seconds lastOffers{3};
constexpr seconds lastStopOffers{6};

}  // namespace

Model::Model(std::size_t units, OnFault onFault) : m_onFault(std::move(onFault)), m_units(units) {}

void Model::introduce(Unit owner, const Service& service)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_services[service].owner = owner;
    for (UnitState& unit : m_units)
        unit.knowledge[service];
}

void Model::announce(const Service& service, Instant now)
{
    setAnnounced(service, true, now);
}

void Model::remove(const Service& service, Instant now)
{
    setAnnounced(service, false, now);
}

void Model::setAnnounced(const Service& service, bool isAnnounced, Instant now)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    Announcement& announcement = m_services.at(service);
    announcement.isAnnounced = isAnnounced;
    announcement.since = now;
}

void Model::attach(Unit unit, Instant now)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_units.at(unit).isAttached = true;
    m_units.at(unit).since = now;
}

void Model::detach(Unit unit, Instant now)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_units.at(unit).isAttached = false;
    m_units.at(unit).since = now;
}

void Model::replace(Unit unit, Instant now)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (auto& [service, announcement] : m_services) {
        if (announcement.owner == unit && announcement.isAnnounced) {
            announcement.isAnnounced = false;
            announcement.since = now;
        }
    }
    m_units.at(unit) = UnitState{false, now, {}};
    const auto forget = [&](auto& records) {
        records.erase(std::remove_if(records.begin(), records.end(),
                                     [&](const auto& record) { return record.unit == unit; }),
                      records.end());
    };
    forget(m_heard);
    forget(m_events);
}

void Model::onMessage(Unit unit, const Service& service, Message message, Instant when)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_heard.push_back({unit, service, message, when});
}

void Model::onDiscovered(Unit unit, const Service& service, const std::string& uuid, Instant when)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_events.push_back({unit, service, uuid, true, when});
}

void Model::onGone(Unit unit, const Service& service, const std::string& uuid, Instant when)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_events.push_back({unit, service, uuid, false, when});
}

void Model::judge(Instant now, Clock::duration patience)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (; !m_heard.empty() && m_heard.front().when <= now - hindsightOfMessages; m_heard.pop_front())
        apply(m_heard.front());
    for (; !m_events.empty() && m_events.front().when <= now - hindsightOfEvents; m_events.pop_front())
        apply(m_events.front());
    for (Unit unit = 0; unit < m_units.size(); ++unit) {
        for (const auto& [service, announcement] : m_services)
            judgeKnowledge(unit, service, now);
        judgeReachable(unit, now, patience);
    }
}

std::size_t Model::known() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::size_t count = 0;
    for (const UnitState& unit : m_units) {
        for (const auto& [service, knowledge] : unit.knowledge)
            count += knowledge.isKnown ? 1 : 0;
    }
    return count;
}

void Model::complain(const std::string& text)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_counts.faults;
    m_onFault(text);
}

Model::Counts Model::counts() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_counts;
}

void Model::Knowledge::expect(Expectation expectation, Instant since)
{
    if (expected == expectation)
        return;
    expected = expectation;
    expectedSince = since;
}

void Model::apply(const Heard& heard)
{
    checkSender(heard);
    UnitState& state = m_units.at(heard.unit);
    Knowledge& knowledge = state.knowledge[heard.service];
    const bool isOffer = heard.message == Message::Offer;
    // The unit was attached for a while before the message and still is, a while after it.
    const bool isSure = state.isAttached && state.since + attachmentTime <= heard.when;

    const Expectation result = isOffer ? Expectation::Known : Expectation::Unknown;
    const bool isNews = knowledge.expected != result;
    knowledge.expect(isSure || !isNews ? result : Expectation::Either, heard.when);
    (isOffer ? knowledge.offered : knowledge.stopped) = heard.when;
    if (isOffer && isSure) {
        if (knowledge.isKnown && heard.when - knowledge.surelyOffered >= shortestLife)
            knowledge.silenceEnded = heard.when;
        knowledge.surelyOffered = heard.when;
    }
}

void Model::checkSender(const Heard& heard)
{
    const auto found = m_services.find(heard.service);
    if (found == m_services.end()) {
        fault(heard.unit, heard.service, "hears of a service that nobody has");
        return;
    }
    const Announcement& announcement = found->second;
    const Clock::duration age = heard.when - announcement.since;
    if (heard.message == Message::Offer && !announcement.isAnnounced && age > lastOffers)
        fault(heard.unit, heard.service, "hears an offer of a service that is not announced");
    if (heard.message == Message::StopOffer && announcement.isAnnounced && age > lastStopOffers)
        fault(heard.unit, heard.service, "hears a stop-offer of a service that is announced");
}

void Model::apply(const Event& event)
{
    Knowledge& knowledge = m_units.at(event.unit).knowledge[event.service];
    if (event.isDiscovery)
        discover(knowledge, event);
    else
        lose(knowledge, event);
}

void Model::discover(Knowledge& knowledge, const Event& event)
{
    ++m_counts.discovered;
    const auto found = m_services.find(event.service);
    if (found != m_services.end() && found->second.owner == event.unit)
        fault(event.unit, event.service, "discovers its own service");
    else if (knowledge.isKnown)
        fault(event.unit, event.service, "discovers a service that it knows");
    else if (event.when - knowledge.offered > latency)
        fault(event.unit, event.service, "discovers a service that was not offered to it");
    knowledge.isKnown = true;
    knowledge.uuid = event.uuid;
}

void Model::lose(Knowledge& knowledge, const Event& event)
{
    ++m_counts.gone;
    const bool isStopped = event.when - knowledge.stopped <= latency;
    const bool isSilent = event.when - knowledge.surelyOffered >= shortestLife ||
                          event.when - knowledge.silenceEnded <= latency;
    if (!knowledge.isKnown)
        fault(event.unit, event.service, "loses a service that it does not know");
    else if (event.uuid != knowledge.uuid)
        fault(event.unit, event.service, "loses a service by a wrong identifier");
    else if (!isStopped && !isSilent)
        fault(event.unit, event.service, "loses a service that is being offered to it");
    else if (!isStopped && event.when - knowledge.offered > longestLife)
        fault(event.unit, event.service, "loses a service too late");
    knowledge.isKnown = false;
}

/// Checks that what the unit knows follows from the messages that it received.
void Model::judgeKnowledge(Unit unit, const Service& service, Instant now)
{
    Knowledge& knowledge = m_units.at(unit).knowledge[service];
    if (now - knowledge.offered >= longestLife)
        knowledge.expect(Expectation::Unknown, knowledge.offered + longestLife);
    else if (now - knowledge.surelyOffered >= shortestLife && knowledge.expected == Expectation::Known)
        knowledge.expect(Expectation::Either, now);

    if (now - knowledge.expectedSince < latency || knowledge.expected == Expectation::Either)
        return;
    const bool mustBeKnown = knowledge.expected == Expectation::Known;
    if (mustBeKnown == knowledge.isKnown)
        return;
    fault(unit, service,
          mustBeKnown ? "does not know a service that was offered to it"
                      : "knows a service that was withdrawn or is silent");
    knowledge.isKnown = mustBeKnown;  // report the fault only once
}

/// Checks that the unit knows every service that has been announced to it for long enough.
void Model::judgeReachable(Unit unit, Instant now, Clock::duration patience)
{
    UnitState& state = m_units.at(unit);
    for (const auto& [service, announcement] : m_services) {
        const UnitState& owner = m_units.at(announcement.owner);
        if (announcement.owner == unit || !announcement.isAnnounced || !owner.isAttached || !state.isAttached)
            continue;
        const Instant since = std::max({announcement.since, owner.since, state.since});
        Knowledge& knowledge = state.knowledge[service];
        if (knowledge.isKnown || now - since < patience || knowledge.missed >= since)
            continue;
        fault(unit, service, "does not know a service that has long been announced");
        knowledge.missed = now;
    }
}

void Model::fault(Unit unit, const Service& service, const std::string& what)
{
    ++m_counts.faults;
    m_onFault("unit " + std::to_string(unit + 1) + " " + what + ": \"" + service.name + "\" at [" +
              service.address + "]:" + std::to_string(service.port));
}

}  // namespace Nubo::ServiceDiscovery::Testing
