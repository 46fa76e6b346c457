#pragma once

#include "unit/UnitOptions.h"

#include <Poco/Message.h>

#include <functional>
#include <optional>
#include <string>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace NuboSd {

struct ReportOptions;

/// The options that every subcommand understands.
struct CommonOptions : UnitOptions
{
    bool json = false;
    std::string logLevel = "warning";
};

/// A subcommand of the tool. `setUp` adds its options to its part of the command line and returns the
/// function that runs it and returns the exit code.
struct Subcommand
{
    using Run = std::function<int()>;

    const char* name;
    const char* summary;
    Run (*setUp)(CLI::App& commandLine, const CommonOptions& common);
};

/// Adds an option that takes a time in seconds, which must be above 0.
CLI::Option* addSeconds(CLI::App& commandLine, const std::string& name, double& target,
                        const std::string& description);
CLI::Option* addSeconds(CLI::App& commandLine, const std::string& name, std::optional<double>& target,
                        const std::string& description);

void addCommonOptions(CLI::App& commandLine, CommonOptions& common);

/// Adds the option of subcommands that print events.
void addTimeOption(CLI::App& commandLine, bool& withTime);

/// Adds the options of subcommands with a ServiceReport.
void addReportOptions(CLI::App& commandLine, ReportOptions& options);

/// The priority of a name that --log-level takes.
Poco::Message::Priority logPriority(const std::string& level);

}  // namespace NuboSd
