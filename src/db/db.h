// The listener database: per-interface groups with their members and source lists, the
// router-wide forwarding database (one entry per group address, one forwarding record per
// source with a mark per MIF), the source-list algebra, and the once-a-second timer pass.
// Lists are intrusive, new records at the head, first match wins: their order shows in dumps,
// merges and the order of sources in queries.
#ifndef MLDPROXYD_DB_DB_H
#define MLDPROXYD_DB_DB_H

#include <cstdint>

#include "core/router.h"
#include "db/addr_index.h"

struct mldrt_interface;
struct mldrt_mfdb_entry;

// One entry of any source list: group lists, query retransmission lists, host-state lists and
// the algebra's results all share this layout.
struct mldrt_src {
    uint8_t src_addr[16];
    uint16_t rtx_count;  // retransmissions still due (query retransmission lists only)
    int32_t timer;       // seconds
    mldrt_src* next;
};

struct mldrt_member {
    uint8_t member_addr[16];  // the reporting host
    mldrt_member* next;
    mldrt_member** pprev;
};

// Listener state of one group on one interface.
struct mldrt_group {
    uint8_t grp_addr[16];
    int32_t ftimer;  // filter timer, EXCLUDE mode
    uint32_t fmode;  // MLDRT_INCLUDE or MLDRT_EXCLUDE
    mldrt_src* include_list;
    mldrt_src* req_list;  // EXCLUDE mode: requested sources; :: stands for the whole group
    mldrt_src* exc_list;
    int32_t grp_rtx_count;
    int32_t grp_rtx_timer;
    int32_t src_rtx_count;
    int32_t src_rtx_timer;
    int32_t v1_host_timer;  // seconds an MLDv1 host is still taken to be present (RFC 3810 8.3.2)
    mldrt_src* srsp_list;
    mldrt_src* non_srsp_list;
    mldrt_mfdb_entry* mfdb;  // not owned
    mldrt_member* member_list;
    mldrt_group* next;
    mldrt_group** pprev;
    // The interface's address index (see db/addr_index.h).
    mldrt_group* hnext;
    mldrt_group** hpprev;
    mldrt_addr_index<mldrt_group>* hindex;
};

constexpr uint32_t MLDRT_INCLUDE = 0;
constexpr uint32_t MLDRT_EXCLUDE = 1;

// List codes by which every list operation names a source list.
enum mldrt_list_code : uint32_t {
    MLDRT_L_INCLUDE = 0,
    MLDRT_L_REQ = 1,
    MLDRT_L_EXC = 2,
    MLDRT_L_SRSP = 3,
    MLDRT_L_NON_SRSP = 4,
    MLDRT_L_OLD_HS = 5,
    MLDRT_L_NEW_HS = 6,
    MLDRT_L_SCR_TO_EX = 7,
    MLDRT_L_SCR_TO_IN = 8,
    MLDRT_L_SCR_ALLOW = 9,
    MLDRT_L_SCR_BLOCK = 10,
};

// A host-state pair: filter mode and source list.
struct mldrt_hs_state {
    uint32_t mode;
    mldrt_src* list;
};

constexpr uint32_t MLDRT_MAXMIF_MARKS = 32;

// A MIF's mark in a forwarding record: a listener there wants the source, or (a group in
// EXCLUDE mode there) keeps it out of what the link's any-source mark forwards.
constexpr uint8_t MLDRT_MARK_WANTED = 1;
constexpr uint8_t MLDRT_MARK_EXCLUDED = 2;

// Which MIFs want, or exclude, one (group, source); source :: is the group-wide (*,G) record,
// which holds wanted marks only.
struct mldrt_fwinfo {
    uint8_t src_addr[16];
    uint8_t mif_member[MLDRT_MAXMIF_MARKS];
    mldrt_fwinfo* next;
};

