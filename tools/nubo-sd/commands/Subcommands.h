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
    {"browse", "Report the services of other units as they appear and disappear", setUpBrowse},
    {"check", "Report every mistake in a list of services", setUpCheck},
    {"doctor", "Diagnose what prevents discovery on this unit", setUpDoctor},
    {"find", "Search for a service and print each instance found", setUpFind},
    {"monitor", "Decode and print every service-discovery packet on the interfaces", setUpMonitor},
};

}  // namespace NuboSd
