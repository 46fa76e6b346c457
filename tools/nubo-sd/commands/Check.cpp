#include "Errors.h"
#include "commands/Subcommands.h"
#include "services/ServicesFile.h"
#include "text/Text.h"

#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>

namespace NuboSd {

namespace {

int run(const std::string& path)
{
    const ServicesFile file = readServicesFile(path);
    for (const std::string& mistake : file.mistakes)
        std::cerr << mistake << '\n';
    std::cerr << std::flush;
    if (!file.mistakes.empty())
        return WrongUsage;
    const std::size_t count = file.services.size();
    std::cout << printable(path) << ": " << count << (count == 1 ? " service is fine" : " services are fine")
              << std::endl;
    return Done;
}

}  // namespace

Subcommand::Run setUpCheck(CLI::App& commandLine, const CommonOptions&)
{
    const auto path = std::make_shared<std::string>();
    commandLine.add_option("FILE", *path, "List of services, as for announce --file")->required();
    return [path] { return NuboSd::run(*path); };
}

}  // namespace NuboSd
