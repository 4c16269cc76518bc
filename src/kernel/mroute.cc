#include "base/log.h"
#include "base/addr.h"
#include "kernel/mroute.h"

#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace mldproxy {

namespace {

// Records are filled in place: a copy need not carry the padding bytes, and the kernel should
// get no stray bytes.
void fill_mif6ctl(Mif6Ctl* mc, uint16_t mifi, uint32_t ifindex) {
    std::memset(mc, 0, sizeof *mc);
    mc->mif6c_mifi = mifi;
    mc->mif6c_flags = 0;
    mc->mif6c_pifi = static_cast<uint16_t>(ifindex);
}

void fill_mf6cctl(Mf6cCtl* mc, const uint8_t* group, const uint8_t* source) {
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

int set_mfc(int sock, int option, const Mf6cCtl* mc) {
    return setsockopt(sock, kKLevel, option, mc, sizeof *mc);
}

}  // namespace

bool kernel_start_routing(int sock) {
    int one = 1;
    int rc = setsockopt(sock, kKLevel, MRT6_INIT_OPT, &one, sizeof one);
    if (rc < 0) {
        print_failure("MLDRT: Setsockopt error on MRT6_INIT", "setsockopt");
        return false;
    }
    return true;
}

bool kernel_stop_routing(int sock) {
    if (setsockopt(sock, kKLevel, MRT6_DONE_OPT, nullptr, 0) < 0) {
        print_failure("MLDRT: Setsockopt error on MRT_DONE", "setsockopt");
        return false;
    }
    return true;
}

bool kernel_add_mif(int sock, uint16_t mifi, uint32_t ifindex) {
    // mif6c_pifi holds 16 bits and the kernel has 32 MIFs: never register a truncated index.
    if (ifindex > kMaxPifi || mifi >= kMaxmifs) {
        print_message("MLDRT: Setsockopt error on MRT_ADD_MIF\n");
        return false;
    }
    Mif6Ctl mc;
    fill_mif6ctl(&mc, mifi, ifindex);
    if (setsockopt(sock, kKLevel, MRT6_ADD_MIF_OPT, &mc, sizeof mc) < 0) {
        print_failure("MLDRT: Setsockopt error on MRT_ADD_MIF", "setsockopt");
        return false;
    }
    return true;
}

bool kernel_delete_mif(int sock, uint16_t mifi, uint32_t ifindex) {
    Mif6Ctl mc;
    fill_mif6ctl(&mc, mifi, ifindex);
    if (setsockopt(sock, kKLevel, MRT6_DEL_MIF_OPT, &mc, sizeof mc) < 0) {
        print_failure("MLDRT: Setsockopt error on MRT_DEL_VIF", "setsockopt");
        return false;
    }
    return true;
}

uint32_t ifset_word(const uint8_t* oifs) {
    uint32_t word = 0;
    for (uint32_t i = 0; i < kMaxmifs; i++) {
        if (oifs[i]) {
            word |= 1u << i;
        }
    }
    return word;
}

bool kernel_add_mfc(int sock, uint16_t parent, const uint8_t* group, const uint8_t* source,
                    const uint8_t* oifs) {
    Mf6cCtl mc;
    fill_mf6cctl(&mc, group, source);
    mc.mf6cc_parent = parent;
    mc.mf6cc_ifset[0] = ifset_word(oifs);
    if (is_unspecified(source) && parent < kMaxmifs) {
        mc.mf6cc_ifset[0] |= 1u << parent;
    }
    if (set_mfc(sock, MRT6_ADD_MFC_OPT, &mc) < 0) {
        log_message("MLDRT: Setsockopt error on MRT_ADD_MFC: setsockopt: %s\n", strerror(errno));
        return false;
    }
    return true;
}

bool kernel_delete_mfc(int sock, const uint8_t* group, const uint8_t* source) {
    Mf6cCtl mc;
    fill_mf6cctl(&mc, group, source);
    if (set_mfc(sock, MRT6_DEL_MFC_OPT, &mc) < 0) {
        if (is_unspecified(source)) {
            log_message("MLDRT: Setsockopt error on MRT_DEL_ADD_MFC: setsockopt: %s\n",
                        strerror(errno));
        }
        return false;
    }
    return true;
}

bool kernel_sg_counts(int sock, const uint8_t* group, const uint8_t* source,
                      SourceGroupCounts* out) {
    sioc_sg_req6 req{};
    req.src.sin6_family = AF_INET6;
    req.grp.sin6_family = AF_INET6;
    std::memcpy(&req.src.sin6_addr, source, 16);
    std::memcpy(&req.grp.sin6_addr, group, 16);
    if (ioctl(sock, kSiocGetSgCntIn6, &req) < 0) {
        return false;
    }
    *out = SourceGroupCounts{req.pktcnt, req.bytecnt, req.wrong_if};
    return true;
}

}  // namespace mldproxy
