// In-process benchmarks of the two paths whose cost grows with the number of groups: handling
// received MLDv2 reports (records per second) and the once-a-second tick (timers, membership
// update, host-state merge and the upstream retransmission pass). The kernel is the unit
// tests' fake (GNU ld --wrap at the system-call boundary), so what is measured is the daemon's
// own work, the fake's bookkeeping of each setsockopt and sendmsg included.
//
// The forwarding database holds at most kMaxGroups (16384) group addresses. The rows
// of 100k therefore spread the listener state over 8 downstream links that each join the
// same 12,500 groups: 100,000 (link, group) records, the number the per-link walks see, over
// 12,500 forwarding entries.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "daemon/daemon.h"
#include "daemon/event_loop.h"
#include "db/router.h"
#include "db/db.h"
#include "fake_kernel.h"
#include "iface/interface.h"
#include "daemon/netlink.h"
#include "mld/mld.h"

using namespace mldproxy;

namespace {

constexpr uint32_t kLinkCapacity = 12500;  // groups per link in the rows beyond the limit
constexpr uint32_t kMtuRecords = 72;       // TO_EX{} records in a 1500-byte report
constexpr uint8_t kHost[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0, 0x01};
constexpr uint8_t kSource[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x10};

// The lab's router: robustness 2, QI 125, QRI 10 s (GMI 260), LLQI 1, LLQC 2, upstream up0.
void router_up(uint32_t downstream_links) {
    fake::fresh_router(2);
    router.query_interval = 125;
    router.query_response_interval = 10000;
    router.last_listener_query_interval = 1;
    router.last_listener_query_count = 2;
    router.upstream = fake::make_link("up0", 2, 0);
    for (uint32_t i = 0; i < downstream_links; i++) {
        char name[8] = "dn";
        name[2] = static_cast<char>('1' + i);
        fake::make_link(name, 3 + i, static_cast<uint16_t>(1 + i));
    }
    router.active = 1;
}

void router_down() {
    router.active = 0;
    delete_all_links(&router);
    shut_down(&router);
    system_link_reset(&router.system_links);
    fake::reset();
}

// Group i: ff0e::1:0 + i for any-source joins, ff3e::1:0 + i (source-specific range) else.
void group_addr(uint32_t i, bool ssm, uint8_t* out) {
    std::memset(out, 0, 16);
    out[0] = 0xff;
    out[1] = ssm ? 0x3e : 0x0e;
    out[12] = static_cast<uint8_t>((i + 0x10000) >> 24);
    out[13] = static_cast<uint8_t>((i + 0x10000) >> 16);
    out[14] = static_cast<uint8_t>(i >> 8);
    out[15] = static_cast<uint8_t>(i);
}

// Reports (wire order) carrying one record of `type` for each of `groups` groups, with the
// source kSource when `ssm`, as many records as a 1500-byte report takes.
std::vector<std::vector<uint8_t>> make_reports(uint32_t groups, RecordType type, bool ssm) {
    uint32_t per_report = ssm ? kMtuRecords / 2 : kMtuRecords;
    uint32_t rec_len = kRecordHeaderLen + (ssm ? kAddrLen : 0);
    std::vector<std::vector<uint8_t>> reports;
    for (uint32_t first = 0; first < groups; first += per_report) {
        uint32_t n = groups - first < per_report ? groups - first : per_report;
        std::vector<uint8_t> msg(kReportHeaderLen + n * rec_len, 0);
        msg[0] = kTypeV2Report;
        msg[6] = static_cast<uint8_t>(n >> 8);
        msg[7] = static_cast<uint8_t>(n);
        for (uint32_t k = 0; k < n; k++) {
            uint8_t* rec = msg.data() + kReportHeaderLen + k * rec_len;
            rec[0] = static_cast<uint8_t>(type);
            rec[3] = ssm ? 1 : 0;
            group_addr(first + k, ssm, rec + 4);
            if (ssm) {
                std::memcpy(rec + kRecordHeaderLen, kSource, 16);
            }
        }
        reports.push_back(std::move(msg));
    }
    return reports;
}

// Hands every report to every downstream link as the receive path would.
void deliver(const std::vector<std::vector<uint8_t>>& reports) {
    for (Link* ifp = router.interfaces; ifp; ifp = ifp->next) {
        if (ifp == router.upstream) {
            continue;
        }
        for (const auto& msg : reports) {
            std::memset(router.buf, 0, router.buf_size);
            std::memcpy(router.buf, msg.data(), msg.size());
            handle_mld_message(&router, ifp, router.buf, kHost, static_cast<int>(msg.size()));
        }
    }
}

// How a row of `records` (link, group) records is laid out: links and groups per link.
struct layout {
    uint32_t links;
    uint32_t groups;
};

layout layout_of(int64_t records) {
    auto n = static_cast<uint32_t>(records);
    if (n <= kLinkCapacity) {
        return {1, n};
    }
    uint32_t links = (n + kLinkCapacity - 1) / kLinkCapacity;
    return {links, n / links};
}

void set_counters(benchmark::State& state, const layout& l, uint32_t in_db) {
    int64_t records = static_cast<int64_t>(l.links) * l.groups;
    state.SetItemsProcessed(state.iterations() * records);
    state.counters["links"] = l.links;
    state.counters["groups"] = l.groups;
    state.counters["groups_in_db"] = in_db;
}

// Records per second of one kind on a router that holds `before` first (joins before leaves),
// or nothing when `before` is `type`.
void run_reports(benchmark::State& state, RecordType type, bool ssm, RecordType before) {
    layout l = layout_of(state.range(0));
    auto reports = make_reports(l.groups, type, ssm);
    bool prepared = before != type;
    auto setup = prepared ? make_reports(l.groups, before, ssm) : reports;
    uint32_t in_db = 0;
    for (auto _ : state) {
        state.PauseTiming();
        router_up(l.links);
        if (prepared) {
            deliver(setup);
        }
        state.ResumeTiming();
        deliver(reports);
        state.PauseTiming();
        in_db = forwarding_entry_count(&router);
        router_down();
        state.ResumeTiming();
    }
    set_counters(state, l, in_db);
}

void BM_ReportAsmJoin(benchmark::State& state) {
    run_reports(state, RecordType::ChangeToExclude, false, RecordType::ChangeToExclude);
}

void BM_ReportSsmJoin(benchmark::State& state) {
    run_reports(state, RecordType::AllowNewSources, true, RecordType::AllowNewSources);
}

void BM_ReportAsmLeave(benchmark::State& state) {
    run_reports(state, RecordType::ChangeToInclude, false, RecordType::ChangeToExclude);
}

// The tick with every group joined and reported: what an idle router does each second.
void BM_Tick(benchmark::State& state) {
    layout l = layout_of(state.range(0));
    router_up(l.links);
    auto refresh = make_reports(l.groups, RecordType::ModeIsExclude, false);
    deliver(refresh);
    for (int i = 0; i < 3; i++) {  // the first report and its retransmission go out
        fake::run_second();
    }
    int64_t ticks = 0;
    for (auto _ : state) {
        fake::run_second();
        // Hosts answer the general queries long before the filter timers (GMI) run out.
        if (++ticks % 100 == 0) {
            state.PauseTiming();
            deliver(refresh);
            fake::kernel().sockopts.clear();
            fake::kernel().sent_msgs.clear();
            fake::kernel().log.clear();
            state.ResumeTiming();
        }
    }
    set_counters(state, l, forwarding_entry_count(&router));
    router_down();
}

void rows(benchmark::internal::Benchmark* b) {
    b->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_ReportAsmJoin)->Apply(rows);
BENCHMARK(BM_ReportSsmJoin)->Apply(rows);
BENCHMARK(BM_ReportAsmLeave)->Apply(rows);
BENCHMARK(BM_Tick)->Apply(rows);

}  // namespace

BENCHMARK_MAIN();
