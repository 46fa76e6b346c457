// A custom log sink. The library and the platform libraries share one logger, and its channel writes the
// messages. This program sends them to syslog, with source file and line. Any other Poco::Channel can be set
// the same way.
//
//     bin/example-syslog ADDRESS SECONDS     (this unit's IPv6 address; exits after SECONDS)
//     journalctl -t nubo                     (or /var/log/syslog)

#include <KELOEMInterfaceLib/OEMDispatcher.h>
#include <KELUtilLib/ApplicationServices.h>
#include <KELUtilLib/Logging.h>

#include <Poco/Any.h>
#include <Poco/AutoPtr.h>
#include <Poco/FormattingChannel.h>
#include <Poco/PatternFormatter.h>
#include <Poco/SyslogChannel.h>

#include <chrono>
#include <iostream>
#include <string>
#include <thread>

#include <ServiceDiscovery.h>

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::cerr << "usage: example-syslog ADDRESS SECONDS" << std::endl;
        return 2;
    }
    using Poco::SyslogChannel;
    // SYSLOG_PERROR writes each message to standard error as well.
    const Poco::AutoPtr<Poco::Channel> syslog = new SyslogChannel(
        "nubo", SyslogChannel::SYSLOG_PID | SyslogChannel::SYSLOG_PERROR, SyslogChannel::SYSLOG_DAEMON);
    const Poco::AutoPtr<Poco::Formatter> format = new Poco::PatternFormatter("%U:%u %t");
    Poco::Logger& logger = Logging::Log::Logger();
    logger.setChannel(new Poco::FormattingChannel(format, syslog));
    logger.setLevel(Poco::Message::PRIO_DEBUG);

    ApplicationServices::getLocator().add(
        typeid(OEMInterface::OEMDispatcher),
        Poco::SharedPtr<OEMInterface::OEMDispatcher>(new OEMInterface::NetlinkDispatcher));
    Nubo::ServiceDiscovery::ServiceDiscovery discovery;
    if (!discovery.startup(Poco::Net::IPAddress(argv[1])))
        return 1;
    std::this_thread::sleep_for(std::chrono::seconds(std::stoi(argv[2])));
    discovery.shutdown();
    return 0;
}
