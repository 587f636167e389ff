#include "Check.hpp"

#include "Text.hpp"

#include <algorithm>
#include <cstring>

namespace zel::doctor {
namespace {

bool is_there(const char* what, std::span<const Result> before) {
    return std::any_of(before.begin(), before.end(), [what](const Result& result) {
        const Status status = result.finding.status;
        return std::strcmp(result.what, what) == 0 &&
               (status == Status::ok || status == Status::note);
    });
}

} // namespace

Finding not_tried_without(const char* what) {
    return {Status::unknown, format("not tried without \"%s\"", what)};
}

Finding examine(const Check& check, const Request& request, std::span<const Result> before) {
    for (const char* need : check.needs) {
        if (need != nullptr && !is_there(need, before))
            return not_tried_without(need);
    }
    return check.probe(request);
}

Result result_of(const Check& check, Finding finding) {
    std::string remedy = finding.remedy;
    if (remedy.empty() && finding.status != Status::unknown)
        remedy = check.remedy;
    return {check.what, std::move(finding), check.consequence, std::move(remedy)};
}

void run_checks(std::span<const Check> checks, const Request& request,
                std::vector<Result>& results) {
    for (const Check& check : checks)
        results.push_back(result_of(check, examine(check, request, results)));
}

} // namespace zel::doctor
