#include <KELOEMInterfaceLib/LinuxDispatcher.h>
#include <KELUtilLib/Logging.h>

#include <algorithm>
#include <array>
#include <deque>
#include <mutex>
#include <optional>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>

namespace OEMInterface {

ResponseBinding::~ResponseBinding() = default;
OEMDispatcherAsyncCallDefinitions::~OEMDispatcherAsyncCallDefinitions() = default;
OEMDispatcherSyncCallDefinitions::~OEMDispatcherSyncCallDefinitions() = default;

namespace {

void logFailure(const char* what, const std::string& name, const std::string& ip)
{
    Logging::LogStream log(Logging::Log::Logger(), Poco::Message::PRIO_ERROR);
    log.addDefaultOutput(__FILE__, __LINE__);
    log << "Error: LinuxDispatcher - a delegate failed to " << what << " the interface \"" << name << "\" @ ["
        << ip << "]: " << Logging::currentException << '\n';
}

const char* verbOf(const AddServiceDiscoveryInterfacePayload&)
{
    return "add";
}

const char* verbOf(const RemoveServiceDiscoveryInterfacePayload&)
{
    return "remove";
}

/// Delivers one report to one delegate. An exception ends here: it must not cost others their report.
template <class Payload>
void deliver(Poco::AbstractDelegate<Payload>& delegate, const void* sender, const std::string& name,
             const std::string& ip)
{
    Payload payload{{name.c_str(), ip.c_str()}};
    try {
        delegate.notify(sender, payload);
    }
    catch (...) {
        logFailure(verbOf(payload), name, ip);
    }
}

/// The delegates bound to one kind of report. Guarded by the dispatcher's delivery mutex.
///
/// Not a Poco event: that locks each delegate while it runs, so that a delegate which calls the dispatcher
/// and a thread which ends the delegate's binding could wait for each other.
template <class Payload>
struct Delegates
{
    using Ptr = std::shared_ptr<Poco::AbstractDelegate<Payload>>;

    void notify(const void* sender, const std::string& name, const std::string& ip)
    {
        // A delegate may bind further ones, and end bindings.
        const std::vector<Ptr> snapshot = bound;
        for (const Ptr& one : snapshot) {
            if (std::find(bound.begin(), bound.end(), one) != bound.end())
                deliver(*one, sender, name, ip);
        }
    }

    std::vector<Ptr> bound;
};

}  // namespace

struct LinuxDispatcher::State
{
    // Held while a report is delivered, so that reports keep their order, a new binding misses none and an
    // ended one gets none.
    std::recursive_mutex delivery;
    Delegates<AddServiceDiscoveryInterfacePayload> added;
    Delegates<RemoveServiceDiscoveryInterfacePayload> removed;
    std::vector<Interface> interfaces;

    mutable std::mutex eventMemoryMutex;
    std::deque<LogEntry> eventMemory;
};

namespace {

/// The address that the text stands for, whatever its spelling and its scope ("fe80::1%eth0"); nothing if the
/// text is no IPv6 address.
std::optional<in6_addr> addressOf(const std::string& text)
{
    const std::size_t size = std::min(text.find('%'), text.size());
    std::array<char, INET6_ADDRSTRLEN> withoutScope{};
    in6_addr address{};
    if (size >= withoutScope.size())
        return std::nullopt;
    std::copy_n(text.begin(), size, withoutScope.begin());
    if (::inet_pton(AF_INET6, withoutScope.data(), &address) != 1)
        return std::nullopt;
    return address;
}

bool isWildcard(const std::string& ip)
{
    const std::optional<in6_addr> address = addressOf(ip);
    return address && IN6_IS_ADDR_UNSPECIFIED(&*address);
}

bool isSameAddress(const std::string& one, const std::string& other)
{
    const std::optional<in6_addr> addressOfOne = addressOf(one);
    const std::optional<in6_addr> addressOfOther = addressOf(other);
    if (!addressOfOne || !addressOfOther)
        return one == other;
    return IN6_ARE_ADDR_EQUAL(&*addressOfOne, &*addressOfOther);
}

bool isSame(const LinuxDispatcher::Interface& interface, const std::string& name, const std::string& ip)
{
    return interface.name == name && isSameAddress(interface.ip, ip);
}

const char* orEmpty(const char* text)
{
    return text ? text : "";
}

/// Holds one delegate. Taking it off waits for a delivery to end.
template <class State, class Payload>
class DelegateBinding : public ResponseBinding
{
public:
    DelegateBinding(std::shared_ptr<State> state, Delegates<Payload>& delegates,
                    const Poco::AbstractDelegate<Payload>& delegate)
        : m_state(std::move(state))
        , m_delegates(delegates)
        , m_delegate(delegate.clone())
    {
        const std::lock_guard<std::recursive_mutex> lock(m_state->delivery);
        m_delegates.bound.push_back(m_delegate);
    }

