// A custom dispatcher. A platform that knows better than the kernel which interfaces to use registers one in
// the service locator. This one reports the interface given on its command line and prints event memory
// entries to standard output. If you need no more than that, use OEMInterface::ManualDispatcher.
//
//     bin/example-dispatcher INTERFACE ADDRESS SECONDS     (eth0 fd00::1 10)

#include <KELOEMInterfaceLib/OEMDispatcherCalls.h>
#include <KELUtilLib/ApplicationServices.h>

#include <Poco/Any.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <ServiceDiscovery.h>

namespace {

/// The delegates bound to one kind of report, each until its binding ends.
template <class Payload>
class Bindings
{
public:
    using Delegate = Poco::AbstractDelegate<Payload>;

    OEMInterface::ResponseBindingPtr add(const Delegate& delegate)
    {
        const std::lock_guard<std::recursive_mutex> lock(m_state->mutex);
        const std::shared_ptr<Delegate> copy(delegate.clone());
        m_state->delegates.push_back(copy);
        return new Binding(m_state, copy);
    }

    void report(const void* sender, Payload payload) const
    {
        const std::lock_guard<std::recursive_mutex> lock(m_state->mutex);
        const auto delegates = m_state->delegates;  // a delegate may bind another one
        for (const auto& delegate : delegates)
            delegate->notify(sender, payload);
    }

private:
    struct State
    {
        std::recursive_mutex mutex;  // locked during a report, so that the end of a binding waits for it
        std::vector<std::shared_ptr<Delegate>> delegates;
    };

    class Binding : public OEMInterface::ResponseBinding
    {
    public:
        Binding(std::shared_ptr<State> state, std::shared_ptr<Delegate> delegate)
            : m_state(std::move(state))
            , m_delegate(std::move(delegate))
        {}
        ~Binding() override
        {
            const std::lock_guard<std::recursive_mutex> lock(m_state->mutex);
            auto& all = m_state->delegates;
            all.erase(std::remove(all.begin(), all.end(), m_delegate), all.end());
        }

    private:
        const std::shared_ptr<State> m_state;  // a binding may outlive the dispatcher
        const std::shared_ptr<Delegate> m_delegate;
    };

    const std::shared_ptr<State> m_state = std::make_shared<State>();
};

class OneInterface : public OEMInterface::OEMDispatcher
{
public:
    using Added = OEMInterface::AddServiceDiscoveryInterfacePayload;
    using Removed = OEMInterface::RemoveServiceDiscoveryInterfacePayload;

    OneInterface(std::string name, std::string address)
        : m_name(std::move(name))
        , m_address(std::move(address))
    {}

    /// Reports the present interface to the new delegate at once.
    OEMInterface::ResponseBindingPtr bindResponse(const Poco::AbstractDelegate<Added>& delegate) override
    {
        OEMInterface::ResponseBindingPtr binding = m_added.add(delegate);
        Added payload{{m_name.c_str(), m_address.c_str()}};
        const std::unique_ptr<Poco::AbstractDelegate<Added>> newcomer(delegate.clone());
        newcomer->notify(this, payload);
        std::cout << "reported " << m_name << ' ' << m_address << std::endl;
        return binding;
    }

    OEMInterface::ResponseBindingPtr bindResponse(const Poco::AbstractDelegate<Removed>& delegate) override
    {
        return m_removed.add(delegate);
    }

    void callLogEvent(char const* name, char const* protocol, char const* ip, unsigned short port) override
    {
        std::cout << "event memory: " << name << ' ' << protocol << " [" << ip << "]:" << port << std::endl;
    }

    /// A platform would call this when the interface is removed.
    void remove() { m_removed.report(this, {{m_name.c_str(), m_address.c_str()}}); }

private:
    const std::string m_name;
    const std::string m_address;
    Bindings<Added> m_added;
    Bindings<Removed> m_removed;
};

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::cerr << "usage: example-dispatcher INTERFACE ADDRESS SECONDS" << std::endl;
        return 2;
    }
    Poco::SharedPtr<OneInterface> dispatcher = new OneInterface(argv[1], argv[2]);
    ApplicationServices::getLocator().add(typeid(OEMInterface::OEMDispatcher),
                                          Poco::SharedPtr<OEMInterface::OEMDispatcher>(dispatcher));
    Nubo::ServiceDiscovery::ServiceDiscovery discovery;
    if (!discovery.startup(Poco::Net::IPAddress(argv[2])))
        return 1;
    std::this_thread::sleep_for(std::chrono::seconds(std::stoi(argv[3])));
    discovery.shutdown();
    dispatcher->remove();
    return 0;
}
