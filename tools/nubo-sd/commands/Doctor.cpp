#include "Errors.h"
#include "commands/Subcommands.h"
#include "diagnosis/Diagnosis.h"
#include "diagnosis/Picture.h"
#include "text/Text.h"

#include <algorithm>
#include <iostream>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

namespace NuboSd {

namespace {

const char* kindName(Finding::Kind kind)
{
    switch (kind) {
        case Finding::Kind::Ok:
            return "ok";
        case Finding::Kind::Note:
            return "note";
        case Finding::Kind::Bad:
            return "bad";
    }
    return "";
}

std::string toJson(const Finding& finding)
{
    return jsonLine({{"finding", kindName(finding.kind)}, {"what", finding.what}, {"cure", finding.cure}});
}

std::string toText(const Finding& finding)
{
    constexpr std::size_t kindWidth = 6;
    return padded(kindName(finding.kind), kindWidth) + printable(finding.what) +
           (finding.cure.empty() ? "" : " - ") + printable(finding.cure);
}

int run(const CommonOptions& common)
{
    const Picture picture = gatherPicture(common);
    const std::vector<Finding> findings = diagnose(picture);
    for (const Finding& finding : findings)
        std::cout << (common.json ? toJson(finding) : toText(finding)) << '\n';
    std::cout << std::flush;
    if (!picture.addressError.empty())
        throw UsageError(picture.addressError);
    const bool isAnyBad = std::any_of(findings.begin(), findings.end(),
                                      [](const Finding& one) { return one.kind == Finding::Kind::Bad; });
    return isAnyBad ? SomethingBad : Done;
}

}  // namespace

Subcommand::Run setUpDoctor(CLI::App&, const CommonOptions& common)
{
    return [&common] { return NuboSd::run(common); };
}

}  // namespace NuboSd
