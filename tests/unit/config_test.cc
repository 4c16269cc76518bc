// The configuration file: every key into its field, defaults and their lines, every bad line
// named with its number, and what `mldproxyd -t` says of a good file.
#include <unistd.h>

#include <cstdio>

#include "daemon/config.h"
#include "test_support.h"

namespace {

class ConfigTest : public RouterTest {
  protected:
    // What init_daemon leaves before the file is read: every configured value 0. Byte 16 of
    // the name is dirtied so that a name cut to 16 characters must be terminated by the reader.
    void clear_config() {
        router.robustness = router.query_interval = router.query_response_interval = 0;
        router.last_listener_query_interval = router.last_listener_query_count = 0;
        router.verbose = 0;
        std::memset(router.upstream_ifname, 0, sizeof router.upstream_ifname);
        router.upstream_ifname[kIfnameLen] = 'Z';
        std::memset(router.downstream_ifnames, 0, sizeof router.downstream_ifnames);
        router.downstream_count = 0;
    }

    // The upstream name, robustness, QI, QRI, LLQI, LLQC, VERBOSE and the downstream names.
    std::string fields() {
        const Router& r = router;
        std::string s(r.upstream_ifname, strnlen(r.upstream_ifname, sizeof r.upstream_ifname));
        for (uint32_t v :
             {r.robustness, r.query_interval, r.query_response_interval,
              r.last_listener_query_interval, r.last_listener_query_count, r.verbose}) {
            s += " " + std::to_string(v);
        }
        for (uint32_t i = 0; i < r.downstream_count; i++) {
            s += " " + std::string(r.downstream_ifnames[i]);
        }
        return s;
    }
    ConfigResult read(std::string text, std::string* out) {
        FILE* fp = fmemopen(&text[0], text.size(), "r");
        EXPECT_NE(fp, nullptr);
        ConfigResult result = ConfigResult::Ok;
        *out = stdout_of([&] { result = read_config(&router, fp, "mld.conf"); });
        fclose(fp);
        return result;
    }
};

const std::string kUp = "UPSTREAM_IFNAME e\n";
// Every tuning key but the one a row is about, so that no default line is printed for them.
const std::string kR = "ROBUSTNESS_VARIABLE 3\n", kQi = "QUERY_INTERVAL 9\n";
const std::string kQri = "QUERY_RESPONSE_INTERVAL 1000\n",
                  kLlqi = "LAST_LISTENER_QUERY_INTERVAL 2\n";
const std::string kLlqc = "LAST_LISTENER_QUERY_COUNT 4\n";
const ConfigResult OK = ConfigResult::Ok, NO_UP = ConfigResult::NoUpstream;
const ConfigResult BAD = ConfigResult::BadRobustness, LINES = ConfigResult::BadLines;
const std::string kRobustnessMsg = "\nMLDRT: Robustness must be greater than 1\n";

std::string at(int line, const std::string& what) {
    return "MLDRT: mld.conf:" + std::to_string(line) + ": " + what + "\n";
}

// Rows: the file; the result; what was printed; then the fields() it leaves.
TEST_F(ConfigTest, FileTextSetsRouterFields) {
    struct Row {
        const char* name;
        std::string text;
        ConfigResult result;
        std::string out, fields;
    };
    std::string many, d0_30;
    for (int i = 0; i < 32; i++) {
        many += "DOWNSTREAM_IFNAME d" + std::to_string(i) + "\n";
        d0_30 += i < 31 ? " d" + std::to_string(i) : "";
    }
    // clang-format off
    const std::vector<Row> rows = {
        {"only the upstream name: every other key takes its RFC 3810 default",
         "UPSTREAM_IFNAME eth0\n", OK,
         "MLDRT: ROBUSTNESS_VARIABLE not set, using the RFC 3810 default 2\n"
         "MLDRT: QUERY_INTERVAL not set, using the RFC 3810 default 125 s\n"
         "MLDRT: QUERY_RESPONSE_INTERVAL not set, using the RFC 3810 default 10000 ms\n"
         "MLDRT: LAST_LISTENER_QUERY_INTERVAL not set, using the RFC 3810 default 1 s\n"
         "MLDRT: LAST_LISTENER_QUERY_COUNT not set, using the robustness 2\n",
         "eth0 2 125 10000 1 2 0"},
        {"every key into its own field, silently",
         "UPSTREAM_IFNAME eth0\nROBUSTNESS_VARIABLE 2\nQUERY_INTERVAL 125\n"
         "QUERY_RESPONSE_INTERVAL 10000\nLAST_LISTENER_QUERY_INTERVAL 4\n"
         "LAST_LISTENER_QUERY_COUNT 3\nVERBOSE 1\n", OK, "", "eth0 2 125 10000 4 3 1"},
        {"last listener query interval 0 would never end a leave: 1 s",
         kUp + kR + kQi + kQri + kLlqc + "LAST_LISTENER_QUERY_INTERVAL 0\n", OK,
         "MLDRT: LAST_LISTENER_QUERY_INTERVAL 0 taken as the RFC 3810 default 1 s\n",
         "e 3 9 1000 1 4 0"},
        {"count without value takes the robustness, also one given later",
         kUp + "LAST_LISTENER_QUERY_COUNT\n" + kR + kQi + kQri + kLlqi, OK,
         "MLDRT: LAST_LISTENER_QUERY_COUNT not set, using the robustness 3\n", "e 3 9 1000 2 3 0"},
        {"third word of the count line sets verbose",
         kUp + kR + kQi + kQri + kLlqi + "LAST_LISTENER_QUERY_COUNT 2 1\n", OK, "",
         "e 3 9 1000 2 2 1"},
        {"comment lines, blank lines and comments after values",
         "# UPSTREAM_IFNAME x\n" + kUp + kR + kQri + kLlqi +
             "QUERY_INTERVAL 125 # comment 9\n\n  \t\n#x\nLAST_LISTENER_QUERY_COUNT 2 # 1\n",
         OK, "", "e 3 125 1000 2 2 0"},
        {"the last line wins",
         "UPSTREAM_IFNAME eth0.100\nUPSTREAM_IFNAME b\nQUERY_INTERVAL 1\nQUERY_INTERVAL 2\n" + kR +
             kQri + kLlqi + kLlqc, OK, "", "b 3 2 1000 2 4 0"},
        {"tabs and CR line ends separate words",
         "\tUPSTREAM_IFNAME\teth1\r\nQUERY_RESPONSE_INTERVAL\t1000\r\n\r\n" + kR + kQi + kLlqi +
             kLlqc, OK, "", "eth1 3 9 1000 2 4 0"},
        {"largest values",
         kUp + kLlqc + "ROBUSTNESS_VARIABLE 7\nQUERY_INTERVAL 31744\n"
             "QUERY_RESPONSE_INTERVAL 8387584\nLAST_LISTENER_QUERY_INTERVAL 32\n",
         OK, "", "e 7 31744 8387584 32 4 0"},
        {"downstream links, each kept once",
         kUp + kR + kQi + kQri + kLlqi + kLlqc +
             "DOWNSTREAM_IFNAME lan0\nDOWNSTREAM_IFNAME br-lan # the LAN\nDOWNSTREAM_IFNAME lan0\n",
         OK, "", "e 3 9 1000 2 4 0 lan0 br-lan"},
        {"upstream keyword without a name names none", "UPSTREAM_IFNAME\nUPSTREAM_IFNAME \t# wan\n",
         NO_UP,
         at(1, "no value for \"UPSTREAM_IFNAME\"") + at(2, "no value for \"UPSTREAM_IFNAME\""),
         " 0 0 0 0 0 0"},
        {"unknown, lower-case, KEY=value and comment-glued keywords each named",
         kUp + kR + "query_interval 7\nQUERY_INTERVAL=7\nQUERY_INTERVAL# 7\nMAX_GROUPS 5\n", LINES,
         at(3, "unknown keyword \"query_interval\"") +
             at(4, "unknown keyword \"QUERY_INTERVAL=7\"") +
             at(5, "unknown keyword \"QUERY_INTERVAL#\"") + at(6, "unknown keyword \"MAX_GROUPS\""),
         "e 3 0 0 0 0 0"},
        {"values that are not numbers or out of range each named, reading goes on",
         kUp + "QUERY_INTERVAL 12abc\nQUERY_RESPONSE_INTERVAL 0\nVERBOSE 2\n"
               "LAST_LISTENER_QUERY_INTERVAL -1\nLAST_LISTENER_QUERY_COUNT 8\nVERBOSE\n"
               "ROBUSTNESS_VARIABLE 8\nQUERY_INTERVAL 4294967296\nQUERY_INTERVAL 31745\n"
               "QUERY_RESPONSE_INTERVAL +7\n", LINES,
         at(2, "not a number \"12abc\"") + at(3, "out of range 1-8387584 \"0\"") +
             at(4, "out of range 0-1 \"2\"") + at(5, "out of range 0-32 \"-1\"") +
             at(6, "out of range 1-7 \"8\"") + at(7, "no value for \"VERBOSE\"") +
             at(8, "out of range 1-7 \"8\"") + at(9, "out of range 1-31744 \"4294967296\"") +
             at(10, "out of range 1-31744 \"31745\""),
         "e 0 0 7 0 0 0"},
        {"robustness abc fails like 0 and stops reading",
         kUp + "ROBUSTNESS_VARIABLE abc\nQUERY_INTERVAL 9\n", BAD,
         kRobustnessMsg + at(2, "not a number \"abc\""), "e 0 0 0 0 0 0"},
        {"robustness 0 before the upstream name", "ROBUSTNESS_VARIABLE 0\nUPSTREAM_IFNAME e\n", BAD,
         kRobustnessMsg + at(1, "out of range 1-7 \"0\""), " 0 0 0 0 0 0"},
        {"robustness -1 refused like 0", kUp + "ROBUSTNESS_VARIABLE -1\n", BAD,
         kRobustnessMsg + at(2, "out of range 1-7 \"-1\""), "e 0 0 0 0 0 0"},
        {"20-character name cut to 16, terminated and named",
         "UPSTREAM_IFNAME abcdefghijklmnopqrst\n", LINES,
         at(1, "interface name longer than 15 characters \"abcdefghijklmnopqrst\""),
         "abcdefghijklmnop 0 0 0 0 0 0"},
        {"a line longer than the buffer is named once and skipped whole",
         kUp + "#" + std::string(2046, 'x') + "QUERY_INTERVAL 42\nQUERY_INTERVAL x\n", LINES,
         at(2, "line longer than the buffer \"#" + std::string(63, 'x') + "\"") +
             at(3, "not a number \"x\""),
         "e 0 0 0 0 0 0"},
        {"downstream names: none, too long, too many",
         kUp + "DOWNSTREAM_IFNAME\nDOWNSTREAM_IFNAME abcdefghijklmnop\n" + many, LINES,
         at(2, "no value for \"DOWNSTREAM_IFNAME\"") +
             at(3, "interface name longer than 15 characters \"abcdefghijklmnop\"") +
             at(35, "more than 31 downstream links \"d31\""),
         "e 0 0 0 0 0 0" + d0_30},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        clear_config();
        std::string out;
        EXPECT_EQ(read(row.text, &out), row.result);
        EXPECT_EQ(out, row.out);
        EXPECT_EQ(fields(), row.fields);
    }
}

// `mldproxyd -t` names a good file. (tests/lab/test_config.sh runs it on a good file and on a
// bad one, and starts the daemon with a missing file, robustness 0 and no upstream: the same
// reader, the same messages.)
TEST(ConfigCheckTest, AGoodFileIsNamed) {
    char dir[] = "/tmp/mldconf.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/mld.conf";
    FILE* fp = fopen(path.c_str(), "w");
    ASSERT_NE(fp, nullptr);
    fputs(("UPSTREAM_IFNAME up0\n" + kR + kQi + kQri + kLlqi + kLlqc).c_str(), fp);
    fclose(fp);
    int rc = 1;
    EXPECT_EQ(stdout_of([&] { rc = check_config(path.c_str()); }),
              "MLDRT: Configuration file " + path + " is good\n");
    EXPECT_EQ(rc, 0);
    unlink(path.c_str());
    rmdir(dir);
}

}  // namespace
