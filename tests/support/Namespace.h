#pragma once

#include <map>
#include <string>
#include <vector>

/// Network namespaces for tests that need a network. They require a process started by
/// support/in-namespace.sh.
namespace Nubo::ServiceDiscovery::Testing {

/// Runs a command line in the shell. Throws std::runtime_error with the command in its text if it fails.
void shell(const std::string& command);

/// The same; returns what the command prints.
std::string shellOutput(const std::string& command);

/// A network namespace that exists as long as the object. Addresses can be used at once: duplicate address
/// detection is off unless a test switches it on.
class Namespace
{
public:
    explicit Namespace(const std::string& name);
    ~Namespace();

    Namespace(const Namespace&) = delete;
    Namespace& operator=(const Namespace&) = delete;

    const std::string& name() const { return m_name; }
    int descriptor() const { return m_descriptor; }

    /// `ip -n <name> <arguments>`, and the same with `tc`
    void ip(const std::string& arguments) const;
    void tc(const std::string& arguments) const;

    /// Gives the interface an address, which can be used at once.
    void addAddress(const std::string& interface, const std::string& address) const;

    /// Sets net.ipv6.conf.<key>, "all/disable_ipv6" for example.
    void setIPv6(const std::string& key, const std::string& value) const;

private:
    const std::string m_name;
    int m_descriptor;
};

/// Puts the calling thread, and the threads that it starts meanwhile, into a namespace.
class InNamespace
{
public:
    explicit InNamespace(const Namespace& target);
    ~InNamespace();

    InNamespace(const InNamespace&) = delete;
    InNamespace& operator=(const InNamespace&) = delete;

private:
    const int m_former;
};

/// Joins two namespaces by a pair of interfaces that are up.
void connect(const Namespace& one, const std::string& interfaceOne, const Namespace& other,
             const std::string& interfaceOther);

/// Two namespaces to be joined, "here" and "there", with the calling thread in "here". Their interfaces have
/// only the addresses that a test gives them.
class NetworkPair
{
public:
    Namespace here{"here"};
    Namespace there{"there"};

    NetworkPair();

    /// Joins the two by an interface that has this name on either side, with an address on one or both.
    void link(const std::string& interface, const std::string& addressHere = "",
              const std::string& addressThere = "") const;

private:
    const InNamespace m_inside{here};
};

/// A switched segment for the ports of any number of units.
class Segment
{
public:
    Segment();

    /// Gives the namespace an interface on the segment that is up.
    void plug(const Namespace& unit, const std::string& interface);

private:
    Namespace m_switch{"switch"};
    int m_ports = 0;
};

/// The names of the interfaces on which any socket of the calling thread's namespace has joined the discovery
/// group, in alphabetical order.
std::vector<std::string> joinedInterfaces();

/// Number of datagrams dropped because a socket's buffer was full.
std::size_t lostDatagrams(const Namespace& network);

/// Number of sockets that have joined the discovery group in the calling thread's namespace, by interface.
std::map<std::string, unsigned> groupUsers();

}  // namespace Nubo::ServiceDiscovery::Testing
