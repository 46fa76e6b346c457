#include "NetlinkMonitor.h"

#include <KELOEMInterfaceLib/NetlinkDispatcher.h>
#include <KELUtilLib/DebugUtils.h>
#include <KELUtilLib/Logging.h>

#include <Poco/Exception.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <thread>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace OEMInterface {

/// Follows the kernel on a thread of its own and reports each change of the selection.
class NetlinkDispatcher::Follower
{
public:
    Follower(NetlinkDispatcher& dispatcher, std::vector<std::string> interfaceNames)
        : m_dispatcher(dispatcher)
        , m_interfaceNames(std::move(interfaceNames))
        , m_stop(::eventfd(0, EFD_CLOEXEC))
    {
        if (m_stop < 0)
            throw Poco::IOException("cannot create an event descriptor", errno);
        report();
        m_thread = std::thread(&Follower::run, this);
    }

    ~Follower()
    {
        ::eventfd_write(m_stop, 1);
        m_thread.join();
        ::close(m_stop);
    }

    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;

private:
    void run()
    {
        DebugUtils::setThreadName("OEMNetlink", "NetlinkDispatcher::run");
        bool goesOn = waitForNews();
        while (goesOn) {
            try {
                m_monitor.update();
                report();
                goesOn = waitForNews();
            }
            catch (const Poco::Exception& exception) {
                goesOn = pauseAfterFailure(exception.displayText());
            }
            catch (const std::exception& exception) {
                goesOn = pauseAfterFailure(exception.what());
            }
        }
    }

    /// Blocks until the kernel has something to tell (true) or the follower is to end (false).
    bool waitForNews() const
    {
        std::array<pollfd, 2> descriptors{{{m_monitor.descriptor(), POLLIN, 0}, {m_stop, POLLIN, 0}}};
        while (::poll(descriptors.data(), descriptors.size(), -1) < 0 && errno == EINTR) {
        }
        return (descriptors[1].revents & POLLIN) == 0;
    }

    void report()
    {
        Selection selection = selectInterfaces(wantedLinks(), m_reported);
        m_reported.swap(selection);
        const auto gone = m_monitor.takeGoneAddresses();
        const auto stays = [&](const Selection& others, int index, const ChosenInterface& one) {
            const auto other = others.find(index);
            return other != others.end() && other->second == one && gone.count({index, one.ip}) == 0;
        };
        for (const auto& [index, before] : selection) {
            if (!stays(m_reported, index, before))
                m_dispatcher.reportRemoved(before.name, before.ip);
        }
        for (const auto& [index, now] : m_reported) {
            if (!stays(selection, index, now))
                m_dispatcher.reportAdded(now.name, now.ip);
        }
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

    /// Tells of the failure and waits a second, so that a lasting one costs no more than a line a second.
    bool pauseAfterFailure(const std::string& text) const
    {
        {
            Logging::LogStream log(Logging::Log::Logger(), Poco::Message::PRIO_ERROR);
            log.addDefaultOutput(__FILE__, __LINE__);
            log << "Error: NetlinkDispatcher - " << text << '\n';
        }
        constexpr int pauseMs = 1000;
        pollfd stop{m_stop, POLLIN, 0};
        return ::poll(&stop, 1, pauseMs) <= 0;
    }

    NetlinkDispatcher& m_dispatcher;
    const std::vector<std::string> m_interfaceNames;
    NetlinkMonitor m_monitor;
    Selection m_reported;
    const int m_stop;
    std::thread m_thread;
};

NetlinkDispatcher::NetlinkDispatcher(std::vector<std::string> interfaceNames)
    : m_follower(std::make_unique<Follower>(*this, std::move(interfaceNames)))
{}

NetlinkDispatcher::~NetlinkDispatcher() = default;

}  // namespace OEMInterface
