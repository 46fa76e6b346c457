#pragma once

#include "ServiceDiscovery.h"
#include "support/Namespace.h"
#include "support/OpenHub.h"
#include "support/Platform.h"
#include "support/Registry.h"
#include "support/Waiting.h"

#include <KELOEMInterfaceLib/LinuxDispatcher.h>
#include <KELOEMInterfaceLib/NetlinkDispatcher.h>
#include <KELUtilLib/ApplicationServices.h>

#include <Poco/Delegate.h>
#include <Poco/SharedPtr.h>

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace Nubo::ServiceDiscovery::Testing {

/// Blocks a thread of the library in a subscriber until it is opened.
class Gate
{
public:
    ~Gate() { open(); }

    void pass()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_isReached = true;
        m_changed.wait(lock, [&] { return m_isOpen; });
    }

    void open()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isOpen = true;
        m_changed.notify_all();
    }

    bool isReached() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_isReached;
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_isReached = false;
    bool m_isOpen = false;
};

/// Records the reports of a dispatcher: "+eth0 fd00::1" and "-eth0 fd00::1".
class Reports
{
public:
    explicit Reports(OEMInterface::LinuxDispatcher& dispatcher)
        : m_removals(dispatcher.bindResponse(Poco::delegate(this, &Reports::onRemoved)))
        , m_additions(dispatcher.bindResponse(Poco::delegate(this, &Reports::onAdded)))
    {}

    Reports(const Reports&) = delete;
    Reports& operator=(const Reports&) = delete;

    /// When it returns, no report is being delivered.
    void unbind()
    {
        m_additions.reset();
        m_removals.reset();
    }

    std::vector<std::string> lines() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }

    /// Waits for that many reports in total.
    bool come(std::size_t count) const
    {
        return eventually([&] { return lines().size() >= count; });
    }

    /// Calls the function after every further report, on the thread that delivers it.
    void onReport(std::function<void()> call)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_call = std::move(call);
    }

private:
    void onAdded(OEMInterface::AddServiceDiscoveryInterfacePayload& payload) { take("+", payload.eventData); }
    void onRemoved(OEMInterface::RemoveServiceDiscoveryInterfacePayload& payload)
    {
        take("-", payload.eventData);
    }

    void take(const std::string& sign, const OEMInterface::NuBo_Ifc_ServiceDiscoveryInterface_t& interface)
    {
        std::function<void()> call;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_lines.push_back(sign + interface.pInterfaceName + " " + interface.pInterfaceIP);
            call = m_call;
        }
        if (call)
            call();
    }

    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
    std::function<void()> m_call;
    OEMInterface::ResponseBindingPtr m_removals;
    OEMInterface::ResponseBindingPtr m_additions;
};

/// An engine whose hub belongs to the test. Only this hub gets the dispatcher's reports.
struct HubUnit
{
    PlatformScope platformOfTheFacade;
    ServiceDiscovery facade;
    Registry registry{facade};
    PlatformScope platform;
    OpenHub hub{facade};
};

/// Puts the dispatcher that follows the kernel's interfaces into the service locator while it exists.
class NetlinkScope
{
public:
    NetlinkScope() : m_dispatcher(new OEMInterface::NetlinkDispatcher)
    {
        ApplicationServices::getLocator().add(typeid(OEMInterface::OEMDispatcher),
                                              Poco::SharedPtr<OEMInterface::OEMDispatcher>(m_dispatcher));
    }
    ~NetlinkScope() { PlatformScope::withdraw(); }

    NetlinkScope(const NetlinkScope&) = delete;
    NetlinkScope& operator=(const NetlinkScope&) = delete;

    OEMInterface::NetlinkDispatcher& dispatcher() { return *m_dispatcher; }

private:
    Poco::SharedPtr<OEMInterface::NetlinkDispatcher> m_dispatcher;
};

/// A unit on the network, one of several in this process: dispatcher, library and registry in a namespace.
template <class Platform>
class UnitIn
{
public:
    explicit UnitIn(const Namespace& network) : m_network(network)
    {
        const InNamespace inside(m_network);
        m_parts = std::make_unique<Parts>();
    }
    ~UnitIn()
    {
        const InNamespace inside(m_network);
        m_parts.reset();
    }

    UnitIn(const UnitIn&) = delete;
    UnitIn& operator=(const UnitIn&) = delete;

    const Namespace& network() const { return m_network; }
    const Registry& registry() const { return m_parts->registry; }
    /// For requests. Calls that use the network must go through the operations below.
    ServiceDiscovery& discovery() { return m_parts->discovery; }
    auto& dispatcher() { return m_parts->platform.dispatcher(); }

    bool startup(const std::string& address)
    {
        const InNamespace inside(m_network);
        return discovery().startup(Poco::Net::IPAddress(address));
    }
    void shutdown()
    {
        const InNamespace inside(m_network);
        discovery().shutdown();
    }

private:
    struct Parts
    {
        Platform platform;
        ServiceDiscovery discovery;
        Registry registry{discovery};
    };

    const Namespace& m_network;
    std::unique_ptr<Parts> m_parts;
};

/// A unit that finds its interfaces itself.
using NetlinkUnit = UnitIn<NetlinkScope>;

struct OwnNamespace
{
    Namespace own;
};

/// A unit in a separate namespace, whose interfaces the test reports.
class TestUnit : private OwnNamespace, public UnitIn<PlatformScope>
{
public:
    explicit TestUnit(const std::string& name) : OwnNamespace{Namespace(name)}, UnitIn(own) {}

    /// The platform's reports.
    void addInterface(const std::string& name, const std::string& ip)
    {
        const InNamespace inside(network());
        dispatcher().addInterface(name, ip);
    }
    void removeInterface(const std::string& name, const std::string& ip)
    {
        const InNamespace inside(network());
        dispatcher().removeInterface(name, ip);
    }

    /// Gives the interface the address and reports it.
    void useInterface(const std::string& name, const std::string& ip)
    {
        network().addAddress(name, ip + "/64");
        addInterface(name, ip);
    }
};

}  // namespace Nubo::ServiceDiscovery::Testing
