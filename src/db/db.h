// The listener database: per-interface groups with their members and source lists, the
// router-wide forwarding database (one entry per group address, one forwarding record per
// source with a mark per MIF), the source-list algebra, and the once-a-second timer pass.
// Lists are intrusive, new records at the head, first match wins: their order shows in dumps,
// merges and the order of sources in queries.
#ifndef MLDPROXYD_DB_DB_H
#define MLDPROXYD_DB_DB_H

#include <cstdint>

#include "db/router.h"
#include "base/address_index.h"

namespace mldproxy {

// A group's filter mode (RFC 3810 section 7.2), and a host state's.
enum class FilterMode : uint8_t { Include, Exclude };

struct Link;
struct ForwardingEntry;

// One entry of any source list: group lists, query retransmission lists, host-state lists and
// the algebra's results all share this layout.
struct Source {
    uint8_t address[16];
    uint16_t rtx_count;  // retransmissions still due (query retransmission lists only)
    int32_t timer;       // seconds
    Source* next;
};

// A host that reported the group; a group keeps at most kMaxHosts, so its list is walked.
struct Host {
    uint8_t address[16];
    Host* next;
};

// The group- and source-specific queries of one group still to be sent again (RFC 3810
// section 7.6.3), with the sources they ask about. Held only while some are due.
struct GroupQueries {
    int32_t group_count;  // group-specific retransmissions still due
    int32_t group_timer;  // seconds to the next one
    int32_t source_count;
    int32_t source_timer;
    Source* suppressed;  // sources asked about with the S flag (their timers were lowered)
    Source* not_suppressed;
};

// Listener state of one group on one interface.
struct Group {
    uint8_t address[16];
    int32_t filter_timer;    // filter timer, EXCLUDE mode
    int32_t v1_host_timer;   // seconds an MLDv1 host is still taken to be present (RFC 3810 8.3.2)
    FilterMode filter_mode;  // FilterMode::Include or FilterMode::Exclude
    Source* include_list;
    Source* requested_list;  // EXCLUDE mode: requested sources
    Source* excluded_list;
    GroupQueries* queries;   // null while no query retransmission is due
    ForwardingEntry* entry;  // not owned
    Host* hosts;
    Group* next;
    Group** pprev;
    // The link's address index (see base/address_index.h).
    Group* hnext;
};

// The source lists a list operation can name: a group's three (RFC 3810 section 7.2), its
// query retransmission lists, the entry's host states and its pending state-change sources.
enum class ListKind : uint8_t {
    Include,
    Requested,
    Excluded,
    QuerySuppressed,
    QueryNotSuppressed,
    OldHostState,
    NewHostState,
    ChangeToExclude,
    ChangeToInclude,
    Allow,
    Block,
};

// A host-state pair: filter mode and source list.
struct HostState {
    FilterMode mode;
    Source* list;
};

constexpr uint32_t kMifMarks = 32;

// A MIF's mark in a forwarding record: a listener there wants the source, or (a group in
// EXCLUDE mode there) keeps it out of what the link's any-source mark forwards.
constexpr uint8_t kMarkWanted = 1;
constexpr uint8_t kMarkExcluded = 2;

// Which MIFs want, or exclude, one (group, source); source :: is the group-wide (*,G) record,
// which holds wanted marks only.
struct ForwardingRecord {
    uint8_t address[16];
    uint32_t wanted;    // bit i: MIF i's wanted mark
    uint32_t excluded;  // bit i: MIF i's excluded mark
    ForwardingRecord* next;
};

// The mark of MIF `mif` (kMarkWanted, kMarkExcluded or 0).
inline uint8_t mark_at(const ForwardingRecord* fw, uint32_t mif) {
    uint32_t bit = 1u << mif;
    return (fw->wanted & bit) ? kMarkWanted : (fw->excluded & bit) ? kMarkExcluded : 0;
}
inline void set_mark(ForwardingRecord* fw, uint32_t mif, uint8_t mark) {
    uint32_t bit = 1u << mif;
    fw->wanted = mark == kMarkWanted ? fw->wanted | bit : fw->wanted & ~bit;
    fw->excluded = mark == kMarkExcluded ? fw->excluded | bit : fw->excluded & ~bit;
}

// The sources of a group's upstream state-change records still to be sent again, each with
// the count of copies it is still due in (RFC 3810 section 6.1).
struct PendingSources {
    Source* to_exclude;
    Source* to_include;
    Source* allow;
    Source* block;
};

// A group's place on the upstream retransmission queue, held only while a copy of its
// state-change records is due (the counts are in the entry), so a settled group carries none.
struct PendingReport {
    uint64_t due_ms;          // when the next copy leaves
    ForwardingEntry* entry;   // whose records these are
    PendingSources* sources;  // null while the records name no source
    // Place on the retransmission queue (db/queues.cc).
    PendingReport* next;
    PendingReport** pprev;
};

struct ForwardingEntry {
    uint8_t address[16];
    uint8_t exclude_count;  // links where the group is in EXCLUDE mode (at most 32)
    FilterMode host_mode;   // of the host state last acted upon (reported upstream)
    bool on_changed_list;   // see changed_next
    // Copies still due of each upstream state-change record (RFC 3810 section 6.1).
    int8_t to_exclude_count;
    int8_t to_include_count;
    int8_t allow_count;
    int8_t block_count;
    ForwardingRecord* records;
    Source* host_list;          // sources of the host state last acted upon
    HostState* new_host_state;  // the merge under way; null between merges
    PendingReport* pending;     // null while no state-change copy is due
    ForwardingEntry* next;
    ForwardingEntry** pprev;
    ForwardingEntry* changed_next;  // the changed list (db/queues.cc)
    ForwardingEntry* hnext;         // the router's address index
};

// The host state last acted upon, as a value.
inline HostState reported_state(const ForwardingEntry* e) {
    return HostState{e->host_mode, e->host_list};
}

// Resource limits: one LAN host must not be able to exhaust the router.
constexpr uint32_t kMaxGroups = 16384;    // forwarding-database entries
constexpr uint32_t kMaxHosts = 64;        // reporting hosts per group
constexpr uint32_t kMaxSources = 64;      // entries per group source list
constexpr long kLimitReportSeconds = 60;  // one refusal line a minute at most
// The resource limits, each with its own once-a-minute refusal line.
enum class Limit : uint8_t { Groups, Hosts, Sources };
// Counts a refusal and prints the refusal line for `limit` unless one was printed for it within
// the last minute.
void report_limit(Limit limit);
// Refusals by `limit` since the start (or the last reset: a fresh router).
uint32_t limit_refusals(Limit limit);
void limit_reset();

// --- Groups, members, sources ---
Group* find_group(Link* ifp, const uint8_t* grp);
Host* find_host(Group* g, const uint8_t* host);
Source* find_source(Source* list, const uint8_t* src);
bool list_has(const Source* list, const uint8_t* src);
Group* create_group(const uint8_t* grp);
Host* create_host(const uint8_t* host);
Source* create_source(const uint8_t* src);
Group* add_group(Router* r, Link* ifp, const uint8_t* grp);
Host* add_host(Group* g, const uint8_t* host);
// True when the group records as many members as it may: a further host is served all the
// same (its reports and leaves are handled), only not recorded.
bool hosts_full(const Group* g);
Source* add_source_to_group(Group* g, ForwardingEntry* e, ListKind kind, const uint8_t* src);
void remove_from_list(Source** list, const uint8_t* src);
bool remove_source_from_group(Group* g, ForwardingEntry* e, ListKind kind, const uint8_t* src);
void delete_group(Link* ifp, Group* g);
void delete_host(Group* g, Host* m);
// The list a kind names (the first five in the group, the others in the entry); nullptr when
// the entry has no new host state, or when the record holding the list could not be made.
Source** select_list(Group* g, ForwardingEntry* e, ListKind kind);
// Frees every entry of a list.
void free_list(Source** list);

// --- Forwarding-aware list operations: they keep the MIF marks and the kernel in step ---
bool add_to_group_list(Router* r, Group* g, ListKind kind, const uint8_t* src, int32_t timer,
                       Link* ifp);
bool remove_from_group_list(Router* r, Group* g, ForwardingEntry* e, ListKind kind,
                            const uint8_t* src, Link* ifp);
// A group in EXCLUDE mode forwards every source its link does not exclude: while the mode lasts
// the link is marked in the group's (::) record, so the kernel's (*,G) entry lists it.
void forward_whole_group(Router* r, Group* g, Link* ifp);
void withdraw_whole_group(Router* r, Group* g, Link* ifp);
// Writes the kernel entries of `e` after the marks of `src` changed; `record_gone` when its
// forwarding record lost its last mark and was deleted.
void sync_kernel_forwarding(Router* r, ForwardingEntry* e, const uint8_t* src, bool record_gone);
// Installs or replaces the kernel entry (source, group) with the upstream MIF as its parent.
// False while no upstream is known: nothing is written then, and every entry is written again
// when one appears.
bool write_kernel_entry(Router* r, const uint8_t* group, const uint8_t* source,
                        const uint8_t* oifs);

// --- Forwarding database ---
ForwardingEntry* find_forwarding_entry(Router* r, const uint8_t* grp);
ForwardingEntry* create_forwarding_entry(const uint8_t* grp);
ForwardingEntry* add_forwarding_entry(Router* r, const uint8_t* grp);
void delete_forwarding_entry(Router* r, ForwardingEntry* e);
void map_group_to_entry(Group* g, ForwardingEntry* e);
ForwardingRecord* find_forwarding_record(Group* g, const uint8_t* src);
// True when the group's entry has a forwarding record of `src` with a mark on some MIF.
bool has_forwarding_marks(Group* g, const uint8_t* src);
ForwardingRecord* create_forwarding_record(const uint8_t* src);
ForwardingRecord* add_forwarding_record(Group* g, const uint8_t* src);
void delete_forwarding_record(Group* g, const uint8_t* src);
// Sets `oifs` (32 bytes) to the MIFs that (src, G) goes to: those of its own wanted marks and
// of the (::, G) record, less those where the source is excluded (RFC 3810 section 6.3).
void outgoing_mifs(const ForwardingEntry* e, const uint8_t* src, uint8_t* oifs);
// True when a host state has listeners: EXCLUDE mode, or INCLUDE with sources.
bool has_listeners(const HostState* hs);
// True when the upstream state of group `grp` as last acted upon has listeners.
bool group_listened(Router* r, const uint8_t* grp);
// Non-zero while upstream state-change retransmissions for the entry are still due.
bool state_change_pending(const ForwardingEntry* e);
// The entry's pending state-change records, made (empty) when it has none; nullptr when memory
// ran out.
PendingReport* pending_report(ForwardingEntry* e);
// The group's query retransmissions, made (none due) when it has none; nullptr when memory ran
// out.
GroupQueries* group_queries(Group* g);
// Drops the group's query retransmission record once nothing is due and no source is listed.
void drop_spent_queries(Group* g);
// The sources of the entry's pending records; all empty when it has none.
inline PendingSources pending_sources(const ForwardingEntry* e) {
    return e->pending && e->pending->sources ? *e->pending->sources : PendingSources{};
}
// Drops the entry's pending records once no copy of any is due any more.
void drop_spent_report(ForwardingEntry* e);
uint32_t forwarding_entry_count(const Router* r);

// --- Source-list algebra ---
// A result of the algebra, owned by its caller: every entry up to the list limit, nothing kept
// from one operation to the next. Entries 0 to n - 1 are linked through `next`, so a result is
// walked like any list. An entry that would go past the limit is refused with the limit's line:
// no group list could take it either.
struct SourceSet {
    uint32_t n;
    Source entries[kMaxSources];
};
inline const Source* set_list(const SourceSet* res) {
    return res->n > 0 ? res->entries : nullptr;
}

// Each returns the number of entries of its result; a timer not taken from a list is 0.
uint32_t subtract_lists(SourceSet* result, const Source* a, const Source* b);
// The addresses of the record that `list` does not hold.
uint32_t record_minus_list(SourceSet* result, const Source* list, const uint8_t* rec_srcs,
                           uint32_t nsrc);
// The entries of `list` that the record does not name, with their timers.
uint32_t list_minus_record(SourceSet* result, const Source* list, const uint8_t* rec_srcs,
                           uint32_t nsrc);
uint32_t intersect_with_record(SourceSet* result, const Source* list, const uint8_t* rec_srcs,
                               uint32_t nsrc);
int intersect_in_place(Source** a, const Source* b);
bool intersect_group_list_with_record(Router* r, Group* g, ListKind kind, const uint8_t* rec_srcs,
                                      uint32_t nsrc, Link* ifp);
int empty_group_list(Router* r, Group* g, ForwardingEntry* e, ListKind kind, Link* ifp);

// --- Work lists of the event loop (db/queues.cc) ---
// Notes that the listener state of the entry's group changed on some link, so that the next
// host-state merge looks at it. An entry is on the list at most once; a null entry is ignored.
void mark_changed(ForwardingEntry* e);
// The oldest changed entry, taken off the list; nullptr when none is left.
ForwardingEntry* take_changed();
// Queues the next upstream retransmission of the records for `due_ms`, unless one is queued
// already (it then keeps its time: the copy carries the records as they stand when it leaves).
void queue_retransmission(PendingReport* p, uint64_t due_ms);
// The queued records whose retransmission is due first (still queued); nullptr when none.
PendingReport* first_retransmission();
// Takes the records off the retransmission queue, the entry off the changed list.
void forget_retransmission(PendingReport* p);
void forget_changed(ForwardingEntry* e);
// Empties both lists (a fresh router).
void clear_work_lists();

// Writes every forwarding record to the kernel again (the upstream MIF appeared or changed).
void rewrite_kernel_forwarding(Router* r);
// Frees every forwarding entry with all it holds (shutdown).
void free_forwarding_entries(Router* r);

// --- Diagnostic dumps (printed only while VERBOSE is non-zero) ---
void dump_link(Router* r, Link* ifp, const char* title);
void dump_source_list(const char* label, const Source* list);
void dump_host_states(Router* r, const ForwardingEntry* e);

}  // namespace mldproxy

#endif
