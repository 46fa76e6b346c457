#include "Errors.h"
#include "commands/Subcommands.h"
#include "text/Text.h"
#include "unit/LogOutput.h"

#include <iostream>
#include <iterator>
#include <string>

#include <CLI/CLI.hpp>

namespace NuboSd {

namespace {

/// "announce, browse or find"
std::string names()
{
    std::string text;
    std::size_t left = std::size(subcommands);
    for (const Subcommand& subcommand : subcommands) {
        --left;
        text += subcommand.name;
        text += left == 0 ? "" : left == 1 ? " or " : ", ";
    }
    return text;
}

int fail(const std::string& reason, ExitCode code)
{
    std::cerr << "nubo-sd: " << reason << std::endl;
    return code;
}

int run(int argc, char** argv)
{
    CLI::App app("Service discovery between the control units of a vehicle.", "nubo-sd");
    app.set_version_flag("-V,--version", std::string("nubo-sd ") + NUBO_SD_VERSION);
    app.require_subcommand(0, 1);  // a missing one is reported below, in clearer words
    app.fallthrough();
    app.footer(
        "The options listed by nubo-sd --help can precede or follow those of a subcommand.\n\n"
        "Exit codes: 0 success; 1 find found nothing, or doctor found a problem; 2 wrong arguments or an\n"
        "invalid service; 3 the network cannot be used.");

    CommonOptions common;
    addCommonOptions(app, common);
    Subcommand::Run chosen;
    for (const Subcommand& subcommand : subcommands) {
        CLI::App* commandLine = app.add_subcommand(subcommand.name, subcommand.summary);
        commandLine->fallthrough();
        const Subcommand::Run runSubcommand = subcommand.setUp(*commandLine, common);
        commandLine->final_callback([&chosen, runSubcommand] { chosen = runSubcommand; });
    }

    try {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success))
            return app.exit(error);
        return fail(printable(error.what()), WrongUsage);
    }
    if (!chosen)
        return fail("a subcommand is missing: " + names(), WrongUsage);
    openLog(logPriority(common.logLevel));
    return chosen();
}

}  // namespace

}  // namespace NuboSd

int main(int argc, char** argv)
{
    using namespace NuboSd;
    try {
        return run(argc, argv);
    }
    catch (const UsageError& error) {
        return fail(error.what(), WrongUsage);
    }
    catch (const std::exception& error) {
        return fail(error.what(), NetworkUnusable);
    }
}
