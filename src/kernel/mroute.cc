#include "core/log.h"
#include "core/addr.h"
#include "kernel/mroute.h"

#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "iface/interface.h"

namespace {

// Records are filled in place: a copy need not carry the padding bytes, and the kernel should
// get no stray bytes.
void fill_mif6ctl(mldrt_mif6ctl* mc, const mldrt_interface* ifp) {
    std::memset(mc, 0, sizeof *mc);
    mc->mif6c_mifi = ifp->mifi;
    mc->mif6c_flags = 0;
    mc->mif6c_pifi = static_cast<uint16_t>(ifp->ifindex);
}

void fill_mf6cctl(mldrt_mf6cctl* mc, const uint8_t* group, const uint8_t* source) {
    std::memset(mc, 0, sizeof *mc);
    std::memcpy(&mc->mf6cc_origin.sin6_addr, source, 16);
    std::memcpy(&mc->mf6cc_mcastgrp.sin6_addr, group, 16);
}

// The kernel's struct sioc_sg_req6 (linux/mroute6.h): the request names the entry, the answer
// fills in its counts.
struct sioc_sg_req6 {
    sockaddr_in6 src;
    sockaddr_in6 grp;
    unsigned long pktcnt;
    unsigned long bytecnt;
    unsigned long wrong_if;
};
static_assert(offsetof(sioc_sg_req6, pktcnt) == 56, "the counts follow the two addresses");
constexpr unsigned long kSiocGetSgCntIn6 = 0x89e1;  // SIOCPROTOPRIVATE + 1

int set_mfc(int sock, int option, const mldrt_mf6cctl* mc) {
    return setsockopt(sock, MLDRT_K_LEVEL, option, mc, sizeof *mc);
}

}  // namespace

int mldrt_k_init(int sock) {
    int one = 1;
    int rc = setsockopt(sock, MLDRT_K_LEVEL, MRT6_INIT_OPT, &one, sizeof one);
    if (rc < 0) {
        mldrt_print_failure("MLDRT: Setsockopt error on MRT6_INIT", "setsockopt");
        return -1;
    }
    return 0;
}

int mldrt_k_stop(int sock) {
    if (setsockopt(sock, MLDRT_K_LEVEL, MRT6_DONE_OPT, nullptr, 0) < 0) {
        mldrt_print_failure("MLDRT: Setsockopt error on MRT_DONE", "setsockopt");
        return -1;
    }
    return 0;
}

int mldrt_add_k_vif(int sock, const mldrt_interface* ifp) {
    // mif6c_pifi holds 16 bits and the kernel has 32 MIFs: never register a truncated index.
    if (ifp->ifindex > MLDRT_MAX_PIFI || ifp->mifi >= MLDRT_MAXMIFS) {
        mldrt_print("MLDRT: Setsockopt error on MRT_ADD_MIF\n");
        return -1;
    }
    mldrt_mif6ctl mc;
    fill_mif6ctl(&mc, ifp);
    if (setsockopt(sock, MLDRT_K_LEVEL, MRT6_ADD_MIF_OPT, &mc, sizeof mc) < 0) {
        mldrt_print_failure("MLDRT: Setsockopt error on MRT_ADD_MIF", "setsockopt");
        return -1;
    }
    return 0;
}

int mldrt_delete_k_vif(int sock, const mldrt_interface* ifp) {
    mldrt_mif6ctl mc;
    fill_mif6ctl(&mc, ifp);
    if (setsockopt(sock, MLDRT_K_LEVEL, MRT6_DEL_MIF_OPT, &mc, sizeof mc) < 0) {
        mldrt_print_failure("MLDRT: Setsockopt error on MRT_DEL_VIF", "setsockopt");
        return -1;
    }
    return 0;
}

uint32_t mldrt_k_ifset_word(const uint8_t* oifs) {
    uint32_t word = 0;
    for (uint32_t i = 0; i < MLDRT_MAXMIFS; i++) {
        if (oifs[i]) {
            word |= 1u << i;
        }
    }
    return word;
}

int mldrt_add_k_mfc(mldrt_router* r, const uint8_t* group, const uint8_t* source,
                    const uint8_t* oifs) {
    if (!r->upstream) {
        return -1;  // no parent MIF to name yet; written again when the upstream appears
    }
    mldrt_mf6cctl mc;
    fill_mf6cctl(&mc, group, source);
    mc.mf6cc_parent = r->upstream->mifi;
    mc.mf6cc_ifset[0] = mldrt_k_ifset_word(oifs);
    if (mldrt_is_any_addr(source) && r->upstream->mifi < MLDRT_MAXMIFS) {
        mc.mf6cc_ifset[0] |= 1u << r->upstream->mifi;
    }
    if (set_mfc(r->router_sock, MRT6_ADD_MFC_OPT, &mc) < 0) {
        mldrt_log("MLDRT: Setsockopt error on MRT_ADD_MFC: setsockopt: %s\n", strerror(errno));
        return -1;
    }
    return 0;
}

int mldrt_delete_k_mfc(mldrt_router* r, const uint8_t* group, const uint8_t* source) {
    mldrt_mf6cctl mc;
    fill_mf6cctl(&mc, group, source);
    if (set_mfc(r->router_sock, MRT6_DEL_MFC_OPT, &mc) < 0) {
        if (mldrt_is_any_addr(source)) {
            mldrt_log("MLDRT: Setsockopt error on MRT_DEL_ADD_MFC: setsockopt: %s\n",
                      strerror(errno));
        }
        return -1;
    }
    return 0;
}

int mldrt_add_k_membership() {
    return 0;
}

int mldrt_delete_k_membership() {
    return 0;
}

bool mldrt_k_sg_counts(int sock, const uint8_t* group, const uint8_t* source,
                       mldrt_sg_counts* out) {
    sioc_sg_req6 req{};
    req.src.sin6_family = AF_INET6;
    req.grp.sin6_family = AF_INET6;
    std::memcpy(&req.src.sin6_addr, source, 16);
    std::memcpy(&req.grp.sin6_addr, group, 16);
    if (ioctl(sock, kSiocGetSgCntIn6, &req) < 0) {
        return false;
    }
    *out = mldrt_sg_counts{req.pktcnt, req.bytecnt, req.wrong_if};
    return true;
}
