// Group- and group-and-source-specific queries after a possible leave (RFC 3810 section
// 7.6.3), with the retransmission state that the timer pass works off.
#include <cstdio>
#include <cstring>

#include "core/log.h"
#include "core/addr.h"
#include "db/db.h"
#include "iface/interface.h"
#include "mld/handlers.h"
#include "mld/mld.h"

namespace {

uint32_t llqt(const mldrt_router* r) {
    return r->last_listener_query_count * r->last_listener_query_interval;
}

void send_specific_query(mldrt_router* r, mldrt_interface* ifp, const uint8_t* grp,
                         const mldrt_src* srcs, uint32_t count) {
    mldrt_query_params q{};
    std::memcpy(q.group, grp, 16);
    std::memcpy(q.dst, grp, 16);
    q.sources = srcs;
    q.src_count = count;
    mldrt_send_query(r, ifp, &q);
}

// The filter timer is set to LLQT, not only lowered: as deployed, unlike RFC 3810.
int group_specific(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g, const uint8_t* grp) {
    g->ftimer = static_cast<int32_t>(llqt(r));
    g->grp_rtx_count = static_cast<int32_t>(r->last_listener_query_count - 1);
    g->grp_rtx_timer = static_cast<int32_t>(r->last_listener_query_interval);
    send_specific_query(r, ifp, grp, nullptr, 0);
    return 0;
}

// Puts one queried source on the retransmission list `ltype`; false after the message.
bool schedule_source(mldrt_router* r, mldrt_group* g, const uint8_t* addr, uint32_t ltype) {
    mldrt_src* e = mldrt_add_src_to_group(g, g->mfdb, ltype, addr);
    if (!e) {
        mldrt_log(ltype == MLDRT_L_SRSP ? "\n FATAL: couldnt allocate entry in SRSP list\n"
                                        : "\n FATAL: couldnt allocate entry in non-SRSP list\n");
        return false;
    }
    e->rtx_count = static_cast<uint16_t>(r->last_listener_query_count - 1);
    return true;
}

}  // namespace

int mldrt_update_fsm_and_send_query(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g,
                                    const uint8_t* grp, const mldrt_src* srcs, uint32_t count) {
    if (!srcs || count == 0) {
        return group_specific(r, ifp, g, grp);
    }
    mldrt_src* searched;
    if (g->fmode == MLDRT_EXCLUDE) {
        searched = g->req_list;
    } else if (g->fmode == MLDRT_INCLUDE) {
        searched = g->include_list;
    } else {
        mldrt_log("\n FATAL:: Unknown Group Mode\n");
        return -1;
    }
    uint32_t lowered = 0, kept = 0;
    for (const mldrt_src* s = srcs; s; s = s->next) {
        // :: marks the whole group in the database; no host can report it as a source. The
        // group-specific query asks for the whole group, so :: is never queried, and its
        // timer is left to the filter timer that query lowers.
        if (mldrt_is_any_addr(s->src_addr)) {
            continue;
        }
        mldrt_src* found = mldrt_lookup_src_in_grplist(searched, s->src_addr);
        if (!found) {
            continue;
        }
        // Timers compared as unsigned values, as routers have always compared them.
        if (static_cast<uint32_t>(found->timer) > llqt(r)) {
            found->timer = static_cast<int32_t>(llqt(r));
            lowered++;
            if (!schedule_source(r, g, s->src_addr, MLDRT_L_SRSP)) {
                return -1;
            }
        } else {
            if (!schedule_source(r, g, s->src_addr, MLDRT_L_NON_SRSP)) {
                return -1;
            }
            kept++;
        }
    }
    // The lists may still hold sources of an earlier query awaiting retransmission (a host
    // repeats its leave before the router repeats its query): they are asked again with the
    // new ones, and the counts are those of the whole lists, so that a query never finds its
    // list and its count at odds.
    g->srsp_count = mldrt_srclist_len(g->srsp_list);
    g->non_srsp_count = mldrt_srclist_len(g->non_srsp_list);
    if (lowered > 0) {
        send_specific_query(r, ifp, grp, g->srsp_list, g->srsp_count);
    }
    if (kept > 0) {
        send_specific_query(r, ifp, grp, g->non_srsp_list, g->non_srsp_count);
    }
    if (lowered > 0 || kept > 0) {
        g->src_rtx_count = static_cast<int32_t>(r->last_listener_query_count - 1);
        g->src_rtx_timer = static_cast<int32_t>(r->last_listener_query_interval);
    }
    return 0;
}
