#pragma once

#include <KELOEMInterfaceLib/OEMDispatcherCalls.h>

#include <memory>
#include <string>
#include <vector>

namespace OEMInterface {

/// The common part of the Linux edition's dispatchers: the bound delegates, the interfaces that are reported
/// as present, and the event memory, which is kept here and written to the log. All operations are
/// thread-safe.
///
/// Reports are delivered one after the other; a delegate may call the dispatcher. A report that a delegate
/// makes is delivered at once, to delegates bound later before the one that is under way. An exception from a
/// delegate, of any type, is logged as an error: the other delegates still get the report, and that delegate
/// gets all further ones.
///
/// When memory is short, binding a delegate and adding an interface throw std::bad_alloc and leave everything
/// as it was: nothing was delivered, and the call can be repeated. Removing an interface and ending a binding
/// need no memory. A binding can also be ended in a forked child.
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
    /// Null counts as an empty text. Throws std::bad_alloc when memory is short, with nothing written.
    void callLogEvent(char const* name, char const* protocol, char const* ip, unsigned short port) override;

    /// The interfaces that are reported as present, each once, in the order and with the texts of their first
    /// reports. Reports with the same name and the same address are about one interface, however the address
    /// is spelled and with or without its scope; texts that are no IPv6 address are compared as they are.
    std::vector<Interface> interfaces() const;

    /// The newest entries of the event memory, oldest first, at most `maxLogEntries` of them.
    std::vector<LogEntry> logEntries() const;
    static constexpr std::size_t maxLogEntries = 1000;

protected:
    LinuxDispatcher();

    /// Delivers the report to all delegates, also when the interface was reported before.
    void reportAdded(const std::string& name, const std::string& ip);
    /// The same for an interface that is gone; all are if the address is "::", in any spelling.
    void reportRemoved(const std::string& name, const std::string& ip);

private:
    struct State;
    std::shared_ptr<State> m_state;  // shared with the bindings, which may outlive the dispatcher
};

}  // namespace OEMInterface
