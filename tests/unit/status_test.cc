// What `mldproxyd status` shows and how the command line and the control socket behave: the
// option parser, one golden output of the table and of the JSON object, and the control
// socket's answers to good, unknown, oversized and silent clients.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>

#include "daemon/cli.h"
#include "daemon/control.h"
#include "daemon/status.h"
#include "test_support.h"

namespace {

// Rows: the words; then the command, configuration path, socket path, --json, --syslog and the
// word refused, as one line. Help and the version never start the proxy, whatever else is
// given; status reads no file and takes no -t or --syslog; --json is for status only.
TEST(CommandLineTest, OptionsAndCommands) {
    const std::string d = " /etc/mld/mld.conf /run/mldproxyd.sock ";
    const std::vector<std::pair<std::vector<const char*>, std::string>> rows = {
        {{}, "run" + d + "0 0 -"},
        {{"status"}, "status" + d + "0 0 -"},
        {{"--help"}, "help" + d + "0 0 -"},
        {{"-h"}, "help" + d + "0 0 -"},
        {{"--version"}, "version" + d + "0 0 -"},
        {{"-f"}, "bad" + d + "0 0 -f"},
        {{"-x"}, "bad" + d + "0 0 -x"},
        {{"--json"}, "bad" + d + "0 0 --json"},
        {{"status", "-f", "a"}, "bad" + d + "0 0 -f"},
        {{"status", "extra"}, "bad" + d + "0 0 extra"},
        {{"--syslog", "-h"}, "help" + d + "0 0 -"},
        {{"-s", "/y", "--version"}, "version" + d + "0 0 -"},
        {{"-t"}, "check" + d + "0 0 -"},
        {{"-t", "-f", "/tmp/a.conf"}, "check /tmp/a.conf /run/mldproxyd.sock 0 0 -"},
        {{"--syslog", "-f", "/tmp/a.conf"}, "run /tmp/a.conf /run/mldproxyd.sock 0 1 -"},
        {{"status", "-t"}, "bad" + d + "0 0 -t"},
        {{"status", "--syslog"}, "bad" + d + "0 0 --syslog"},
        {{"-syslog"}, "bad" + d + "0 0 -syslog"},
    };
    const char* const names[] = {"run", "check", "status", "help", "version", "bad"};  // Command
    for (const auto& [args, want] : rows) {
        std::vector<const char*> argv = {"mldproxyd"};
        argv.insert(argv.end(), args.begin(), args.end());
        SCOPED_TRACE(want);
        Options o = parse_options(static_cast<int>(argv.size()), argv.data());
        const auto c = static_cast<size_t>(o.command);
        const std::string got = std::string(c < 6 ? names[c] : "?") + " " + o.config_path + " " +
                                o.socket_path + " " + std::to_string(o.json) + " " +
                                std::to_string(o.syslog) + " " + (o.bad_word ? o.bad_word : "-");
        EXPECT_EQ(got, want);
    }
}

class StatusTest : public UpstreamTest {
  protected:
    // eth1 listens to G1 from every source, eth2 to G2 from S1 only and to G3 from all but S2;
    // all of it reported upstream (one report of the three records and its retransmission).
    // Every kernel entry counts 7 packets of 700 bytes. No eth3.
    void SetUp() override {
        UpstreamTest::SetUp();
        delete_link(eth3);
        make_group(eth1, G1, exclude({}, {}, 250), host);
        make_group(eth2, G2, include({{1, 90}}), host);
        make_group(eth2, G3, exclude({}, {{2, 0}}, 200), host);
        tick();
        tick();
        eth1->started = true;
        eth1->query_due_ms = fake::monotonic_now_ms() + 3500;
        eth1->counters = {4, 1, 2, 3};
        router.counters = {5, 6, 7, 8};
        fake::kernel().sg_counts = {true, 7, 700, 1};
    }
    std::string render(bool json) {
        Text t{};
        render_status(&router, json, &t);
        std::string out(t.data ? t.data : "", t.len);
        text_free(&t);
        return out;
    }
};

// A table for a person, one JSON object for scripts.
TEST_F(StatusTest, TableAndJson) {
    EXPECT_EQ(render(false),
              "links:\n"
              "  NAME             IFINDEX  MIF ROLE       MLD QUERIER NEXT QUERY\n"
              "  eth2                  12    2 downstream  v2 yes     -\n"
              "  eth1                  11    1 downstream  v2 yes     4 s\n"
              "  up0                   10    0 upstream    v2 no      -\n"
              "groups on eth2:\n"
              "  GROUP                                   MODE     TIMER HOSTS SOURCES\n"
              "  ff0e::103                               exclude  200 s     1 not 2001:db8::2\n"
              "  ff0e::102                               include      -     1 2001:db8::1 (90 s)\n"
              "groups on eth1:\n"
              "  GROUP                                   MODE     TIMER HOSTS SOURCES\n"
              "  ff0e::101                               exclude  250 s     1 all\n"
              "upstream host state (up0):\n"
              "  GROUP                                   MODE    PENDING SOURCES\n"
              "  ff0e::103                               exclude       0 2001:db8::2\n"
              "  ff0e::102                               include       0 2001:db8::1\n"
              "  ff0e::101                               exclude       0 all\n"
              "forwarding (kernel):\n"
              "  GROUP                                   SOURCE                                  "
              " IN OUT         PACKETS        BYTES WRONG IF\n"
              "  ff0e::103                               2001:db8::2                             "
              "  0 -                 7          700        1\n"
              "  ff0e::103                               *                                       "
              "  0 2                 7          700        1\n"
              "  ff0e::102                               2001:db8::1                             "
              "  0 2                 7          700        1\n"
              "  ff0e::101                               *                                       "
              "  0 1                 7          700        1\n"
              "counters:\n"
              "  LINK             REPORTS IN QUERIES IN REPORTS OUT QUERIES OUT\n"
              "  eth2                      0          0           0           0\n"
              "  eth1                      4          1           2           3\n"
              "  up0                       0          0           2           0\n"
              "  dropped: malformed 5, own 6, not ours 7\n"
              "  limit refusals: groups 0, members 0, sources 0\n"
              "  netlink events: 8\n");
    fake::kernel().sg_counts.present = false;  // an entry the kernel does not have counts 0
    EXPECT_EQ(render(true),
              "{\"links\":[{\"name\":\"eth2\",\"ifindex\":12,\"mif\":2,\"upstream\":false,"
              "\"version\":2,\"querier\":true,\"next_query\":-1,"
              "\"groups\":[{\"group\":\"ff0e::103\",\"mode\":\"exclude\",\"filter_timer\":200,"
              "\"sources\":[],\"excluded\":[\"2001:db8::2\"],\"hosts\":1},"
              "{\"group\":\"ff0e::102\",\"mode\":\"include\",\"filter_timer\":0,"
              "\"sources\":[{\"source\":\"2001:db8::1\",\"timer\":90}],\"excluded\":[],"
              "\"hosts\":1}]},{\"name\":\"eth1\",\"ifindex\":11,\"mif\":1,\"upstream\":false,"
              "\"version\":2,\"querier\":true,\"next_query\":4,"
              "\"groups\":[{\"group\":\"ff0e::101\",\"mode\":\"exclude\",\"filter_timer\":250,"
              "\"sources\":[],\"excluded\":[],\"hosts\":1}]},{\"name\":\"up0\",\"ifindex\":10,"
              "\"mif\":0,\"upstream\":true,\"version\":2,\"querier\":false,\"next_query\":-1,"
              "\"groups\":[]}],\"upstream\":{\"name\":\"up0\","
              "\"groups\":[{\"group\":\"ff0e::103\",\"mode\":\"exclude\","
              "\"sources\":[\"2001:db8::2\"],\"pending\":0},{\"group\":\"ff0e::102\","
              "\"mode\":\"include\",\"sources\":[\"2001:db8::1\"],\"pending\":0},"
              "{\"group\":\"ff0e::101\",\"mode\":\"exclude\",\"sources\":[],\"pending\":0}]},"
              "\"forwarding\":[{\"group\":\"ff0e::103\",\"source\":\"2001:db8::2\","
              "\"parent_mif\":0,\"mifs\":[],\"packets\":0,\"bytes\":0,\"wrong_if\":0},"
              "{\"group\":\"ff0e::103\",\"source\":\"*\",\"parent_mif\":0,\"mifs\":[2],"
              "\"packets\":0,\"bytes\":0,\"wrong_if\":0},{\"group\":\"ff0e::102\","
              "\"source\":\"2001:db8::1\",\"parent_mif\":0,\"mifs\":[2],\"packets\":0,"
              "\"bytes\":0,\"wrong_if\":0},{\"group\":\"ff0e::101\",\"source\":\"*\","
              "\"parent_mif\":0,\"mifs\":[1],\"packets\":0,\"bytes\":0,\"wrong_if\":0}],"
              "\"counters\":{\"links\":[{\"name\":\"eth2\",\"reports_in\":0,\"queries_in\":0,"
              "\"reports_out\":0,\"queries_out\":0},{\"name\":\"eth1\",\"reports_in\":4,"
              "\"queries_in\":1,\"reports_out\":2,\"queries_out\":3},{\"name\":\"up0\","
              "\"reports_in\":0,\"queries_in\":0,\"reports_out\":2,\"queries_out\":0}],"
              "\"dropped\":{\"malformed\":5,\"own\":6,\"not_ours\":7},"
              "\"limit_refusals\":{\"groups\":0,\"members\":0,\"sources\":0},"
              "\"netlink_events\":8}}\n");
}

// The real socket in a directory of the test's own: mode 0600, stale sockets replaced, a
// second daemon refused, and the clients' requests answered or refused in the event loop.
class ControlTest : public StatusTest {
  protected:
    void SetUp() override {
        StatusTest::SetUp();
        char tmpl[] = "/tmp/mldctl.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        path = dir + "/ctl.sock";
    }
    void TearDown() override {
        control_close(&router);
        unlink(path.c_str());
        rmdir(dir.c_str());
        StatusTest::TearDown();
    }
    int connect_client() {
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::strcpy(a.sun_path, path.c_str());
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
        return fd;
    }
    // Serves as the loop does, until the client's connection ends; what it received.
    std::string reply_of(int fd, int passes = 50) {
        std::string got;
        for (int i = 0; i < passes; i++) {
            fd_set rd, wr;
            FD_ZERO(&rd);
            FD_ZERO(&wr);
            int maxfd = control_watch(&router, &rd, &wr, 0);
            timeval t{0, 20000};
            if (select(maxfd + 1, &rd, &wr, nullptr, &t) < 0) {
                break;
            }
            control_serve(&router, &rd, &wr);
            char buf[4096];
            ssize_t n = 0;
            while ((n = recv(fd, buf, sizeof buf, MSG_DONTWAIT)) > 0) {
                got.append(buf, static_cast<size_t>(n));
            }
            if (n == 0) {
                break;
            }
        }
        close(fd);
        return got;
    }
    std::string dir, path;
};

// A stale socket (bound, never listened: what a crashed daemon leaves) is replaced and a live
// one refused, left alone; the socket is mode 0600; requests get their answer, every
// connection ends, and a client that says nothing is closed at its deadline.
TEST_F(ControlTest, TheSocketAnswersRequestsAndEndsEveryConnection) {
    int stale = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strcpy(a.sun_path, path.c_str());
    ASSERT_EQ(bind(stale, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    close(stale);
    EXPECT_EQ(stdout_of([&] { EXPECT_TRUE(control_open(&router, path.c_str())); }), "");
    Router other{};
    reset_router(&other);
    EXPECT_EQ(stdout_of([&] { EXPECT_FALSE(control_open(&other, path.c_str())); }),
              "MLDRT: Another mldproxyd answers on " + path + "\n");
    control_close(&other);
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"status json\r\n", "{\"links\":["},  // tests/lab/test_status.sh asks with "\n"
        {"hello\n", "error: unknown request (try \"status\" or \"status json\")\n"},
        {std::string(100000, 'x'), "error: request too long\n"},
    };
    for (const auto& [request, reply_start] : rows) {
        SCOPED_TRACE(request.substr(0, 12));
        int fd = connect_client();
        send(fd, request.data(), request.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        EXPECT_EQ(reply_of(fd).substr(0, reply_start.size()), reply_start);
    }
    int fd = connect_client();
    EXPECT_EQ(reply_of(fd, 5), "");  // accepted, nothing asked: nothing said
    EXPECT_NE(control_deadline(&router), kNever);
    fake::kernel().monotonic_ms += 1000;
    fd_set none;
    FD_ZERO(&none);
    control_serve(&router, &none, &none);
    EXPECT_EQ(control_deadline(&router), kNever);
}

}  // namespace
