// Set operations between source lists and the sources of a received record. Each result is
// written whole into the caller's mldrt_src_result, so no operation sees what an earlier one
// left behind.
#include <cstdio>
#include <cstring>

#include "core/log.h"
#include "db/db.h"
#include "iface/interface.h"

namespace {

const uint32_t kAddrLen = 16;

bool in_record(const uint8_t* rec_srcs, uint32_t nsrc, const uint8_t* addr) {
    for (uint32_t i = 0; i < nsrc; i++) {
        if (ipv6_addr_equal(rec_srcs + kAddrLen * i, addr)) {
            return true;
        }
    }
    return false;
}

bool in_result(const mldrt_src_result* result, const uint8_t* addr) {
    for (uint32_t i = 0; i < result->n; i++) {
        if (ipv6_addr_equal(result->entries[i].src_addr, addr)) {
            return true;
        }
    }
    return false;
}

// Appends an entry and links it behind the one before; false when the result is full, after
// the limit's line. Every field is written, so nothing of an earlier result shows through.
bool put_result(mldrt_src_result* result, const uint8_t* addr, int32_t timer) {
    if (result->n == MLDRT_MAX_SOURCES) {
        mldrt_report_limit(MLDRT_LIMIT_SOURCES);
        return false;
    }
    mldrt_src* e = &result->entries[result->n];
    std::memset(e, 0, sizeof *e);
    std::memcpy(e->src_addr, addr, kAddrLen);
    e->timer = timer;
    if (result->n > 0) {
        result->entries[result->n - 1].next = e;
    }
    result->n++;
    return true;
}

}  // namespace

uint32_t mldrt_subtract_srclists(mldrt_src_result* result, const mldrt_src* a, const mldrt_src* b) {
    result->n = 0;
    for (; a; a = a->next) {
        if (!mldrt_srclist_has(b, a->src_addr) && !put_result(result, a->src_addr, a->timer)) {
            break;
        }
    }
    return result->n;
}

uint32_t mldrt_subtract_srclist_and_rcvd_record(mldrt_src_result* result, const mldrt_src* list,
                                                const uint8_t* rec_srcs, uint32_t nsrc, int mode) {
    result->n = 0;
    if (mode == 0) {
        for (uint32_t i = 0; i < nsrc; i++) {
            const uint8_t* addr = rec_srcs + kAddrLen * i;
            if (!mldrt_srclist_has(list, addr) && !put_result(result, addr, 0)) {
                break;
            }
        }
        return result->n;
    }
    if (mode == 1) {
        for (; list; list = list->next) {
            if (!in_record(rec_srcs, nsrc, list->src_addr) &&
                !put_result(result, list->src_addr, list->timer)) {
                break;
            }
        }
        return result->n;
    }
    mldrt_log("\n FATAL: Invalid mode type passed\n");
    return 0;
}

uint32_t mldrt_intersect_srclist_with_rcvd_record(mldrt_src_result* result, const mldrt_src* list,
                                                  const uint8_t* rec_srcs, uint32_t nsrc) {
    result->n = 0;
    for (; list; list = list->next) {
        if (in_record(rec_srcs, nsrc, list->src_addr) &&
            !put_result(result, list->src_addr, list->timer)) {
            break;
        }
    }
    return result->n;
}

uint32_t mldrt_union_srclists(mldrt_src_result* result, const mldrt_src* a, const mldrt_src* b) {
    result->n = 0;
    for (int pass = 0; pass < 2; pass++) {
        for (const mldrt_src* s = pass == 0 ? a : b; s; s = s->next) {
            if (!in_result(result, s->src_addr) && !put_result(result, s->src_addr, s->timer)) {
                return result->n;
            }
        }
    }
    return result->n;
}

int mldrt_intersect_srclists(mldrt_src** a, const mldrt_src* b) {
    int kept = 0;
    mldrt_src* next = nullptr;
    for (mldrt_src* s = *a; s; s = next) {
        next = s->next;
        if (mldrt_srclist_has(b, s->src_addr)) {
            kept++;
        } else {
            mldrt_remove_entry_from_srclist(a, s->src_addr);
        }
    }
    return kept;
}

int mldrt_intersect_grp_srclist_with_rcvd_record(mldrt_router* r, mldrt_group* g, uint32_t ltype,
                                                 const uint8_t* rec_srcs, uint32_t nsrc,
                                                 mldrt_interface* ifp) {
    if (ltype > MLDRT_L_EXC) {
        mldrt_log("\n Invalid List Type\n");
        return -1;
    }
    mldrt_src* next = nullptr;
    for (mldrt_src* s = *mldrt_select_srclist(g, g->mfdb, ltype); s; s = next) {
        next = s->next;
        if (in_record(rec_srcs, nsrc, s->src_addr)) {
            continue;
        }
        uint8_t addr[16];
        std::memcpy(addr, s->src_addr, sizeof addr);  // the entry is freed by the removal
        if (mldrt_remove_entry_from_grp_srclist(r, g, g->mfdb, ltype, addr, ifp) != 0) {
            mldrt_log("\n Removal of entry failed\n");
            return -1;
        }
    }
    return 0;
}

int mldrt_empty_grp_srclist(mldrt_router* r, mldrt_group* g, mldrt_mfdb_entry* e, uint32_t ltype,
                            mldrt_interface* ifp) {
    if (ltype == MLDRT_L_SRSP || ltype == MLDRT_L_NON_SRSP || ltype > MLDRT_L_SCR_BLOCK) {
        mldrt_log("\n FATAL: Req for deleteing unknown list type in the group\n");
        return 0;
    }
    mldrt_src** list = ltype <= MLDRT_L_EXC ? mldrt_select_srclist(g, g->mfdb, ltype)
                                            : mldrt_select_srclist(g, e, ltype);
    mldrt_src* next = nullptr;
    for (mldrt_src* s = list ? *list : nullptr; s; s = next) {
        next = s->next;
        uint8_t addr[16];
        std::memcpy(addr, s->src_addr, sizeof addr);
        mldrt_remove_entry_from_grp_srclist(r, g, e, ltype, addr, ifp);
    }
    return 0;
}
