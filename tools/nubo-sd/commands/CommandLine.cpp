#include "commands/CommandLine.h"

#include "terminal/ServiceReport.h"

#include <Poco/NumberParser.h>

#include <map>

#include <CLI/CLI.hpp>

namespace NuboSd {

namespace {

const std::map<std::string, Poco::Message::Priority> logLevels{{"error", Poco::Message::PRIO_ERROR},
                                                               {"warning", Poco::Message::PRIO_WARNING},
                                                               {"notice", Poco::Message::PRIO_NOTICE},
                                                               {"debug", Poco::Message::PRIO_DEBUG},
                                                               {"trace", Poco::Message::PRIO_TRACE}};

/// Why a text is not a time in seconds; empty if it is one.
std::string faultOfSeconds(const std::string& text)
{
    double seconds = 0;
    const bool isGood = Poco::NumberParser::tryParseFloat(text, seconds) && seconds > 0;
    return isGood ? std::string() : "\"" + text + "\" is not a number of seconds above 0";
}

CLI::Option* asSeconds(CLI::Option* option)
{
    return option->type_name("SECONDS")->check(faultOfSeconds);
}

}  // namespace

void addCommonOptions(CLI::App& commandLine, CommonOptions& common)
{
    commandLine
        .add_option("-i,--interface", common.interfaces,
                    "Announce and listen on this interface only; repeatable. Default: every interface that "
                    "is up, can multicast, is not loopback and has an IPv6 address, followed as they come "
                    "and go")
        ->type_name("NAME")
        ->allow_extra_args(false);
    commandLine
        .add_option("-a,--address", common.address,
                    "This unit's address. Default: a global address of the first interface, else its "
                    "link-local one")
        ->type_name("IPv6");
    commandLine.add_flag("--json", common.json, "Print one JSON object a line instead of text");
    commandLine
        .add_option("--log-level", common.logLevel,
                    "How much of the library's log to write to standard error: error, warning, notice, "
                    "debug or trace")
        ->type_name("LEVEL")
        ->check(CLI::IsMember({"error", "warning", "notice", "debug", "trace"}))
        ->capture_default_str();
    addSeconds(commandLine, "--duration", common.duration,
               "End by itself after this long; without it until SIGINT or SIGTERM");
}

void addTimeOption(CLI::App& commandLine, bool& withTime)
{
    commandLine.add_flag("--time", withTime,
                         "Print the time of each event: local in front of text, in UTC as \"time\" in JSON");
}

void addReportOptions(CLI::App& commandLine, ReportOptions& options)
{
    addTimeOption(commandLine, options.withTime);
    commandLine.add_flag("--no-live", options.noLive,
                         "Print a line for each event also where a terminal could show a table");
}

CLI::Option* addSeconds(CLI::App& commandLine, const std::string& name, double& target,
                        const std::string& description)
{
    return asSeconds(commandLine.add_option(name, target, description));
}

CLI::Option* addSeconds(CLI::App& commandLine, const std::string& name, std::optional<double>& target,
                        const std::string& description)
{
    return asSeconds(commandLine.add_option(name, target, description));
}

Poco::Message::Priority logPriority(const std::string& level)
{
    return logLevels.at(level);
}

}  // namespace NuboSd
