#include "NetlinkMonitor.h"
#include "ReportedInterfaces.h"

#include <Common/CurrentException.h>
#include <Common/OwnProcess.h>
#include <Common/StandardStreamGuard.h>
#include <KELOEMInterfaceLib/NetlinkDispatcher.h>
#include <KELUtilLib/DebugUtils.h>
#include <KELUtilLib/Logging.h>

#include <Poco/Exception.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <new>
#include <system_error>
#include <thread>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace OEMInterface {

namespace {

/// An eventfd that wakes a thread waiting in poll().
class EventDescriptor
{
public:
    EventDescriptor() : m_descriptor(open()) {}
    ~EventDescriptor() { ::close(m_descriptor); }

    EventDescriptor(const EventDescriptor&) = delete;
    EventDescriptor& operator=(const EventDescriptor&) = delete;

    int get() const { return m_descriptor; }
    void raise() const { ::eventfd_write(m_descriptor, 1); }
    void lower() const
    {
        eventfd_t count = 0;
        ::eventfd_read(m_descriptor, &count);
    }

private:
    static int open()
    {
        const Common::StandardStreamGuard guard;
        const int descriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (descriptor < 0)
            throw Poco::IOException("cannot create an event descriptor", errno);
        return descriptor;
    }

    const int m_descriptor;
};

}  // namespace

/// Monitors the kernel on a dedicated thread and reports each change of the selection.
class NetlinkDispatcher::Follower
{
public:
    Follower(NetlinkDispatcher& dispatcher, std::vector<std::string> interfaceNames)
        : m_dispatcher(dispatcher)
        , m_interfaceNames(std::move(interfaceNames))
    {
        report();
        m_thread = std::thread(&Follower::run, this);
    }

    ~Follower()
    {
        // The thread does not exist in a forked child, which shares the descriptor with its parent.
        if (!m_process.isThis()) {
            m_thread.detach();
            return;
        }
        m_isToEnd = true;
        m_wake.raise();
        if (m_thread.get_id() == std::this_thread::get_id())
            m_thread.detach();  // a delegate is ending the process on this thread, which never continues
        else
            m_thread.join();
    }

    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;

private:
    void run()
    {
        DebugUtils::setThreadName("OEMNetlink", "NetlinkDispatcher::run");
        while (!m_isToEnd) {
            try {
                followKernel();
                waitForNews();
            }
            catch (...) {
                logFailure();
                pause();
            }
        }
    }

    void followKernel()
    {
        const Common::NoReturnInChildren whenReported;
        m_monitor.update();
        report();
    }

    /// Blocks until the kernel has sent notices or the follower is woken.
    void waitForNews() const
    {
        std::array<pollfd, 2> descriptors{{{m_monitor.descriptor(), POLLIN, 0}, {m_wake.get(), POLLIN, 0}}};
        if (::poll(descriptors.data(), descriptors.size(), -1) < 0 && errno != EINTR)
            throw Poco::IOException("cannot wait for netlink", std::generic_category().message(errno), errno);
        // Any process that shares the descriptor may have raised it; only m_isToEnd ends the follower.
        if ((descriptors[1].revents & POLLIN) != 0)
            m_wake.lower();
    }

    void report()
    {
        m_reported.follow(
            selectInterfaces(wantedLinks(), m_reported.present()), m_monitor.goneAddresses(),
            [this](const ChosenInterface& one) { m_dispatcher.reportRemoved(one.name, one.ip); },
            [this](const ChosenInterface& one) { m_dispatcher.reportAdded(one.name, one.ip); });
    }

    Links wantedLinks() const
    {
        Links links = m_monitor.links();
        if (!m_interfaceNames.empty()) {
            for (auto link = links.begin(); link != links.end();)
                link = isWanted(link->second.name) ? std::next(link) : links.erase(link);
        }
        return links;
    }

    bool isWanted(const std::string& name) const
    {
        return std::find(m_interfaceNames.begin(), m_interfaceNames.end(), name) != m_interfaceNames.end();
    }

    static void logFailure()
    {
        const Common::NoReturnInChildren whenWritten;
        try {
            Logging::LogStream log(Logging::Log::Logger(), Poco::Message::PRIO_ERROR);
            log.addDefaultOutput(__FILE__, __LINE__);
            log << "Error: NetlinkDispatcher - " << Common::currentException << '\n';
        }
        catch (const std::bad_alloc&) {
            // The first use of the logger allocates memory.
        }
    }

    /// Waits for 1 s, so that a persistent failure logs at most one line per second. Does not wait on the
    /// descriptors, because they may have caused the failure.
    void pause() const
    {
        for (int i = 0; i < 10 && !m_isToEnd; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }

    NetlinkDispatcher& m_dispatcher;
    const std::vector<std::string> m_interfaceNames;
    const Common::OwnProcess m_process;
    NetlinkMonitor m_monitor;
    ReportedInterfaces m_reported;
    const EventDescriptor m_wake;
    std::atomic<bool> m_isToEnd{false};
    std::thread m_thread;
};

NetlinkDispatcher::NetlinkDispatcher(std::vector<std::string> interfaceNames)
    : m_follower(std::make_unique<Follower>(*this, std::move(interfaceNames)))
{}

NetlinkDispatcher::~NetlinkDispatcher() = default;

}  // namespace OEMInterface