struct mldrt_mfdb_entry {
    uint8_t grp_addr[16];
    uint32_t upcall_mark;
    uint32_t exclude_count;  // interface groups of this address in EXCLUDE mode
    mldrt_fwinfo* fwinfo_list;
    mldrt_hs_state* old_host_state;
    mldrt_hs_state* new_host_state;
    int32_t scr_fmode_rtx_timer;
    int32_t scr_to_ex_cnt;
    int32_t scr_to_in_cnt;
    int32_t scr_allow_cnt;
    int32_t scr_block_cnt;
    mldrt_src* scr_to_ex_list;
    mldrt_src* scr_to_in_list;
    mldrt_src* scr_allow_list;
    mldrt_src* scr_block_list;
    mldrt_mfdb_entry* next;
    mldrt_mfdb_entry** pprev;
    // Places on the changed list and the retransmission queue (db/queues.cc).
    mldrt_mfdb_entry* changed_next;
    mldrt_mfdb_entry** changed_pprev;
    mldrt_mfdb_entry* rtx_next;
    mldrt_mfdb_entry** rtx_pprev;
    uint64_t rtx_due_ms;  // when the next upstream retransmission leaves
    // The router's address index (see db/addr_index.h).
    mldrt_mfdb_entry* hnext;
    mldrt_mfdb_entry** hpprev;
    mldrt_addr_index<mldrt_mfdb_entry>* hindex;
};

// Resource limits: one LAN host must not be able to exhaust the router.
constexpr uint32_t MLDRT_MAX_GROUPS = 16384;     // forwarding-database entries
constexpr uint32_t MLDRT_MAX_MEMBERS = 64;       // reporting hosts per group
constexpr uint32_t MLDRT_MAX_SOURCES = 64;       // entries per group source list
constexpr long MLDRT_LIMIT_REPORT_SECONDS = 60;  // one refusal line a minute at most
// The resource limits, each with its own once-a-minute refusal line.
enum mldrt_limit : uint32_t { MLDRT_LIMIT_GROUPS, MLDRT_LIMIT_MEMBERS, MLDRT_LIMIT_SOURCES };
// Counts a refusal and prints the refusal line for `limit` unless one was printed for it within
// the last minute.
void mldrt_report_limit(mldrt_limit limit);
// Refusals by `limit` since the start (or the last reset: a fresh router).
uint32_t mldrt_limit_refusals(mldrt_limit limit);
void mldrt_limit_reset();

// --- Groups, members, sources ---
mldrt_group* mldrt_lookup_group(mldrt_interface* ifp, const uint8_t* grp);
mldrt_member* mldrt_lookup_member(mldrt_group* g, const uint8_t* host);
mldrt_src* mldrt_lookup_src_in_grplist(mldrt_src* list, const uint8_t* src);
bool mldrt_srclist_has(const mldrt_src* list, const uint8_t* src);
mldrt_group* mldrt_create_group(const uint8_t* grp);
mldrt_member* mldrt_create_member(const uint8_t* host);
mldrt_src* mldrt_create_src_for_grp(const uint8_t* src);
mldrt_group* mldrt_add_group(mldrt_router* r, mldrt_interface* ifp, const uint8_t* grp);
mldrt_member* mldrt_add_member(mldrt_group* g, const uint8_t* host);
// True when the group records as many members as it may: a further host is served all the
// same (its reports and leaves are handled), only not recorded.
bool mldrt_members_full(const mldrt_group* g);
mldrt_src* mldrt_add_src_to_group(mldrt_group* g, mldrt_mfdb_entry* e, uint32_t ltype,
                                  const uint8_t* src);
void mldrt_remove_entry_from_srclist(mldrt_src** list, const uint8_t* src);
int mldrt_del_src_from_group(mldrt_group* g, mldrt_mfdb_entry* e, uint32_t ltype,
                             const uint8_t* src);
void mldrt_delete_group(mldrt_group* g);
void mldrt_delete_member(mldrt_member* m);
// The list a code names (codes 0-4 in the group, 5-10 in the entry), or nullptr after the
// unknown-code message; also nullptr when the entry has no such host-state pair.
mldrt_src** mldrt_select_srclist(mldrt_group* g, mldrt_mfdb_entry* e, uint32_t ltype);
// Frees every entry of a list.
void mldrt_free_srclist(mldrt_src** list);

