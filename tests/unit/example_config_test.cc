// The example configuration installed as /etc/mld/mld.conf (packaging/mld.conf), read by the
// daemon's own reader: it must give the usual values, and its comment lines must mean nothing.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "daemon/config.h"
#include "test_support.h"

using namespace mldproxy;

namespace {

class ExampleConfigTest : public RouterTest {
  protected:
    void SetUp() override {
        RouterTest::SetUp();
        router.robustness = router.query_interval = router.query_response_interval = 0;
        router.last_listener_query_interval = router.last_listener_query_count = 0;
        router.verbose = 0;
        std::memset(router.upstream_ifname, 0, sizeof router.upstream_ifname);
    }

    // Reads `text` as the configuration file; the reader's output goes to `out`.
    ConfigResult read(std::string text, std::string* out) {
        ConfigResult result = ConfigResult::Ok;
        FILE* fp = fmemopen(&text[0], text.size(), "r");
        EXPECT_NE(fp, nullptr);
        if (!fp) {
            return ConfigResult::NoUpstream;
        }
        *out = stdout_of([&] { result = read_config(&router, fp, "mld.conf"); });
        fclose(fp);
        return result;
    }
};

std::vector<std::string> example_lines() {
    std::ifstream in(MLD_EXAMPLE_CONFIG);
    EXPECT_TRUE(in.good()) << "cannot read " << MLD_EXAMPLE_CONFIG;
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> words_of(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string w; in >> w;) {
        words.push_back(w);
    }
    return words;
}

bool is_comment(const std::string& line) {
    return line.compare(0, 1, "#") == 0;
}

TEST_F(ExampleConfigTest, ReaderTakesTheUsualValuesSilently) {
    std::FILE* fp = std::fopen(MLD_EXAMPLE_CONFIG, "r");
    ASSERT_NE(fp, nullptr) << MLD_EXAMPLE_CONFIG;
    ConfigResult result = ConfigResult::NoUpstream;
    EXPECT_EQ(stdout_of([&] { result = read_config(&router, fp, "mld.conf"); }), "");
    std::fclose(fp);
    EXPECT_EQ(result, ConfigResult::Ok);
    EXPECT_STREQ(router.upstream_ifname, "eth0");
    EXPECT_EQ(router.robustness, 2u);
    EXPECT_EQ(router.query_interval, 125u);
    EXPECT_EQ(router.query_response_interval, 10000u);
    EXPECT_EQ(router.last_listener_query_interval, 1u);
    EXPECT_EQ(router.last_listener_query_count, 2u);
    EXPECT_EQ(router.verbose, 0u);
}

// Every line is a "#" comment or exactly "KEYWORD value"; every keyword comes once, right after
// a comment line that explains it; and the comment lines alone set nothing.
TEST_F(ExampleConfigTest, EveryKeyOnceBelowACommentAndCommentsSetNothing) {
    const std::vector<std::string> lines = example_lines();
    ASSERT_FALSE(lines.empty());
    std::set<int> seen;
    std::string comments;
    for (size_t i = 0; i < lines.size(); i++) {
        SCOPED_TRACE("line " + std::to_string(i + 1) + ": " + lines[i]);
        if (is_comment(lines[i])) {
            comments += lines[i] + "\n";
            continue;
        }
        const std::vector<std::string> words = words_of(lines[i]);
        ASSERT_EQ(words.size(), 2u) << "want exactly a keyword and its value";
        int id = get_option(words[0].c_str());
        EXPECT_GE(id, kOptUpstreamIfname);
        EXPECT_LE(id, kOptVerbose);
        EXPECT_TRUE(seen.insert(id).second) << "keyword given twice";
        ASSERT_GT(i, 0u);
        EXPECT_TRUE(is_comment(lines[i - 1])) << "no comment line above the keyword";
    }
    EXPECT_EQ(seen.size(), 7u) << "every keyword of the reader is in the example";

    std::string out;
    EXPECT_EQ(read(comments, &out), ConfigResult::NoUpstream);
    EXPECT_EQ(out, "");
    EXPECT_EQ(router.upstream_ifname[0], '\0');
    EXPECT_EQ(router.robustness, 0u);
    EXPECT_EQ(router.query_interval, 0u);
    EXPECT_EQ(router.query_response_interval, 0u);
    EXPECT_EQ(router.last_listener_query_interval, 0u);
    EXPECT_EQ(router.last_listener_query_count, 0u);
    EXPECT_EQ(router.verbose, 0u);
}

}  // namespace
