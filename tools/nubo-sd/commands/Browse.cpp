#include "Errors.h"
#include "commands/Subcommands.h"
#include "terminal/ServiceReport.h"
#include "unit/Unit.h"

#include <memory>

#include <CLI/CLI.hpp>

namespace NuboSd {

namespace {

struct BrowseOptions
{
    std::vector<std::string> names;
    ReportOptions report;
};

int run(const BrowseOptions& options, const CommonOptions& common)
{
    ServiceReport report(options.report, common.json);
    Unit unit(common);
    if (!unit.start())
        return Done;
    for (const std::string& name : options.names)
        unit.search(name);
    report.run(unit);
    return Done;
}

}  // namespace

Subcommand::Run setUpBrowse(CLI::App& commandLine, const CommonOptions& common)
{
    const auto options = std::make_shared<BrowseOptions>();
    commandLine.add_option("--find", options->names, "Also search for services with this name; repeatable")
        ->type_name("NAME")
        ->allow_extra_args(false);
    addReportOptions(commandLine, options->report);
    return [options, &common] { return NuboSd::run(*options, common); };
}

}  // namespace NuboSd