// --- Forwarding-aware list operations: they keep the MIF marks and the kernel in step ---
int mldrt_add_entry_to_grp_srclist(mldrt_router* r, mldrt_group* g, uint32_t ltype,
                                   const uint8_t* src, int32_t timer, mldrt_interface* ifp);
int mldrt_remove_entry_from_grp_srclist(mldrt_router* r, mldrt_group* g, mldrt_mfdb_entry* e,
                                        uint32_t ltype, const uint8_t* src, mldrt_interface* ifp);
// A group in EXCLUDE mode forwards every source its link does not exclude: while the mode lasts
// the link is marked in the group's (::) record, so the kernel's (*,G) entry lists it.
void mldrt_forward_whole_group(mldrt_router* r, mldrt_group* g, mldrt_interface* ifp);
void mldrt_withdraw_whole_group(mldrt_router* r, mldrt_group* g, mldrt_interface* ifp);
// Writes the kernel entries of `e` after the marks of `src` changed; `record_gone` when its
// forwarding record lost its last mark and was deleted.
void mldrt_sync_kernel_forwarding(mldrt_router* r, mldrt_mfdb_entry* e, const uint8_t* src,
                                  bool record_gone);

// --- Forwarding database ---
mldrt_mfdb_entry* mldrt_lookup_mfdb_entry(mldrt_router* r, const uint8_t* grp);
mldrt_mfdb_entry* mldrt_create_mfdb_entry(const uint8_t* grp);
mldrt_mfdb_entry* mldrt_add_mfdb_entry(mldrt_router* r, const uint8_t* grp);
void mldrt_delete_mfdb_entry(mldrt_router* r, mldrt_mfdb_entry* e);
void mldrt_create_gr_mfd_mapping(mldrt_router* r, mldrt_group* g, mldrt_mfdb_entry* e);
mldrt_fwinfo* mldrt_lookup_fwinfo_in_fdb(mldrt_group* g, const uint8_t* src);
// 0 when the record is missing or marks no MIF, -1 when it marks one.
int is_fwinfo_empty_for_grp_src(mldrt_group* g, const uint8_t* src);
mldrt_fwinfo* mldrt_create_fwinfo_in_fdb(const uint8_t* src);
mldrt_fwinfo* mldrt_add_fwinfo_to_fdb(mldrt_group* g, const uint8_t* src);
void mldrt_delete_fwinfo_from_fdb(mldrt_group* g, const uint8_t* src);
// Sets `oifs` (32 bytes) to the MIFs that (src, G) goes to: those of its own wanted marks and
// of the (::, G) record, less those where the source is excluded (RFC 3810 section 6.3).
void mldrt_generate_membership_info(const mldrt_mfdb_entry* e, const uint8_t* src, uint8_t* oifs);
// True when a host state has listeners: EXCLUDE mode, or INCLUDE with sources.
bool mldrt_hs_listened(const mldrt_hs_state* hs);
// True when the upstream state of group `grp` as last acted upon has listeners.
bool mldrt_group_listened(mldrt_router* r, const uint8_t* grp);
// Non-zero while upstream state-change retransmissions for the entry are still due.
int mldrt_pending_host_state_update(const mldrt_mfdb_entry* e);
uint32_t mldrt_mfdb_count();

// --- Source-list algebra ---
// A result of the algebra, owned by its caller: every entry up to the list limit, nothing kept
// from one operation to the next. Entries 0 to n - 1 are linked through `next`, so a result is
// walked like any list. An entry that would go past the limit is refused with the limit's line:
// no group list could take it either.
struct mldrt_src_result {
    uint32_t n;
    mldrt_src entries[MLDRT_MAX_SOURCES];
};
inline const mldrt_src* mldrt_result_list(const mldrt_src_result* res) {
    return res->n > 0 ? res->entries : nullptr;
}

