// Messages a LAN host can cause are printed at most once a second per text; the next one says
// how many were held back, before its newline (or at the end of a text without one). With
// --syslog every line becomes one record.
#include "base/log.h"
#include "test_support.h"

using namespace mldproxy;

namespace {

class LogTest : public RouterTest {};

const char* const kLine = "MLDRT: Couldnt add src to grp include list\n";
const char* const kNoNewline = "\n Cannot send query, numSrc and list inconsistent %d %d";

TEST_F(LogTest, EachTextAtMostOnceASecondAndOneSyslogRecordPerLine) {
    struct Step {
        uint64_t at_ms;  // since the start
        const char* fmt;
        std::string printed;
    };
    const std::vector<Step> steps = {
        {0, kLine, kLine},
        {10, kLine, ""},
        {500, kLine, ""},
        {600, kNoNewline, "\n Cannot send query, numSrc and list inconsistent 1 2"},  // its own
        {999, kLine, ""},
        {1000, kLine,
         "MLDRT: Couldnt add src to grp include list (3 more like this in the last second)\n"},
        {1700, kNoNewline, "\n Cannot send query, numSrc and list inconsistent 1 2"},
        {1800, kNoNewline, ""},
        {2800, kNoNewline,
         "\n Cannot send query, numSrc and list inconsistent 1 2 (1 more like this in the last "
         "second)"},
        {5000, kLine, kLine},  // nothing held back since: no count
    };
    const uint64_t start = fake::kernel().monotonic_ms;
    for (const auto& step : steps) {
        SCOPED_TRACE(testing::Message() << step.at_ms << " ms");
        fake::kernel().monotonic_ms = start + step.at_ms;
        testing::internal::CaptureStdout();  // not stdout_of: it forgets what was held back
        const int n = log_message(step.fmt, 1, 2);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), step.printed);
        EXPECT_GT(n, 0);  // the text's length, printed or not
    }

    // Messages begin with their newline or end with it, and the diagnostic dumps come in
    // pieces: syslog gets each line once it is whole, blank lines none, an overlong line in parts.
    testing::internal::CaptureStdout();
    log_use_syslog(true);
    print_message("\n Couldnt empty include list\n");
    print_message("\n \tMFD %d", 7);
    print_message(" NULL");
    print_message("\n\n");
    print_message("MLDRT: %s\n", std::string(500, 'x').c_str());
    log_message("MLDV2: Fatal- Couldnt send query: sendmsg: %s\n", "No buffer space available");
    log_message("MLDV2: Fatal- Couldnt send query: sendmsg: %s\n", "No buffer space available");
    fake::kernel().monotonic_ms += 1000;
    log_message("MLDV2: Fatal- Couldnt send query: sendmsg: %s\n", "No buffer space available");
    print_message("the last piece stays until its newline");
    log_use_syslog(false);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    const std::string text = "MLDRT: " + std::string(500, 'x');
    EXPECT_EQ(fake::kernel().syslog,
              std::vector<std::string>({
                  "mldproxyd 24 1",  // LOG_DAEMON, LOG_PID
                  "6  Couldnt empty include list",
                  "6  \tMFD 7 NULL",
                  "6 " + text.substr(0, 480),
                  "6 " + text.substr(480),
                  "6 MLDV2: Fatal- Couldnt send query: sendmsg: No buffer space available",
                  "6 MLDV2: Fatal- Couldnt send query: sendmsg: No buffer space available (1 more "
                  "like this in the last second)",
              }));
}

}  // namespace
