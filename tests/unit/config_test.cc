#include <unistd.h>

#include <cstdio>

#include "core/config.h"
#include "test_support.h"

namespace {

class ConfigTest : public RouterTest {
  protected:
    // What mldv2_init leaves before the file is read: every configured value 0. Byte 16 of
    // the name is dirtied so that a name cut to 16 characters must be terminated by the reader.
    void clear_config() {
        router.robustness = router.query_interval = router.query_response_interval = 0;
        router.last_listener_query_interval = router.last_listener_query_count = 0;
        router.verbose = 0;
        std::memset(router.upstream_ifname, 0, sizeof router.upstream_ifname);
        router.upstream_ifname[MLDRT_IFNAME_LEN] = 'Z';
    }
};

struct ConfigRow {
    const char* name;
    std::string text;
    const char* ifname;
    uint32_t robustness, qi, qri, llqi, llqc, verbose;
    mldrt_config_result result;
    const char* out;
};

const char* const kUp = "UPSTREAM_IFNAME e\n";
const mldrt_config_result OK = MLDRT_CONFIG_OK;
const mldrt_config_result NO_UP = MLDRT_CONFIG_NO_UPSTREAM;
const mldrt_config_result BAD = MLDRT_CONFIG_BAD_ROBUSTNESS;
const char* const kRobustnessMsg = "\nMLDRT: Robustness must be greater than 1";

TEST_F(ConfigTest, FileTextSetsRouterFields) {
    const std::vector<ConfigRow> rows = {
        {"only upstream name: everything else stays 0", "UPSTREAM_IFNAME eth0\n", "eth0", 0, 0, 0,
         0, 0, 0, OK, ""},
        {"every key into its own field",
         "UPSTREAM_IFNAME eth0\nROBUSTNESS_VARIABLE 2\nQUERY_INTERVAL 125\n"
         "QUERY_RESPONSE_INTERVAL 10000\nLAST_LISTENER_QUERY_INTERVAL 4\n"
         "LAST_LISTENER_QUERY_COUNT 3\nVERBOSE 5\n",
         "eth0", 2, 125, 10000, 4, 3, 5, OK, ""},
        {"upstream name without value does not name one", "UPSTREAM_IFNAME\nUPSTREAM_IFNAME \t\n",
         "", 0, 0, 0, 0, 0, 0, NO_UP, ""},
        {"robustness abc fails like 0 and stops reading",
         std::string(kUp) + "ROBUSTNESS_VARIABLE abc\nQUERY_INTERVAL 9\n", "e", 0, 0, 0, 0, 0, 0,
         BAD, kRobustnessMsg},
        {"robustness 0 before the upstream name", "ROBUSTNESS_VARIABLE 0\nUPSTREAM_IFNAME e\n", "",
         0, 0, 0, 0, 0, 0, BAD, kRobustnessMsg},
        {"robustness 2^32 reads as 0", std::string(kUp) + "ROBUSTNESS_VARIABLE 4294967296\n", "e",
         0, 0, 0, 0, 0, 0, BAD, kRobustnessMsg},
        {"robustness -1 accepted as 2^32-1", std::string(kUp) + "ROBUSTNESS_VARIABLE -1\n", "e",
         4294967295u, 0, 0, 0, 0, 0, OK, ""},
        {"numbers beyond 32 bits wrap modulo 2^32",
         std::string(kUp) +
             "ROBUSTNESS_VARIABLE 4294967297\nQUERY_INTERVAL 99999999999\nVERBOSE -4294967297\n",
         "e", 1, 1215752191u, 0, 0, 0, 4294967295u, OK, ""},
        {"numbers read like atoi",
         std::string(kUp) +
             "QUERY_INTERVAL 12abc\nQUERY_RESPONSE_INTERVAL +7\nLAST_LISTENER_QUERY_INTERVAL x5\n",
         "e", 0, 12, 7, 0, 0, 0, OK, ""},
        {"count without value takes the robustness read before",
         std::string(kUp) + "ROBUSTNESS_VARIABLE 3\nLAST_LISTENER_QUERY_COUNT\n", "e", 3, 0, 0, 0,
         3, 0, OK, ""},
        {"count without value before the robustness takes 0",
         std::string(kUp) + "LAST_LISTENER_QUERY_COUNT 5\nLAST_LISTENER_QUERY_COUNT\n"
                            "ROBUSTNESS_VARIABLE 3\n",
         "e", 3, 0, 0, 0, 0, 0, OK, ""},
        {"third token of the count line sets verbose",
         std::string(kUp) + "LAST_LISTENER_QUERY_COUNT 2 1\n", "e", 0, 0, 0, 0, 2, 1, OK, ""},
        {"keywords are case-sensitive", std::string(kUp) + "query_interval 7\n", "e", 0, 0, 0, 0, 0,
         0, OK, ""},
        {"comment glued to a keyword hides it", std::string(kUp) + "QUERY_INTERVAL# 7\n", "e", 0, 0,
         0, 0, 0, 0, OK, ""},
        {"comment line and comment after the value",
         "# UPSTREAM_IFNAME x\n" + std::string(kUp) + "QUERY_INTERVAL 125 # comment 9\n", "e", 0,
         125, 0, 0, 0, 0, OK, ""},
        {"the last line with a value wins",
         "UPSTREAM_IFNAME eth0.100\nUPSTREAM_IFNAME b\nQUERY_INTERVAL 1\nQUERY_INTERVAL 2\n"
         "QUERY_INTERVAL\nVERBOSE 4\nVERBOSE\n",
         "b", 0, 2, 0, 0, 0, 4, OK, ""},
        {"20-character name cut to 16 and terminated", "UPSTREAM_IFNAME abcdefghijklmnopqrst\n",
         "abcdefghijklmnop", 0, 0, 0, 0, 0, 0, OK, ""},
        {"line of 2047+ characters is read in 2047-character pieces",
         std::string(kUp) + "#" + std::string(2046, 'x') + "QUERY_INTERVAL 42\n", "e", 0, 42, 0, 0,
         0, 0, OK, ""},
        {"tabs and CR line ends separate tokens",
         "\tUPSTREAM_IFNAME\teth1\r\nQUERY_RESPONSE_INTERVAL\t1000\r\n\r\n", "eth1", 0, 0, 1000, 0,
         0, 0, OK, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        clear_config();
        std::string text = row.text;
        FILE* fp = fmemopen(&text[0], text.size(), "r");
        ASSERT_NE(fp, nullptr);
        mldrt_config_result result = MLDRT_CONFIG_OK;
        EXPECT_EQ(stdout_of([&] { result = mldrt_read_config(&router, fp); }), row.out);
        fclose(fp);
        EXPECT_EQ(result, row.result);
        const char* n = router.upstream_ifname;
        EXPECT_EQ(std::string(n, strnlen(n, sizeof router.upstream_ifname)), row.ifname);
        EXPECT_EQ(std::vector<uint32_t>({router.robustness, router.query_interval,
                                         router.query_response_interval,
                                         router.last_listener_query_interval,
                                         router.last_listener_query_count, router.verbose}),
                  std::vector<uint32_t>(
                      {row.robustness, row.qi, row.qri, row.llqi, row.llqc, row.verbose}));
    }
}

TEST(ConfigOptionTest, ExactKeywordGivesItsIdElseEight) {
    const std::vector<std::pair<const char*, int>> rows = {
        {"UPSTREAM_IFNAME", 1},
        {"ROBUSTNESS_VARIABLE", 2},
        {"QUERY_INTERVAL", 3},
        {"QUERY_RESPONSE_INTERVAL", 4},
        {"LAST_LISTENER_QUERY_INTERVAL", 5},
        {"LAST_LISTENER_QUERY_COUNT", 6},
        {"VERBOSE", 7},
        {"", 0},
        {nullptr, 8},
        {"verbose", 8},
        {"QUERY_INTERVALS", 8},
        {"QUERY", 8},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.first ? row.first : "(no token)");
        EXPECT_EQ(mldrt_get_option(row.first), row.second);
    }
}

TEST_F(ConfigTest, MissingFileIsReportedWithoutNewline) {
    int rc = 0;
    EXPECT_EQ(stdout_of([&] { rc = mldrt_get_config(&router, "/nonexistent/mld.conf"); }),
              "\nMLDRT: Can't open file /nonexistent/mld.conf");
    EXPECT_EQ(rc, -1);
}

}  // namespace
