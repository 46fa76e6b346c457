// Runs units on a lossy segment with random actions, and compares what they know with a model. Prints each
// fault when it is found, and a table at the end; see `soak --help`. Run it with
// tests/support/in-namespace.sh.

#include "soak/Soak.h"
#include "support/Process.h"

#include <KELUtilLib/Logging.h>

#include <Poco/AutoPtr.h>
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/PatternFormatter.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <unistd.h>

using namespace Nubo::ServiceDiscovery::Testing;

namespace {

constexpr double mostDrift = 1;  // of memory, in percent

/// Memory of shorter runs, or with sanitizers, is not judged: it drifts by chance, or is held back.
constexpr std::chrono::minutes shortestJudgedRun{5};

/// Restarts the program with an allocator without caches per thread. While these fill up, they look like a
/// leak.
void forgoCaches(char** arguments)
{
    constexpr auto variable = "GLIBC_TUNABLES";
    if (std::getenv(variable))
        return;
    ::setenv(variable, "glibc.malloc.tcache_count=0:glibc.malloc.arena_max=1", 0);
    ::execv("/proc/self/exe", arguments);
}

/// Writes the log to the file. Without a file it is off.
void openLog(const std::string& path)
{
    Poco::Logger& logger = Logging::Log::Logger();
    logger.setLevel(0);
    if (path.empty())
        return;
    const Poco::AutoPtr<Poco::Channel> file(new Poco::FileChannel(path));
    const Poco::AutoPtr<Poco::Formatter> formatter(new Poco::PatternFormatter("%H:%M:%S.%i %T %t"));
    logger.setChannel(new Poco::FormattingChannel(formatter, file));
    logger.setLevel(Poco::Message::PRIO_NOTICE);
}

/// Writes the samples for a plot: seconds, resident and allocated MiB, services known.
void writeSamples(const std::string& path, const SoakReport& report)
{
    std::ofstream file(path);
    for (std::size_t i = 0; i < report.known.size(); ++i)
        file << report.known[i].at << ' ' << report.resident[i].value << ' ' << report.allocated[i].value
             << ' ' << report.known[i].value << '\n';
}

template <class... Values>
void row(const std::string& what, const char* format, Values... values)
{
    std::printf("  %-34s", what.c_str());
    std::printf(format, values...);
    std::printf("\n");
}

/// Prints the table and returns whether the run passed.
bool print(const SoakPlan& plan, const SoakReport& report)
{
    const std::vector<Sample> resident = afterWarmUp(report.resident);
    const std::vector<Sample> allocated = afterWarmUp(report.allocated);
    const double drift = driftOf(resident);
    const bool isMemoryJudged = plan.duration >= shortestJudgedRun && !isSanitized;
    const bool isTidy = report.before.descriptors == report.after.descriptors &&
                        report.before.threads == report.after.threads;
    const bool isGood = report.events.faults == 0 && isTidy && (!isMemoryJudged || drift < mostDrift);

    std::printf("\n%zu units for %.1f minutes, seed %u\n\n", plan.units, plan.duration.count() / 60,
                plan.seed);
    for (const auto& [name, count] : report.actions)
        row(name, "%zu", count);
    row("datagrams passed", "%ju", static_cast<std::uintmax_t>(report.datagramsPassed));
    row("datagrams lost", "%ju", static_cast<std::uintmax_t>(report.datagramsLost));
    row("garbage datagrams", "%ju", static_cast<std::uintmax_t>(report.garbage));
    row("services discovered", "%zu", report.events.discovered);
    row("services gone", "%zu", report.events.gone);
    row("wrong events", "%zu", report.events.faults);
    row("services known, on average", "%.0f", meanOf(afterWarmUp(report.known)));
    row("resident memory, after warm-up", "%.2f MiB", meanOf(resident));
    row("  its drift", "%+.2f %%%s", drift, isMemoryJudged ? "" : " (not judged)");
    row("allocated memory, after warm-up", "%.2f MiB", meanOf(allocated));
    row("  its drift", "%+.2f %%", driftOf(allocated));
    row("descriptors, before and after", "%zu, %zu", report.before.descriptors, report.after.descriptors);
    row("threads, before and after", "%zu, %zu", report.before.threads, report.after.threads);
    std::printf("\n%s\n", isGood ? "passed" : "FAILED");
    return isGood;
}

}  // namespace

int main(int argc, char** argv)
try {
    forgoCaches(argv);
    ::setlinebuf(stdout);
    double minutes = 0;
    std::uint32_t seed = std::random_device()();
    std::size_t units = 4;
    std::string log;
    std::string samples;
    CLI::App app("Exposes units to random events, and compares what they know with a model.");
    app.add_option("MINUTES", minutes, "duration of the run")->required()->check(CLI::PositiveNumber);
    app.add_option("--seed", seed, "seed for everything random except the order of threads");
    app.add_option("--units", units, "number of units")->check(CLI::Range(2, 20))->capture_default_str();
    app.add_option("--log", log, "write the library's log to this file");
    app.add_option("--samples", samples, "write memory and number of known services to this file");
    CLI11_PARSE(app, argc, argv);
    openLog(log);

    const SoakPlan plan{std::chrono::duration<double, std::ratio<60>>(minutes), seed, units};
    const auto begin = std::chrono::steady_clock::now();
    Soak soak(plan, [&](const std::string& fault) {
        const std::chrono::duration<double> age = std::chrono::steady_clock::now() - begin;
        std::printf("%9.3f s  %s\n", age.count(), fault.c_str());
    });
    const SoakReport report = soak.run();
    if (!samples.empty())
        writeSamples(samples, report);
    return print(plan, report) ? 0 : 1;
}
catch (const std::exception& exception) {
    std::fprintf(stderr, "soak: %s\n", exception.what());
    return 2;
}
