#pragma once

#include <Poco/Message.h>
#include <Poco/Net/IPAddress.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace NuboSd {

/// The options that every subcommand understands.
struct CommonOptions
{
    std::vector<std::string> interfaces;  ///< empty: all
    std::string address;                  ///< empty: that of the first interface
    bool json = false;
    std::string logLevel = "warning";
    std::optional<double> duration;  ///< seconds; without it until a signal
};

/// A subcommand of the tool. `setUp` adds its options to its part of the command line and returns what runs
/// it; the result is the exit code.
struct Subcommand
{
    using Run = std::function<int()>;

    const char* name;
    const char* summary;
    Run (*setUp)(CLI::App& commandLine, const CommonOptions& common);
};

// One file each.
Subcommand::Run setUpAnnounce(CLI::App& commandLine, const CommonOptions& common);
Subcommand::Run setUpBrowse(CLI::App& commandLine, const CommonOptions& common);
Subcommand::Run setUpCheck(CLI::App& commandLine, const CommonOptions& common);
Subcommand::Run setUpDoctor(CLI::App& commandLine, const CommonOptions& common);
Subcommand::Run setUpFind(CLI::App& commandLine, const CommonOptions& common);
Subcommand::Run setUpMonitor(CLI::App& commandLine, const CommonOptions& common);

/// Adds an option that takes a time in seconds, which must be above 0.
CLI::Option* addSeconds(CLI::App& commandLine, const std::string& name, double& target,
                        const std::string& description);
CLI::Option* addSeconds(CLI::App& commandLine, const std::string& name, std::optional<double>& target,
                        const std::string& description);

void addCommonOptions(CLI::App& commandLine, CommonOptions& common);

/// Adds the option of those who print events.
void addTimeOption(CLI::App& commandLine, bool& withTime);

/// The priority that stands behind a name of --log-level.
Poco::Message::Priority logPriority(const std::string& level);

/// Reads an IPv6 address that another unit can reach; `what` names it in the error. Throws UsageError.
Poco::Net::IPAddress parseUnicastAddress(const std::string& text, const std::string& what);

}  // namespace NuboSd
