// The daemon and the kernel's multicast forwarding (Linux MRT6): the entries that the
// forwarding-aware list operations write (MRT6_ADD_MFC and MRT6_DEL_MFC, read back from their
// 92 bytes), the MIF records (12 bytes), each call's failure message, and the sockets at
// shutdown. Upstream is MIF 5; links on MIFs 1 and 3.
#include <cstdio>

#include "test_support.h"

namespace {

// The kernel calls with 2001:db8::n written Sn, ff0e::n written Gn and parent 5 left out, sorted.
texts kernel_calls() {
    texts out = mfc_calls();
    for (auto& s : out) {
        for (const auto& [from, to] : std::vector<std::pair<std::string, std::string>>{
                 {"2001:db8::", "S"}, {"ff0e::", "G"}, {" parent 5 mifs ", " mifs "}}) {
            for (size_t at; (at = s.find(from)) != std::string::npos;) {
                s.replace(at, from.size(), to);
            }
        }
    }
    std::sort(out.begin(), out.end());
    return out;
}

class KernelTest : public RouterTest {
  protected:
    void SetUp() override {
        RouterTest::SetUp();
        up = make_link("up0", 10, 5);
        router.upstream = up;
        links[1] = make_link("eth1", 11, 1);
        links[3] = make_link("eth3", 13, 3);
        forget_kernel_calls();
    }
    // Group Gn on the link of MIF `mif`, joined as a report handler joins it.
    Group* group(int mif, int n = 1) {
        addr6 a = ip6("ff0e::");
        a[15] = static_cast<uint8_t>(n);
        return join_group(&router, links[mif], ip6("fe80::100:1").data(), a.data(), false);
    }
    static addr6 source(const char* text) {
        return text[0] == 'S' ? ip6(("2001:db8::" + std::string(text + 1)).c_str()) : addr6{};
    }

    struct Step {
        const char* op;  // "add|del <mif> inc|req|exc <Sn> [group n]" or "add|del <mif> any"
        texts kernel;
    };
    void run(const std::vector<Step>& steps) {
        for (const auto& st : steps) {
            SCOPED_TRACE(st.op);
            char verb[4], list[4], src[8] = "";
            int mif = 0, grp = 1;
            ASSERT_GE(std::sscanf(st.op, "%3s %d %3s %7s %d", verb, &mif, list, src, &grp), 3);
            const auto kind = static_cast<ListKind>(std::string("increqexc").find(list) / 3);
            const bool add = std::string(verb) == "add";
            fake::kernel().sockopts.clear();
            Group* g = group(mif, grp);
            Link* ifp = links[mif];
            const addr6 s = source(src);
            bool done = true;
            EXPECT_EQ(stdout_of([&] {
                          if (std::string(list) == "any") {
                              (add ? forward_whole_group : withdraw_whole_group)(&router, g, ifp);
                          } else {
                              done = add ? add_to_group_list(&router, g, kind, s.data(), 260, ifp)
                                         : remove_from_group_list(&router, g, g->entry, kind,
                                                                  s.data(), ifp);
                          }
                      }),
                      "");
            EXPECT_TRUE(done);
            EXPECT_EQ(kernel_calls(), st.kernel);
        }
    }