    ~DelegateBinding() override
    {
        const std::lock_guard<std::recursive_mutex> lock(m_state->delivery);
        auto& bound = m_delegates.bound;
        bound.erase(std::find(bound.begin(), bound.end(), m_delegate));
    }

private:
    const std::shared_ptr<State> m_state;
    Delegates<Payload>& m_delegates;
    const typename Delegates<Payload>::Ptr m_delegate;
};

}  // namespace

LinuxDispatcher::LinuxDispatcher() : m_state(std::make_shared<State>()) {}

LinuxDispatcher::~LinuxDispatcher() = default;

ResponseBindingPtr LinuxDispatcher::bindResponse(
    const Poco::AbstractDelegate<AddServiceDiscoveryInterfacePayload>& delegate)
{
    const std::lock_guard<std::recursive_mutex> lock(m_state->delivery);
    ResponseBindingPtr binding =
        new DelegateBinding<State, AddServiceDiscoveryInterfacePayload>(m_state, m_state->added, delegate);

    const std::unique_ptr<Poco::AbstractDelegate<AddServiceDiscoveryInterfacePayload>> copy(delegate.clone());
    for (const Interface& standing : interfaces())
        deliver(*copy, this, standing.name, standing.ip);
    return binding;
}

ResponseBindingPtr LinuxDispatcher::bindResponse(
    const Poco::AbstractDelegate<RemoveServiceDiscoveryInterfacePayload>& delegate)
{
    return new DelegateBinding<State, RemoveServiceDiscoveryInterfacePayload>(m_state, m_state->removed,
                                                                              delegate);
}

void LinuxDispatcher::callLogEvent(char const* name, char const* protocol, char const* ip,
                                   unsigned short port)
{
    const LogEntry entry{orEmpty(name), orEmpty(protocol), orEmpty(ip), port};
    {
        Logging::LogStream log(Logging::Log::Logger(), Poco::Message::PRIO_NOTICE);
        log.addDefaultOutput(__FILE__, __LINE__);
        log << "Notice: Event memory: " << entry.protocol << " service \"" << entry.name << "\" @ ["
            << entry.ip << "]:" << port << '\n';
    }
    const std::lock_guard<std::mutex> lock(m_state->eventMemoryMutex);
    m_state->eventMemory.push_back(entry);
    if (m_state->eventMemory.size() > maxLogEntries)
        m_state->eventMemory.pop_front();
}

std::vector<LinuxDispatcher::Interface> LinuxDispatcher::interfaces() const
{
    const std::lock_guard<std::recursive_mutex> lock(m_state->delivery);
    return m_state->interfaces;
}

std::vector<LinuxDispatcher::LogEntry> LinuxDispatcher::logEntries() const
{
    const std::lock_guard<std::mutex> lock(m_state->eventMemoryMutex);
    return {m_state->eventMemory.begin(), m_state->eventMemory.end()};
}

void LinuxDispatcher::reportAdded(const std::string& name, const std::string& ip)
{
    const std::lock_guard<std::recursive_mutex> lock(m_state->delivery);
    auto& standing = m_state->interfaces;
    if (std::none_of(standing.begin(), standing.end(),
                     [&](const auto& one) { return isSame(one, name, ip); }))
        standing.push_back({name, ip});
    m_state->added.notify(this, name, ip);
}

void LinuxDispatcher::reportRemoved(const std::string& name, const std::string& ip)
{
    const std::lock_guard<std::recursive_mutex> lock(m_state->delivery);
    auto& standing = m_state->interfaces;
    const bool all = isWildcard(ip);
    standing.erase(std::remove_if(standing.begin(), standing.end(),
                                  [&](const auto& one) { return all || isSame(one, name, ip); }),
                   standing.end());
    m_state->removed.notify(this, name, ip);
}

}  // namespace OEMInterface
