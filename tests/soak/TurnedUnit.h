#pragma once

#include "ServiceDiscovery.h"
#include "soak/TurnedModel.h"
#include "soak/TurnedWire.h"
#include "support/Platform.h"

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery::Testing {

/// A unit whose engine is connected to the wire. Each operation reports to the model.
class TurnedUnit
{
public:
    /// Number of services that a unit can announce. Every second one has a name that all units use.
    static constexpr std::size_t services = 12;

    /// Starts the unit. Units are numbered from 0.
    TurnedUnit(std::size_t number, TurnedWire& wire, TurnedModel& model);
    ~TurnedUnit();

    TurnedUnit(const TurnedUnit&) = delete;
    TurnedUnit& operator=(const TurnedUnit&) = delete;

    bool isAnnounced(std::size_t index) const { return m_announced.count(index) != 0; }
    std::size_t announced() const { return m_announced.size(); }
    void add(std::size_t index);
    void remove(std::size_t index);

    static std::string serviceName(std::size_t unit, std::size_t index);
    void search(const std::string& name);

    void setLoss(double share) { m_port.loss = share; }

    bool isOut() const { return m_isOut; }
    void setPlugged(bool isPlugged);
    void setReported(bool isReported);

    /// Both remove all services of the unit.
    void restart();
    void replace();  ///< without withdrawing its services

    /// Passes the events to the model.
    void passOnEvents();

private:
    void make();
    void startup();
    void onServiceListChanged(ServiceDiscovery::ServiceListEventPayload& payload);
    void expect(bool result, const std::string& call);
    Service service(std::size_t index) const;

    const std::size_t m_number;
    TurnedWire& m_wire;
    TurnedModel& m_model;
    TurnedWire::Port m_port;
    std::unique_ptr<PlatformScope> m_platform;
    std::unique_ptr<ServiceDiscovery> m_discovery;
    bool m_isOut = false;
    std::map<std::size_t, TurnedTime::Microseconds>
        m_announced;  // by index, with the time of the announcement
    std::size_t m_lastUuid = 0;
    std::mutex m_mutex;
    std::vector<TurnedModel::Event> m_events;
};

}  // namespace Nubo::ServiceDiscovery::Testing
