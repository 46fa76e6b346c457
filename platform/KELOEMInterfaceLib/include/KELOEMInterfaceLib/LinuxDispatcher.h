#pragma once

#include <KELOEMInterfaceLib/OEMDispatcherCalls.h>

#include <memory>
#include <string>
#include <vector>

namespace OEMInterface {

/// Common part of the Linux edition's dispatchers: the bound delegates, the interfaces reported as present,
/// and the event memory, which is kept here and written to the log. All operations are thread-safe.
///
/// Reports are delivered one after the other; a delegate may call the dispatcher. If a delegate causes a
/// report, it is delivered at once, so delegates bound later receive it before the report in progress. All
/// exceptions from a delegate are logged as errors: the other delegates still receive the report, and the
/// delegate still receives later ones.
///
/// When memory is short, binding a delegate and adding an interface throw std::bad_alloc without delivering
/// or changing anything, and the call can be repeated. Removing an interface and ending a binding allocate
/// nothing. A binding can also be ended in a forked child.
class KEL_OEM_EXPORT LinuxDispatcher : public OEMDispatcher
{
public:
    struct Interface
    {
        std::string name;
        std::string ip;
    };

    struct LogEntry
    {
        std::string name;
        std::string protocol;
        std::string ip;
        unsigned short port;
    };

    ~LinuxDispatcher() override;

    ResponseBindingPtr bindResponse(
        const Poco::AbstractDelegate<AddServiceDiscoveryInterfacePayload>& delegate) override;
    ResponseBindingPtr bindResponse(
        const Poco::AbstractDelegate<RemoveServiceDiscoveryInterfacePayload>& delegate) override;
    /// Treats null as an empty text. Throws std::bad_alloc and writes nothing when memory is short.
    void callLogEvent(char const* name, char const* protocol, char const* ip, unsigned short port) override;

    /// Returns the interfaces reported as present, each once, in the order and with the texts of their first
    /// reports. Reports with the same name and address refer to one interface, regardless of the address's
    /// spelling and scope. Texts that are not IPv6 addresses are compared literally.
    std::vector<Interface> interfaces() const;

    /// Returns the newest entries of the event memory, oldest first, at most `maxLogEntries`.
    std::vector<LogEntry> logEntries() const;
    static constexpr std::size_t maxLogEntries = 1000;

protected:
    LinuxDispatcher();

    /// Delivers the report to all delegates, even if the interface was reported before.
    void reportAdded(const std::string& name, const std::string& ip);
    /// The same for an interface that is gone. The address "::", in any spelling, refers to all interfaces.
    void reportRemoved(const std::string& name, const std::string& ip);

private:
    struct State;
    std::shared_ptr<State> m_state;  // shared with the bindings, which may outlive the dispatcher
};

}  // namespace OEMInterface
