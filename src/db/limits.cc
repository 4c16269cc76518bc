// The resource limits' refusal lines: one a minute at most for each limit, and their counts
// for the status.
#include <ctime>

#include "base/log.h"
#include "db/db.h"

namespace mldproxy {

namespace {

struct limit_report {
    const char* what;
    const char* outcome;
    uint32_t value;
    bool reported;
    time_t last;
    uint32_t refusals;
};
limit_report g_limit_reports[] = {
    {"groups", "request not handled", kMaxGroups, false, 0, 0},
    // A host beyond the member limit is still served: only its address is not kept.
    {"members per group", "host served but not recorded", kMaxHosts, false, 0, 0},
    {"sources per list", "request not handled", kMaxSources, false, 0, 0},
};

}  // namespace

uint32_t limit_refusals(Limit limit) {
    return g_limit_reports[static_cast<int>(limit)].refusals;
}

void limit_reset() {
    for (limit_report& rep : g_limit_reports) {
        rep.reported = false;
        rep.refusals = 0;
    }
}

void report_limit(Limit limit) {
    limit_report& rep = g_limit_reports[static_cast<int>(limit)];
    rep.refusals++;
    time_t now = time(nullptr);
    if (rep.reported && now - rep.last < kLimitReportSeconds) {
        return;
    }
    rep.reported = true;
    rep.last = now;
    print_message("MLDRT: Limit of %u %s reached, %s\n", rep.value, rep.what, rep.outcome);
}

}  // namespace mldproxy