    Link* up = nullptr;
    Link* links[4] = {};
};

// A source's entry lists the MIFs that want it and those of the group's (*,G) entry, less those
// where it is excluded (RFC 3810 section 6.3); it goes when its last mark does, and then the
// (*,G) entry forwards it. Every (S,G) entry follows a change of the (*,G) MIFs. Without an
// upstream no entry can name its parent MIF, so none is written; a (*,G) entry whose last mark
// goes is deleted all the same, so that none is left forwarding to whatever link takes its MIF
// later.
TEST_F(KernelTest, ListOperationsWriteTheEntriesOfTheirMarks) {
    run({
        {"add 1 inc S1", {"add S1 G1 mifs 1"}},
        {"add 3 inc S1", {"add S1 G1 mifs 1,3"}},
        {"add 1 inc S1", {}},  // the timer refreshed, nothing else
        {"add 1 exc S2", {"add S2 G1 mifs "}},
        {"add 1 req S2", {"add S2 G1 mifs 1"}},
        {"del 1 inc S1", {"add S1 G1 mifs 3"}},
        {"del 3 inc S1", {"del S1 G1"}},
        {"del 1 exc S2", {}},             // the exclusion went when the source was requested
        {"del 1 inc S2", {"del S2 G1"}},  // the mark goes though the list no longer names it
    });
    run({
        {"add 3 inc S1 2", {"add S1 G2 mifs 3"}},
        {"add 1 inc S1", {"add S1 G1 mifs 1"}},
        {"add 3 any", {"add :: G1 mifs 3,5", "add S1 G1 mifs 1,3"}},
        {"add 1 inc S2", {"add S2 G1 mifs 1,3"}},
        {"add 1 any", {"add :: G1 mifs 1,3,5", "add S1 G1 mifs 1,3", "add S2 G1 mifs 1,3"}},
        {"add 3 exc S3", {"add S3 G1 mifs 1"}},  // held back on MIF 3 only
        {"add 3 exc S1", {"add S1 G1 mifs 1"}},  // the exclusion overrides the link's own mark
        {"del 3 exc S3", {"del S3 G1"}},
        {"del 3 any", {"add :: G1 mifs 1,5", "add S1 G1 mifs 1", "add S2 G1 mifs 1"}},
        {"del 1 inc S2", {"del S2 G1"}},
        {"del 1 any", {"add S1 G1 mifs 1", "del :: G1"}},
    });
    restart();
    router.upstream = nullptr;
    run({
        {"add 1 inc S1", {}},
        {"add 3 any", {}},
        {"add 1 any", {}},
        {"del 1 any", {}},
        {"add 3 inc S1 2", {}},
        {"add 3 any 0 2", {}},
        {"del 3 any 0 2", {"del :: G2"}},
    });
    router.upstream = up;
    fake::kernel().sockopts.clear();
    rewrite_kernel_forwarding(&router);
    EXPECT_EQ(kernel_calls(),
              (texts{"add :: G1 mifs 3,5", "add S1 G1 mifs 1,3", "add S1 G2 mifs 3"}));
}

// Each kind of kernel call: its record on the router socket, and the message that names it
// when the kernel refuses (the deletion of an (S,G) entry, which may never have been
// installed, fails silently). A MIF the kernel cannot hold (index beyond 16 bits, MIF 32 and
// up) is refused before any call.
TEST_F(KernelTest, EachCallWritesItsRecordAndNamesItsFailure) {
    struct Row {
        const char* name;
        std::function<void()> setup, call;
        texts calls;          // "<option> <record>", or the MFC calls as mfc_calls() gives them
        const char* failure;  // nullptr: refused without a call
    };
    auto link_up = [](uint32_t ifindex) {
        return [ifindex] {
            SystemLink sl{};
            std::strcpy(sl.name, "eth9");
            sl.ifindex = ifindex;
            std::memcpy(sl.addr, ip6("fe80::").data(), 16);
            handle_link_up(&router, &sl);
        };
    };
    auto fill_mifs = [&](uint16_t below) {
        return [&, below] {
            for (uint16_t m = 0; m < below; m++) {
                if (m != 1 && m != 3 && m != 5) {
                    make_link(("f" + std::to_string(m)).c_str(), 100 + m, m);
                }
            }
        };
    };
    auto str = [](const bytes& v) { return std::string(v.begin(), v.end()); };
    const addr6 s1 = source("S1");
    auto mif = [&](uint16_t m, uint16_t pifi) { return str(mif_bytes(m, pifi)); };
    const std::string denied = ": setsockopt: Permission denied\n";
    const char* add_mif = "MLDRT: Setsockopt error on MRT_ADD_MIF";
    auto add_s1 = [&] {
        add_to_group_list(&router, group(1), ListKind::Include, s1.data(), 9, links[1]);
    };
    auto del_s1 = [&] {
        remove_from_group_list(&router, group(1), group(1)->entry, ListKind::Include, s1.data(),
                               links[1]);
    };
    auto none = [] {};
    const std::string s1g1 = "2001:db8::1 ff0e::1";
    // clang-format off
    const std::vector<Row> rows = {
        {"start", none, [] { kernel_start_routing(router.router_sock); },
         {"200 " + str(int_bytes(1))}, "MLDRT: Setsockopt error on MRT6_INIT"},
        {"stop", none, [] { kernel_stop_routing(router.router_sock); }, {"201 null"},
         "MLDRT: Setsockopt error on MRT_DONE"},
        {"link up", none, link_up(0x1234), {"202 " + mif(0, 0x1234)}, add_mif},
        {"link with index 65535", none, link_up(65535), {"202 " + mif(0, 0xffff)}, add_mif},
        {"link with index 65536", none, link_up(65536), {}, nullptr},
        {"link on MIF 31", fill_mifs(31), link_up(7), {"202 " + mif(31, 7)}, add_mif},
        {"link on MIF 32", fill_mifs(32), link_up(7), {}, nullptr},
        {"down", none, [] { SystemLink sl{}; sl.ifindex = 13; handle_link_down(&router, &sl); },
         {"203 " + mif(3, 13)}, "MLDRT: Setsockopt error on MRT_DEL_VIF"},
        {"(S,G) added", none, add_s1, {"add " + s1g1 + " parent 5 mifs 1"},
         "MLDRT: Setsockopt error on MRT_ADD_MFC"},
        {"(*,G) deleted", [&] { forward_whole_group(&router, group(1), links[1]); },
         [&] { withdraw_whole_group(&router, group(1), links[1]); }, {"del :: ff0e::1"},
         "MLDRT: Setsockopt error on MRT_DEL_ADD_MFC"},
        {"(S,G) deleted", add_s1, del_s1, {"del " + s1g1}, ""},
    };
    // clang-format on
    for (const auto& row : rows) {
        for (int fail = 0; fail <= (row.failure ? 1 : 0); fail++) {  // then refused, if called
            SCOPED_TRACE(std::string(row.name) + (fail ? ", refused" : ""));
            restart();
            row.setup();
            forget_kernel_calls();
            fake::kernel().sockopt_result = [fail](const fake::sockopt_call& c) {
                return fail && c.fd == router.router_sock ? -1 : 0;
            };
            std::string out = stdout_of(row.call);
            fake::kernel().sockopt_result = nullptr;
            EXPECT_EQ(out, !row.failure           ? "MLDRT: Setsockopt error on MRT_ADD_MIF\n"
                           : fail && *row.failure ? row.failure + denied
                                                  : "");
            texts calls = mfc_calls();
            if (calls.empty()) {
                for (const auto& c : fake::kernel().sockopts) {
                    if (c.fd != router.router_sock) {
                        continue;  // a new link's own socket options
                    }
                    calls.push_back(std::to_string(c.name) + " " +
                                    (c.null_value ? "null" : str(c.value)));
                }
            }
            EXPECT_EQ(calls, row.calls);
            if (std::string(row.name).find("link") == 0) {
                EXPECT_EQ(find_link_by_name(router.interfaces, "eth9") != nullptr,
                          !fail && row.failure);
            }
        }
    }
}

// After every MIF is deleted and MRT6_DONE (tests/lab/test_signals.sh watches both), the
// sockets are closed; a socket never opened (descriptor 0) is left alone.
TEST_F(KernelTest, ShutdownClosesTheSocketsAfterMrt6DoneButNeverDescriptor0) {
    delete_all_links(&router);
    forget_kernel_calls();
    const std::string rs = std::to_string(router.router_sock);
    const std::string ns = std::to_string(router.netlink_sock);
    shut_down(&router);
    EXPECT_EQ(fake::kernel().log, (texts{"setsockopt 41/201", "close " + rs, "close " + ns}));
    EXPECT_EQ(router.router_sock, 0);
    forget_kernel_calls();
    shut_down(&router);
    EXPECT_EQ(fake::kernel().log, texts{});
}

}  // namespace
