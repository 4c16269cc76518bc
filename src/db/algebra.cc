// Set operations between source lists and the sources of a received record. Results go to
// the process-wide arrays, linked from entry 0 like any list. Entries are written by clearing
// only the address (the intersection with a record clears the whole entry), so a result's
// other fields keep whatever the array held: the record handlers rely on that leftover timer.
#include <cstdio>
#include <cstring>

#include "db/db.h"
#include "iface/interface.h"

mldrt_src aIPv6SrcAddrList1[MLDRT_SRCLIST_ARRAY];
mldrt_src aIPv6SrcAddrList2[MLDRT_SRCLIST_ARRAY];
mldrt_src aIPv6SrcAddrList3[MLDRT_SRCLIST_ARRAY];

namespace {

const uint32_t kAddrLen = 16;

bool in_list(const mldrt_src* list, const uint8_t* addr) {
    for (; list; list = list->next) {
        if (ipv6_addr_equal(list->src_addr, addr)) {
            return true;
        }
    }
    return false;
}

bool in_record(const uint8_t* rec_srcs, uint32_t nsrc, const uint8_t* addr) {
    for (uint32_t i = 0; i < nsrc; i++) {
        if (ipv6_addr_equal(rec_srcs + kAddrLen * i, addr)) {
            return true;
        }
    }
    return false;
}

bool in_result(const mldrt_src* result, uint32_t n, const uint8_t* addr) {
    for (uint32_t i = 0; i < n; i++) {
        if (ipv6_addr_equal(result[i].src_addr, addr)) {
            return true;
        }
    }
    return false;
}

// Writes entry n of a result and links it behind entry n - 1.
void put_result(mldrt_src* result, uint32_t n, const uint8_t* addr, const int32_t* timer) {
    mldrt_src* e = &result[n];
    std::memset(e->src_addr, 0, kAddrLen);
    std::memcpy(e->src_addr, addr, kAddrLen);
    if (timer) {
        e->timer = *timer;
    }
    e->next = nullptr;
    if (n > 0) {
        result[n - 1].next = e;
    }
}

int overflow() {
    printf("\n Fatal: SrcList cannot be accomodated");
    return -1;
}

}  // namespace

int mldrt_subtract_srclists(mldrt_src* result, uint32_t cap, const mldrt_src* a,
                            const mldrt_src* b) {
    uint32_t n = 0;
    for (; a; a = a->next) {
        if (!in_list(b, a->src_addr)) {
            if (n == cap) {
                return overflow();
            }
            put_result(result, n++, a->src_addr, &a->timer);
        }
    }
    return static_cast<int>(n);
}

int mldrt_subtract_srclist_and_rcvd_record(mldrt_src* result, uint32_t cap, const mldrt_src* list,
                                           const uint8_t* rec_srcs, uint32_t nsrc, int mode) {
    uint32_t n = 0;
    if (mode == 0) {
        for (uint32_t i = 0; i < nsrc; i++) {
            const uint8_t* addr = rec_srcs + kAddrLen * i;
            if (!in_list(list, addr)) {
                if (n == cap) {
                    return overflow();
                }
                put_result(result, n++, addr, nullptr);
            }
        }
        return static_cast<int>(n);
    }
    if (mode == 1) {
        for (; list; list = list->next) {
            if (!in_record(rec_srcs, nsrc, list->src_addr)) {
                if (n == cap) {
                    return overflow();
                }
                put_result(result, n++, list->src_addr, &list->timer);
            }
        }
        return static_cast<int>(n);
    }
    printf("\n FATAL: Invalid mode type passed");
    return 0;
}

int mldrt_intersect_srclist_with_rcvd_record(mldrt_src* result, uint32_t cap, const mldrt_src* list,
                                             const uint8_t* rec_srcs, uint32_t nsrc) {
    uint32_t n = 0;
    for (; list; list = list->next) {
        if (in_record(rec_srcs, nsrc, list->src_addr)) {
            if (n == cap) {
                return overflow();
            }
            std::memset(&result[n], 0, sizeof result[n]);
            put_result(result, n++, list->src_addr, &list->timer);
        }
    }
    return static_cast<int>(n);
}

int mldrt_union_srclists(mldrt_src* result, uint32_t cap, const mldrt_src* a, const mldrt_src* b) {
    uint32_t n = 0;
    for (int pass = 0; pass < 2; pass++) {
        for (const mldrt_src* s = pass == 0 ? a : b; s; s = s->next) {
            if (in_result(result, n, s->src_addr)) {
                continue;
            }
            // Tested after writing: the result may hold cap + 1 entries on failure, which
            // the arrays have room for.
            put_result(result, n++, s->src_addr, &s->timer);
            if (n > cap) {
                printf("\n Cannot add source lists");
                return -1;
            }
        }
    }
    return static_cast<int>(n);
}

int mldrt_intersect_srclists(mldrt_src** a, const mldrt_src* b) {
    int kept = 0;
    mldrt_src* next = nullptr;
    for (mldrt_src* s = *a; s; s = next) {
        next = s->next;
        if (in_list(b, s->src_addr)) {
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
        printf("\n Invalid List Type");
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
            printf("\n Removal of entry failed");
            return -1;
        }
    }
    return 0;
}

int mldrt_empty_grp_srclist(mldrt_router* r, mldrt_group* g, mldrt_mfdb_entry* e, uint32_t ltype,
                            mldrt_interface* ifp) {
    if (ltype == MLDRT_L_SRSP || ltype == MLDRT_L_NON_SRSP || ltype > MLDRT_L_SCR_BLOCK) {
        printf("\n FATAL: Req for deleteing unknown list type in the group");
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
