#include "CommandLine.h"
#include "Errors.h"
#include "EventPrinter.h"
#include "Unit.h"

#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>

namespace NuboSd {

namespace {

int run(const std::vector<std::string>& names, const CommonOptions& common)
{
    Unit unit(common);
    if (!unit.start())
        return Done;
    for (const std::string& name : names)
        unit.search(name);
    EventPrinter printer(std::cout, common.json);
    unit.run(std::nullopt, [&](const ServiceEvent& event) { return printer.print(event); });
    return Done;
}

}  // namespace

Subcommand::Run setUpBrowse(CLI::App& commandLine, const CommonOptions& common)
{
    const auto names = std::make_shared<std::vector<std::string>>();
    commandLine.add_option("--find", *names, "Also send out a search for services of this name; repeatable")
        ->type_name("NAME")
        ->allow_extra_args(false);
    return [names, &common] { return NuboSd::run(*names, common); };
}

}  // namespace NuboSd
