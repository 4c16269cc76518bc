#include "test_support.h"

#include <arpa/inet.h>

#include "daemon/daemon.h"
#include "base/log.h"
#include "daemon/event_loop.h"
#include "daemon/netlink.h"

using namespace mldproxy;

void RouterTest::SetUp() {
    fake::fresh_router(2);
    router.query_interval = 125;
    router.query_response_interval = 10000;
}

void RouterTest::TearDown() {
    delete_all_links(&router);
    shut_down(&router);
    system_link_reset(&router.system_links);
    g_stop_requested = 0;
}

addr6 ip6(const char* text) {
    addr6 a{};
    EXPECT_EQ(inet_pton(AF_INET6, text, a.data()), 1) << text;
    return a;
}

std::vector<int> upto(int first, int last) {
    std::vector<int> v;
    for (int n = first; n <= last; n++) {
        v.push_back(n);
    }
    return v;
}

std::string ip6_text(const uint8_t* addr) {
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(AF_INET6, addr, text, sizeof text);
    return text;
}

Link* make_link(const char* name, uint32_t ifindex, uint16_t mifi) {
    Link* ifp = fake::make_link(name, ifindex, mifi);
    EXPECT_NE(ifp, nullptr) << name;
    return ifp;
}

void capture_stdout() {
    log_reset();  // every capture sees the messages of its case, none held back by another's
    testing::internal::CaptureStdout();
}

std::string stdout_of(const std::function<void()>& f) {
    capture_stdout();
    f();
    return testing::internal::GetCapturedStdout();
}

bytes mif_bytes(uint16_t mifi, uint16_t pifi) {
    bytes v(12, 0);
    std::memcpy(&v[0], &mifi, 2);
    std::memcpy(&v[4], &pifi, 2);
    return v;
}

std::vector<std::string> mfc_calls() {
    std::vector<std::string> out;
    for (const auto& c : fake::kernel().sockopts) {
        if (c.level != kKLevel || (c.name != MRT6_ADD_MFC_OPT && c.name != MRT6_DEL_MFC_OPT)) {
            continue;
        }
        if (c.value.size() != sizeof(Mf6cCtl)) {
            out.push_back("size " + std::to_string(c.value.size()));
            continue;
        }
        Mf6cCtl mc;
        std::memcpy(&mc, c.value.data(), sizeof mc);
        std::string s = c.name == MRT6_ADD_MFC_OPT ? "add " : "del ";
        s += ip6_text(reinterpret_cast<const uint8_t*>(&mc.mf6cc_origin.sin6_addr)) + " " +
             ip6_text(reinterpret_cast<const uint8_t*>(&mc.mf6cc_mcastgrp.sin6_addr));
        if (c.name == MRT6_ADD_MFC_OPT) {
            s += " parent " + std::to_string(mc.mf6cc_parent) + " mifs ";
            const char* sep = "";
            for (uint32_t i = 0; i < 8 * 32; i++) {
                if (mc.mf6cc_ifset[i / 32] & (1u << (i % 32))) {
                    s += sep + std::to_string(i);
                    sep = ",";
                }
            }
        }
        out.push_back(s);
    }
    return out;
}
