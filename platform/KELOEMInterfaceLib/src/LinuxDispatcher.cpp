#include <Common/CurrentException.h>
#include <Common/OwnProcess.h>
#include <KELOEMInterfaceLib/LinuxDispatcher.h>
#include <KELUtilLib/Logging.h>

#include <algorithm>
#include <array>
#include <deque>
#include <mutex>
#include <new>
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
    const Common::NoReturnInChildren whenWritten;
    try {
        Logging::LogStream log(Logging::Log::Logger(), Poco::Message::PRIO_ERROR);
        log.addDefaultOutput(__FILE__, __LINE__);
        log << "Error: LinuxDispatcher - a delegate failed to " << what << " the interface \"" << name
            << "\" @ [" << ip << "]: " << Common::currentException << '\n';
    }
    catch (const std::bad_alloc&) {
        // The first use of the logger allocates memory.
    }
}

const char* verbOf(const AddServiceDiscoveryInterfacePayload&)
{
    return "add";
}

const char* verbOf(const RemoveServiceDiscoveryInterfacePayload&)
{
    return "remove";
}

/// Delivers one report to one delegate. Logs all exceptions, because the others must still get the report.
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
/// A Poco event would lock each delegate while it runs: a delegate that calls the dispatcher and a thread
/// that ends the delegate's binding could then deadlock.
template <class Payload>
class Delegates
{
public:
    using Ptr = std::shared_ptr<Poco::AbstractDelegate<Payload>>;

    void bind(const Ptr& delegate) { m_bound.push_back(delegate); }

    /// Allocates nothing, because the end of a binding cannot report a failure.
    void unbind(const Ptr& delegate)
    {
        const auto found = std::find(m_bound.begin(), m_bound.end(), delegate);
        if (m_deliveries == 0)
            m_bound.erase(found);
        else
            found->reset();  // a delivery in progress relies on the positions of the others
    }

    /// Delivers to the delegates that are bound now. Allocates nothing, so no delegate is left out when
    /// memory is short.
    void notify(const void* sender, const std::string& name, const std::string& ip)
    {
        // A delegate may bind others, end bindings and cause another report.
        ++m_deliveries;
        const std::size_t count = m_bound.size();
        for (std::size_t i = 0; i < count; ++i) {
            if (const Ptr one = m_bound[i])
                deliver(*one, sender, name, ip);
        }
        if (--m_deliveries == 0)
            m_bound.erase(std::remove(m_bound.begin(), m_bound.end(), nullptr), m_bound.end());
    }

private:
    std::vector<Ptr> m_bound;  // null where a binding has ended during a delivery
    unsigned m_deliveries = 0;
};

/// Parses an IPv6 address in any spelling, ignoring its scope ("fe80::1%eth0"). Returns none if the text is
/// not an IPv6 address.
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

}  // namespace

struct LinuxDispatcher::State
{
    // Locked while a report is delivered, so that reports keep their order, a new binding misses none and an
    // ended one receives none.
    std::recursive_mutex delivery;
    Delegates<AddServiceDiscoveryInterfacePayload> added;
    Delegates<RemoveServiceDiscoveryInterfacePayload> removed;
    std::vector<Interface> interfaces;

    bool isReported(const std::string& name, const std::string& ip) const
    {
        return std::any_of(interfaces.begin(), interfaces.end(),
                           [&](const Interface& one) { return isSame(one, name, ip); });
    }

    const Common::OwnProcess process;

    mutable std::mutex eventMemoryMutex;
    std::deque<LogEntry> eventMemory;
};

namespace {

const char* orEmpty(const char* text)
{
    return text ? text : "";
}

/// Keeps one delegate bound. Its destructor waits for a delivery in progress.
template <class State, class Payload>
class DelegateBinding : public ResponseBinding
{
public:
    using DelegatePtr = typename Delegates<Payload>::Ptr;

    DelegateBinding(std::shared_ptr<State> state, Delegates<Payload>& delegates, DelegatePtr delegate)
        : m_state(std::move(state))
        , m_delegates(delegates)
        , m_delegate(std::move(delegate))
    {
        const std::lock_guard<std::recursive_mutex> lock(m_state->delivery);
        m_delegates.bind(m_delegate);
    }

    ~DelegateBinding() override
    {
        std::unique_lock<std::recursive_mutex> lock(m_state->delivery, std::defer_lock);
        if (m_state->process.isThis())
            lock.lock();
        else if (!lock.try_lock())
            return;  // a forked child: the delivering thread exists in the parent only
        m_delegates.unbind(m_delegate);
    }

private:
    const std::shared_ptr<State> m_state;
    Delegates<Payload>& m_delegates;
    const DelegatePtr m_delegate;
};

}  // namespace

LinuxDispatcher::LinuxDispatcher() : m_state(std::make_shared<State>()) {}

LinuxDispatcher::~LinuxDispatcher() = default;

ResponseBindingPtr LinuxDispatcher::bindResponse(
    const Poco::AbstractDelegate<AddServiceDiscoveryInterfacePayload>& delegate)
{
    const std::lock_guard<std::recursive_mutex> lock(m_state->delivery);
    const auto standing = interfaces();
    const Delegates<AddServiceDiscoveryInterfacePayload>::Ptr copy(delegate.clone());
    ResponseBindingPtr binding =
        new DelegateBinding<State, AddServiceDiscoveryInterfacePayload>(m_state, m_state->added, copy);
    for (const Interface& one : standing) {
        // A delegate may have removed the interface meanwhile.
        if (m_state->isReported(one.name, one.ip))
            deliver(*copy, this, one.name, one.ip);
    }
    return binding;
}

ResponseBindingPtr LinuxDispatcher::bindResponse(
    const Poco::AbstractDelegate<RemoveServiceDiscoveryInterfacePayload>& delegate)
{
    const Delegates<RemoveServiceDiscoveryInterfacePayload>::Ptr copy(delegate.clone());
    return new DelegateBinding<State, RemoveServiceDiscoveryInterfacePayload>(m_state, m_state->removed,
                                                                              copy);
}

void LinuxDispatcher::callLogEvent(char const* name, char const* protocol, char const* ip,
                                   unsigned short port)
{
    Poco::Logger& logger = Logging::Log::Logger();  // first, because its first use may throw std::bad_alloc
    {
        const std::lock_guard<std::mutex> lock(m_state->eventMemoryMutex);
        m_state->eventMemory.push_back({orEmpty(name), orEmpty(protocol), orEmpty(ip), port});
        if (m_state->eventMemory.size() > maxLogEntries)
            m_state->eventMemory.pop_front();
    }
    Logging::LogStream log(logger, Poco::Message::PRIO_NOTICE);
    log.addDefaultOutput(__FILE__, __LINE__);
    log << "Notice: Event memory: " << orEmpty(protocol) << " service \"" << orEmpty(name) << "\" @ ["
        << orEmpty(ip) << "]:" << port << '\n';
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