// Each returns the number of entries of its result; a timer not taken from a list is 0.
uint32_t mldrt_subtract_srclists(mldrt_src_result* result, const mldrt_src* a, const mldrt_src* b);
// Mode 0: record addresses not in `list`; mode 1: entries of `list` not in the record.
uint32_t mldrt_subtract_srclist_and_rcvd_record(mldrt_src_result* result, const mldrt_src* list,
                                                const uint8_t* rec_srcs, uint32_t nsrc, int mode);
uint32_t mldrt_intersect_srclist_with_rcvd_record(mldrt_src_result* result, const mldrt_src* list,
                                                  const uint8_t* rec_srcs, uint32_t nsrc);
uint32_t mldrt_union_srclists(mldrt_src_result* result, const mldrt_src* a, const mldrt_src* b);
int mldrt_intersect_srclists(mldrt_src** a, const mldrt_src* b);
int mldrt_intersect_grp_srclist_with_rcvd_record(mldrt_router* r, mldrt_group* g, uint32_t ltype,
                                                 const uint8_t* rec_srcs, uint32_t nsrc,
                                                 mldrt_interface* ifp);
int mldrt_empty_grp_srclist(mldrt_router* r, mldrt_group* g, mldrt_mfdb_entry* e, uint32_t ltype,
                            mldrt_interface* ifp);

// --- Work lists of the event loop (db/queues.cc) ---
// Notes that the listener state of the entry's group changed on some link, so that the next
// host-state merge looks at it. An entry is on the list at most once; a null entry is ignored.
void mldrt_mark_changed(mldrt_mfdb_entry* e);
// The oldest changed entry, taken off the list; nullptr when none is left.
mldrt_mfdb_entry* mldrt_take_changed();
// Queues the entry's next upstream retransmission for `due_ms`, unless one is queued already
// (it then keeps its time: the copy carries the records as they stand when it leaves).
void mldrt_queue_retransmission(mldrt_mfdb_entry* e, uint64_t due_ms);
// The queued entry whose retransmission is due first (still queued); nullptr when none.
mldrt_mfdb_entry* mldrt_first_retransmission();
// Takes the entry off both lists (its retransmissions are done, or it is being deleted).
void mldrt_forget_entry_work(mldrt_mfdb_entry* e);
// Empties both lists (a fresh router).
void mldrt_clear_work_lists();

// --- Timer pass ---
// Deletes the entry, and the empty groups mapped to it, when nothing needs it any more: no
// upstream retransmission due, no forwarding record, no group with state left on any link.
// True when the entry is gone.
bool mldrt_remove_if_unused(mldrt_router* r, mldrt_mfdb_entry* e);
// One tick for every group of one interface. `flag` tells the caller apart and changes nothing.
void mldrt_update_memberships(mldrt_router* r, mldrt_interface* ifp, int flag);
// One aging step of a group's query retransmission lists.
void mldrt_clean_grp_rtx_lists(mldrt_group* g);
// One more ordinary tick over every interface (shutdown, upstream down); forces no expiry.
void mldrt_cleanup_memberships(mldrt_router* r);

// Releases every group of an interface that is about to be deleted: its sources leave the
// forwarding database with their forwarding withdrawn, so nothing points at the freed record.
void mldrt_release_interface_groups(mldrt_router* r, mldrt_interface* ifp);
// Writes every forwarding record to the kernel again (the upstream MIF appeared or changed).
void mldrt_rewrite_kernel_forwarding(mldrt_router* r);
// Frees every forwarding entry with all it holds (shutdown).
void mldrt_free_mfdb(mldrt_router* r);

// --- Diagnostic dumps (printed only while VERBOSE is non-zero) ---
void mldrt_dump_interface_info(mldrt_router* r, mldrt_interface* ifp, const char* title);
void mldrt_display_srclist(const char* label, const mldrt_src* list);
void mldrt_dump_host_states(mldrt_router* r, const mldrt_mfdb_entry* e);

#endif
