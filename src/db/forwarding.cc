// The forwarding-aware list operations. A source on a group's include or requested list marks
// the interface's MIF as wanted in the (G,S) forwarding record, a source on its excluded list
// marks it as excluded, and the kernel's entries follow the marks at once: the (::) record is
// the kernel's (*,G) entry, every other record an (S,G) entry that also carries the (*,G) MIFs
// but those that exclude it, because Linux prefers an (S,G) entry over the (*,G) one.
#include <cstdio>
#include <cstring>

#include "base/log.h"
#include "base/addr.h"
#include "db/db.h"
#include "iface/interface.h"
#include "kernel/mroute.h"

namespace mldproxy {

namespace {

bool has_marks(const ForwardingRecord* fw) {
    return fw->wanted != 0 || fw->excluded != 0;
}

void write_source_entry(Router* r, ForwardingEntry* e, const uint8_t* src) {
    uint8_t oifs[kMifMarks] = {};
    outgoing_mifs(e, src, oifs);
    write_kernel_entry(r, e->address, src, oifs);
}

void write_any_source_entry(Router* r, ForwardingEntry* e) {
    for (const ForwardingRecord* fw = e->records; fw; fw = fw->next) {
        if (is_unspecified(fw->address)) {
            uint8_t oifs[kMifMarks];
            for (uint32_t i = 0; i < kMifMarks; i++) {
                oifs[i] = mark_at(fw, i);
            }
            write_kernel_entry(r, e->address, kAddrAny, oifs);
            return;
        }
    }
}

// Every (S,G) entry carries the (*,G) MIFs, so a change of those rewrites them all.
void write_source_entries(Router* r, ForwardingEntry* e) {
    for (const ForwardingRecord* fw = e->records; fw; fw = fw->next) {
        if (!is_unspecified(fw->address)) {
            write_source_entry(r, e, fw->address);
        }
    }
}

bool add_forwarding(Router* r, Group* g, const uint8_t* src, Link* ifp, uint8_t mark) {
    ForwardingRecord* fw = add_forwarding_record(g, src);
    if (!fw) {
        log_line("MLDRT: Couldnt add src info to MDB");
        return false;
    }
    if (ifp->mifi >= kMifMarks || mark_at(fw, ifp->mifi) == mark) {
        return true;  // already marked so there
    }
    set_mark(fw, ifp->mifi, mark);
    sync_kernel_forwarding(r, g->entry, src, false);
    return true;
}

// Clears the link's mark of `src` when it is `mark`: a source moved between the wanted and the
// excluded list has taken the other mark already, whichever list it was added to first.
bool remove_forwarding(Router* r, Group* g, const uint8_t* src, Link* ifp, uint8_t mark) {
    ForwardingRecord* fw = find_forwarding_record(g, src);
    if (!fw || (ifp->mifi < kMifMarks && mark_at(fw, ifp->mifi) != mark)) {
        return true;
    }
    if (ifp->mifi < kMifMarks) {
        set_mark(fw, ifp->mifi, 0);
    }
    bool gone = !has_marks(fw);
    if (gone) {
        delete_forwarding_record(g, src);
    }
    sync_kernel_forwarding(r, g->entry, src, gone);
    return true;
}

}  // namespace

bool write_kernel_entry(Router* r, const uint8_t* group, const uint8_t* source,
                        const uint8_t* oifs) {
    if (!r->upstream) {
        return false;
    }
    return kernel_add_mfc(r->router_sock, r->upstream->mifi, group, source, oifs);
}

void sync_kernel_forwarding(Router* r, ForwardingEntry* e, const uint8_t* src, bool record_gone) {
    if (!is_unspecified(src)) {
        // Without its own record the source is forwarded by the (*,G) entry, if any.
        if (record_gone) {
            kernel_delete_mfc(r->router_sock, e->address, src);
        } else {
            write_source_entry(r, e, src);
        }
        return;
    }
    if (record_gone) {
        // Deleted even while no upstream is known: a kernel entry left behind would forward
        // to whatever link takes its MIF later.
        kernel_delete_mfc(r->router_sock, e->address, kAddrAny);
    } else {
        write_any_source_entry(r, e);
    }
    write_source_entries(r, e);
}

bool add_to_group_list(Router* r, Group* g, ListKind kind, const uint8_t* src, int32_t timer,
                       Link* ifp) {
    if (kind > ListKind::Excluded) {
        log_message("\n Invalid list type\n");
        return true;
    }
    // :: is the forwarding database's whole-group mark: a record naming it as a source names
    // no host that could send, and must not turn into a (*,G) entry.
    if (is_unspecified(src)) {
        return true;
    }
    Source* s = add_source_to_group(g, g->entry, kind, src);
    if (!s) {
        log_line("MLDRT: Couldnt add src to grp include list");
        return false;
    }
    s->timer = timer;  // a report refreshes the timer of a source it names again
    return add_forwarding(r, g, src, ifp, kind == ListKind::Excluded ? kMarkExcluded : kMarkWanted);
}

bool remove_from_group_list(Router* r, Group* g, ForwardingEntry* e, ListKind kind,
                            const uint8_t* src, Link* ifp) {
    if (kind > ListKind::Block) {
        log_message("\n Invalid ltype\n");
        return true;
    }
    if (kind >= ListKind::Excluded) {
        if (!remove_source_from_group(g, e, kind, src)) {
            log_message("\n FATAL Error - Cannot del src from group exclude list\n");
            return false;
        }
        return kind == ListKind::Excluded ? remove_forwarding(r, g, src, ifp, kMarkExcluded) : true;
    }
    if (!remove_source_from_group(g, g->entry, kind, src)) {
        log_message("\n FATAL Error - Cannot del src from group include list\n");
        return false;
    }
    return remove_forwarding(r, g, src, ifp, kMarkWanted);
}

void forward_whole_group(Router* r, Group* g, Link* ifp) {
    add_forwarding(r, g, kAddrAny, ifp, kMarkWanted);
}

void withdraw_whole_group(Router* r, Group* g, Link* ifp) {
    remove_forwarding(r, g, kAddrAny, ifp, kMarkWanted);
}

void rewrite_kernel_forwarding(Router* r) {
    for (ForwardingEntry* e = r->entries; e; e = e->next) {
        write_any_source_entry(r, e);
        write_source_entries(r, e);
    }
}

}  // namespace mldproxy
