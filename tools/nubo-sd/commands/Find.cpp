#include "Errors.h"
#include "commands/Subcommands.h"
#include "terminal/EventPrinter.h"
#include "unit/Unit.h"

#include <algorithm>
#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>

namespace NuboSd {

namespace {

/// In seconds: by then a search has been sent and answered in full.
constexpr double searchTime = 1.0;

struct FindOptions
{
    std::string name;
    double timeout = 3.0;
    bool withTime = false;
};

int run(const FindOptions& options, const CommonOptions& common)
{
    Unit unit(common);
    const EventLoop::Deadline timeout = EventLoop::after(options.timeout);
    if (!unit.start())
        return Done;
    unit.search(options.name);

    EventPrinter printer(std::cout, common.json, options.withTime);
    bool found = false;
    const auto printMatch = [&](const ServiceEvent& event) {
        const bool isMatch =
            event.kind == ServiceEvent::Kind::Discovered && event.service.getName() == options.name;
        found = found || isMatch;
        return !isMatch || printer.print(event);
    };
    const EventLoop::Deadline searched = std::min(EventLoop::after(searchTime), timeout);
    if (!unit.run(searched, printMatch))
        return Done;
    // The network may be slow or lossy. From now on the first answer is enough.
    if (!found)
        unit.run(timeout, [&](const ServiceEvent& event) { return printMatch(event) && !found; });
    return found ? Done : NothingFound;
}

}  // namespace

Subcommand::Run setUpFind(CLI::App& commandLine, const CommonOptions& common)
{
    const auto options = std::make_shared<FindOptions>();
    commandLine.add_option("NAME", options->name, "Name of the service")->required();
    addSeconds(commandLine, "--timeout", options->timeout,
               "Give up after this many seconds. All answers within the first second are printed; after "
               "that, the first answer ends the search")
        ->capture_default_str();
    addTimeOption(commandLine, options->withTime);
    return [options, &common] { return NuboSd::run(*options, common); };
}

}  // namespace NuboSd
