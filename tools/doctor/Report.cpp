#include "Report.hpp"

#include "../Output.hpp"

#include <algorithm>
#include <cstdio>

namespace zel::doctor {
namespace {

using tools::json_text;

const char* name_of(Status status) {
    switch (status) {
    case Status::ok:
        return "ok";
    case Status::note:
        return "note";
    case Status::missing:
        return "missing";
    case Status::unknown:
        break;
    }
    return "unknown";
}

} // namespace

bool all_good(std::span<const Result> results) {
    return std::none_of(results.begin(), results.end(), [](const Result& result) {
        return result.finding.status == Status::missing || result.finding.status == Status::unknown;
    });
}

void print_text(std::span<const Result> results) {
    for (const Result& result : results) {
        const Finding& finding = result.finding;
        std::printf("%-8s %-28s %s\n", name_of(finding.status), result.what, finding.found.c_str());
        if (finding.status != Status::ok && !result.remedy.empty()) {
            std::printf("%-8s   consequence: %s\n%-8s   remedy: %s\n", "", result.consequence, "",
                        result.remedy.c_str());
        }
    }
}

void print_json(std::span<const Result> results) {
    std::printf("{\"good\": %s, \"checks\": [", all_good(results) ? "true" : "false");
    const char* separator = "\n";
    for (const Result& result : results) {
        std::printf(
            "%s  {\"what\": %s, \"status\": \"%s\", \"found\": %s,\n   \"consequence\": %s,\n"
            "   \"remedy\": %s}",
            separator, json_text(result.what).c_str(), name_of(result.finding.status),
            json_text(result.finding.found).c_str(), json_text(result.consequence).c_str(),
            json_text(result.remedy).c_str());
        separator = ",\n";
    }
    std::printf("\n]}\n");
}

} // namespace zel::doctor
