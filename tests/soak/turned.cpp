// Runs engines through weeks of simulated time within minutes; see `turned_soak --help`. Needs neither a
// network nor privileges.

#include "soak/TurnedSoak.h"

#include <KELUtilLib/Logging.h>

#include <Poco/Exception.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <random>
#include <string>

#include <CLI/CLI.hpp>

using namespace Nubo::ServiceDiscovery::Testing;

namespace {

template <class... Values>
void row(const std::string& what, const char* format, Values... values)
{
    std::printf("  %-34s", what.c_str());
    std::printf(format, values...);
    std::printf("\n");
}

/// Prints the table and returns whether the run passed.
bool print(const TurnedSoakPlan& plan, const TurnedSoakReport& report, double seconds)
{
    const bool isTidy = report.before.descriptors == report.after.descriptors &&
                        report.before.threads == report.after.threads;
    const bool isGood = report.events.faults == 0 && isTidy;

    std::printf("\n%zu units for %.2f days in %.0f s, seed %u\n\n", plan.units, plan.days, seconds,
                plan.seed);
    for (const auto& [name, count] : report.actions)
        row(name, "%zu", count);
    row("datagrams received", "%ju", static_cast<std::uintmax_t>(report.datagrams.carried));
    row("  twice", "%ju", static_cast<std::uintmax_t>(report.datagrams.doubled));
    row("datagrams lost", "%ju", static_cast<std::uintmax_t>(report.datagrams.lost));
    row("wraps of session counts", "%zu", report.events.wraps);
    row("services discovered", "%zu", report.events.discovered);
    row("services gone", "%zu", report.events.gone);
    row("wrong events, or sent wrongly", "%zu", report.events.faults);
    row("allocated memory, early and late", "%.2f, %.2f MiB", report.before.allocated,
        report.after.allocated);
    row("descriptors, early and late", "%zu, %zu", report.before.descriptors, report.after.descriptors);
    row("threads, early and late", "%zu, %zu", report.before.threads, report.after.threads);
    std::printf("\n%s\n", isGood ? "passed" : "FAILED");
    return isGood;
}

}  // namespace

int main(int argc, char** argv)
try {
    ::setlinebuf(stdout);
    Logging::Log::Logger().setLevel(0);
    TurnedSoakPlan plan{0, std::random_device()(), 4};
    CLI::App app(
        "Exposes engines to random events on a simulated clock, and compares what they send and report "
        "with a model.");
    app.add_option("DAYS", plan.days, "duration of the run, in simulated time")
        ->required()
        ->check(CLI::PositiveNumber);
    app.add_option("--seed", plan.seed, "seed for everything random except the order of threads");
    app.add_option("--units", plan.units, "number of units")->check(CLI::Range(2, 20))->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    const auto begin = std::chrono::steady_clock::now();
    TurnedSoak soak(plan, [](const std::string& fault) {
        const double hours = static_cast<double>(TurnedTime::now()) / (3600.0 * TurnedTime::second);
        std::printf("%12.6f h  %s\n", hours, fault.c_str());
    });
    const TurnedSoakReport report = soak.run();
    const std::chrono::duration<double> lasted = std::chrono::steady_clock::now() - begin;
    return print(plan, report, lasted.count()) ? 0 : 1;
}
catch (const Poco::Exception& exception) {
    std::fprintf(stderr, "turned_soak: %s\n", exception.displayText().c_str());
    return 2;
}
catch (const std::exception& exception) {
    std::fprintf(stderr, "turned_soak: %s\n", exception.what());
    return 2;
}
