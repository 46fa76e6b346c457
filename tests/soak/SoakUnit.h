#pragma once

#include "soak/Model.h"
#include "support/LossyLink.h"
#include "support/Namespace.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace Nubo::ServiceDiscovery::Testing {

/// Source address of datagrams that no unit has sent.
constexpr auto strangerAddress = "fd00::bad";

/// A unit on a lossy link to a switch, with operations for everything that can happen to a unit. Each
/// operation reports to the model. The dispatcher of every second unit follows the kernel; the others have
/// their interface reported to them.
class SoakUnit
{
public:
    /// Reasons why a unit cannot send and receive for a while.
    enum class Outage
    {
        None,
        InterfaceGone,  ///< reported by the platform
        InterfaceDown,
        LinkCut
    };

    /// Number of services that a unit can announce. Every second one has a name that all units use.
    static constexpr std::size_t services = 20;

    /// Connects the unit to the switch and starts it. Units are numbered from 0.
    SoakUnit(Model::Unit number, const Namespace& theSwitch, Model& model, std::uint32_t seed);
    ~SoakUnit();

    SoakUnit(const SoakUnit&) = delete;
    SoakUnit& operator=(const SoakUnit&) = delete;

    static std::string addressOf(Model::Unit number);

    LossyLink& link() { return m_link; }

    bool isAnnounced(std::size_t index) const { return m_announced.count(index) != 0; }
    std::size_t announced() const { return m_announced.size(); }
    void add(std::size_t index);
    void remove(std::size_t index);

    /// The name of a service that a unit can announce.
    static std::string serviceName(Model::Unit unit, std::size_t index);
    void search(const std::string& name);

    bool isOut() const { return m_outage != Outage::None; }
    void beginOutage(Outage outage);
    void endOutage();

    /// Both remove all services of the unit. Do not call them during an outage.
    void restart();
    /// Kills the unit without withdrawing its services. Its replacement has different services.
    void replace();

private:
    /// Interfaces in this namespace get no automatic addresses, and keep theirs while they are down.
    struct Network : Namespace
    {
        explicit Network(const std::string& name);
    };

    struct Parts;

    void start();
    bool startup();
    void setInterfaceReported(bool isReported);
    void onPassed(const std::string& frame);
    void expect(bool result, const std::string& call);
    Service service(std::size_t index) const;
    Service service(std::size_t index, unsigned generation) const;

    const Model::Unit m_number;
    Model& m_model;
    const std::string m_address;
    const Network m_network;
    LossyLink m_link;
    std::unique_ptr<Parts> m_parts;
    Outage m_outage = Outage::None;
    std::map<std::size_t, Model::Instant> m_announced;  // by index, with the time of the announcement
    unsigned m_generation = 0;
};

}  // namespace Nubo::ServiceDiscovery::Testing
