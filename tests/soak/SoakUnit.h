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

/// Where datagrams come from that no unit has sent.
constexpr auto strangerAddress = "fd00::bad";

/// A unit that goes through all that can happen to one, at a lossy link to a switch. The model is told of
/// everything. Every other unit has a dispatcher that follows the kernel; the rest are told of their
/// interface.
class SoakUnit
{
public:
    /// What keeps a unit from sending and hearing for a while.
    enum class Outage
    {
        None,
        InterfaceGone,  ///< so the platform says
        InterfaceDown,
        LinkCut
    };

    /// How many services a unit can announce. Every other one has a name that all units use.
    static constexpr std::size_t services = 20;

    /// Plugs the unit in at the switch and starts it. Units are numbered from 0.
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

    /// The name of one of the services of any unit.
    static std::string serviceName(Model::Unit unit, std::size_t index);
    void search(const std::string& name);

    bool isOut() const { return m_outage != Outage::None; }
    void beginOutage(Outage outage);
    void endOutage();

    /// Both leave it without services. Not to be called during an outage.
    void restart();
    /// Without a goodbye; a fresh one comes in its place, whose services are others than those that this one
    /// had.
    void replace();

private:
    /// Its interfaces have no addresses but those that they are given, and keep these while they are down.
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
    std::map<std::size_t, Model::Instant> m_announced;  // and since when
    unsigned m_generation = 0;
};

}  // namespace Nubo::ServiceDiscovery::Testing
