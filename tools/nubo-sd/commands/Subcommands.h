#pragma once

#include "commands/CommandLine.h"

/// The subcommands of the tool, in the order of its help.
namespace NuboSd {

// One source file each.
Subcommand::Run setUpAnnounce(CLI::App& commandLine, const CommonOptions& common);
Subcommand::Run setUpBrowse(CLI::App& commandLine, const CommonOptions& common);
Subcommand::Run setUpCheck(CLI::App& commandLine, const CommonOptions& common);
Subcommand::Run setUpDoctor(CLI::App& commandLine, const CommonOptions& common);
Subcommand::Run setUpFind(CLI::App& commandLine, const CommonOptions& common);
Subcommand::Run setUpMonitor(CLI::App& commandLine, const CommonOptions& common);

constexpr Subcommand subcommands[] = {
    {"announce", "Announce services of this unit, and report those of other units", setUpAnnounce},
    {"browse", "Report the services of other units as they come and go", setUpBrowse},
    {"check", "Look for mistakes in a list of services", setUpCheck},
    {"doctor", "Look for what hinders service discovery on this unit", setUpDoctor},
    {"find", "Search for a service and print each instance found", setUpFind},
    {"monitor", "Print every service-discovery packet on the interfaces, decoded", setUpMonitor},
};

}  // namespace NuboSd
