// Diagnostic dumps of the listener database and of the upstream host state, for a person at
// the console; printed only while VERBOSE is non-zero.
#include <arpa/inet.h>

#include <cstdint>
#include <cstdio>

#include "base/log.h"
#include "db/db.h"
#include "iface/interface.h"

namespace mldproxy {

namespace {

struct addr_text {
    char s[INET6_ADDRSTRLEN];
};

addr_text text_of(const uint8_t* addr) {
    addr_text t{};
    inet_ntop(AF_INET6, addr, t.s, sizeof t.s);
    return t;
}

// Record identities are printed as their low 32 bits, the same on every target.
unsigned identity(const void* p) {
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p) & 0xffffffffu);
}

void dump_forwarding(const ForwardingEntry* e) {
    print_message("\n \tMFD 0x%x Fdaddr %s", identity(e), text_of(e->address).s);
    print_message("\n \tFwding Info: ");
    if (!e->records) {
        print_message(" NULL");
    }
    for (const ForwardingRecord* fw = e->records; fw; fw = fw->next) {
        print_message("\n \t\tSrcAddr  %s", text_of(fw->address).s);
        print_message("\n \t\tMember MIF Idx");
        for (int i = 0; i < static_cast<int>(kMifMarks); i++) {
            if (mark_at(fw, i) == kMarkWanted) {
                print_message(" %d", i);
            }
        }
    }
}

void dump_group(int n, const Group* g) {
    print_message("\n\n =======Grp %d 0x%x addr %s ftimer %d fmode %d======= ", n, identity(g),
                  text_of(g->address).s, g->filter_timer, static_cast<int>(g->filter_mode));
    print_message("\n Include List: ");
    dump_source_list("Include List", g->include_list);
    dump_source_list("Req List", g->requested_list);
    dump_source_list("Exc List", g->excluded_list);
    print_message("\n\n ---MFD Information---  ");
    if (!g->entry) {
        print_message("\n NULL");
    } else {
        dump_forwarding(g->entry);
    }
}

void dump_state(const char* heading, const char* label, const HostState* hs) {
    print_message("%s", heading);
    if (!hs) {
        print_message(" NULL");
        return;
    }
    print_message("\n     MODE    %d", static_cast<int>(hs->mode));
    dump_source_list(label, hs->list);
}

}  // namespace

void dump_source_list(const char* label, const Source* list) {
    print_message("\n %s :", label);
    if (!list) {
        print_message(" NULL ");
    }
    for (; list; list = list->next) {
        print_message("[ %s time %d ] ", text_of(list->address).s, list->timer);
    }
}

void dump_link(Router* r, Link* ifp, const char* title) {
    if (r->verbose == 0) {
        return;
    }
    print_message("\n<===================%s======================>", title);
    print_message("\n Interface %s PhyIdx %d", ifp->name, static_cast<int>(ifp->ifindex));
    print_message("\n Member Groups ");
    if (!ifp->groups) {
        print_message(" :NO GROUPS");
    }
    int n = 0;
    for (const Group* g = ifp->groups; g; g = g->next) {
        dump_group(n++, g);
    }
    print_message("\n===================================================================\n\n");
}

void dump_host_states(Router* r, const ForwardingEntry* e) {
    if (r->verbose == 0) {
        return;
    }
    print_message("\n <---------Group Host State for Group %s------------->",
                  text_of(e->address).s);
    const HostState reported = reported_state(e);
    dump_state("\n\n Old State :", "OldState SrcList", &reported);
    dump_state("\n\n New State :", "NewState SrcList", e->new_host_state);
    const PendingSources p = pending_sources(e);
    print_message("\n\n SCR Info");
    print_message(
        "\n scr_fmode_rtx_timer %d, scr_to_ex_cnt %d scr_to_in_cnt %d scr_allow_cnt %d "
        "scr_block_cnt %d",
        0, e->to_exclude_count, e->to_include_count, e->allow_count, e->block_count);
    dump_source_list("scr_to_ex_list", p.to_exclude);
    dump_source_list("scr_to_in_list", p.to_include);
    dump_source_list("scr_allow_list", p.allow);
    dump_source_list("scr_block_list", p.block);
    print_message(
        "\n <------------------------------------------------------------------------->\n\n");
}

}  // namespace mldproxy
