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
                    "is up, can multicast, is not loopback and has an IPv6 address; changes are followed")
        ->type_name("NAME")
        ->allow_extra_args(false);
    commandLine
        .add_option("-a,--address", common.address,
                    "This unit's address. Default: a global address of the first interface, or its "
                    "link-local one if it has none")
        ->type_name("IPv6");
    commandLine.add_flag("--json", common.json, "Print one JSON object per line instead of text");
    commandLine
        .add_option(
            "--log-level", common.logLevel,
            "Write log messages of the library to standard error, down to this level: error, warning, "
            "notice, debug or trace")
        ->type_name("LEVEL")
        ->check(CLI::IsMember({"error", "warning", "notice", "debug", "trace"}))
        ->capture_default_str();
    addSeconds(commandLine, "--duration", common.duration,
               "Exit after this many seconds. Default: run until SIGINT or SIGTERM");
}

void addTimeOption(CLI::App& commandLine, bool& withTime)
{
    commandLine.add_flag(
        "--time", withTime,
        "Print the time of each event: in text, local time at the start of the line; in JSON, UTC "
        "as \"time\"");
}

void addReportOptions(CLI::App& commandLine, ReportOptions& options)
{
    addTimeOption(commandLine, options.withTime);
    commandLine.add_flag("--no-live", options.noLive,
                         "Print one line per event even if the terminal can show a table");
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
