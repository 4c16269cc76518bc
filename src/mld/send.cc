#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/log.h"
#include "base/addr.h"
#include "base/bytes.h"
#include "base/clock.h"
#include "db/db.h"
#include "iface/interface.h"
#include "mld/mld.h"

namespace mldproxy {

namespace {

constexpr uint64_t kMinQueryGapMs = 100;

// Hop-by-hop header: next header 0, length 0, Router Alert (type 5, length 2, value 0 = MLD,
// RFC 2711), then PadN of length 0.
const uint8_t kRouterAlertHopOpts[8] = {0, 0, 5, 2, 0, 0, 1, 0};

void add_cmsg(cmsghdr* c, int type, const void* data, size_t len) {
    c->cmsg_level = IPPROTO_IPV6;
    c->cmsg_type = type;
    c->cmsg_len = CMSG_LEN(len);
    std::memcpy(CMSG_DATA(c), data, len);
}

// One message from the interface buffer. A zero source lets the kernel choose one (reports);
// queries name the interface's own link-local address.
ssize_t send_on(Link* ifp, const uint8_t* dst, const uint8_t* src, uint32_t len) {
    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    std::memcpy(&to.sin6_addr, dst, 16);
    iovec iov{ifp->buf, len};
    alignas(cmsghdr)
        uint8_t control[CMSG_SPACE(sizeof(in6_pktinfo)) + CMSG_SPACE(sizeof kRouterAlertHopOpts)] =
            {};
    msghdr msg{};
    msg.msg_name = &to;
    msg.msg_namelen = sizeof to;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    in6_pktinfo info{};
    std::memcpy(&info.ipi6_addr, src, 16);
    info.ipi6_ifindex = ifp->ifindex;
    cmsghdr* c = CMSG_FIRSTHDR(&msg);
    add_cmsg(c, IPV6_PKTINFO, &info, sizeof info);
    c = CMSG_NXTHDR(&msg, c);
    add_cmsg(c, IPV6_HOPOPTS, kRouterAlertHopOpts, sizeof kRouterAlertHopOpts);
    ssize_t rc = sendmsg(ifp->sock, &msg, MSG_DONTROUTE);
    if (rc > 0) {
        LinkCounters& c = ifp->counters;
        (ifp->buf[0] == kTypeQuery ? c.queries_out : c.reports_out)++;
    }
    return rc;
}

int query_sent(ssize_t rc) {
    if (rc < 0) {
        return log_message("MLDV2: Fatal- Couldnt send query: sendmsg: %s\n", strerror(errno));
    }
    if (rc == 0) {
        return log_message("MLDV2: Fatal- Couldnt send query %d\n", static_cast<int>(rc));
    }
    return static_cast<int>(rc);
}

int report_sent(ssize_t rc) {
    if (rc < 0) {
        return log_message("MLDV2: Fatal- Couldnt send report: sendmsg: %s\n", strerror(errno));
    }
    if (rc == 0) {
        return log_message("MLDV2: Fatal- Couldnt send report %d\n", static_cast<int>(rc));
    }
    return static_cast<int>(rc);
}

// Header of a query with `n` sources; the sources follow at byte 28.
void write_query_header(Router* r, Link* ifp, const QueryParams* q, uint32_t n) {
    uint8_t* b = ifp->buf;
    std::memset(b, 0, kQueryV2HeaderLen);
    b[0] = kTypeQuery;
    // Specific queries carry the last listener query interval, cut to 16 bits without the
    // floating form, as deployed routers have always sent it.
    uint16_t mrc = is_unspecified(q->group)
                       ? encode_max_response_code(r->query_response_interval)
                       : static_cast<uint16_t>(r->last_listener_query_interval * 1000u);
    put_be16(b + 4, mrc);
    std::memcpy(b + 8, q->group, 16);
    b[24] = static_cast<uint8_t>(((q->s_flag & 1) ? kQuerySFlag : 0) |
                                 encode_robustness(r->robustness));
    b[25] = encode_query_interval_code(r->query_interval);
    put_be16(b + 26, static_cast<uint16_t>(n));
}

// MLDv2 query; a source list too long for one message goes out over several.
int send_v2_query(Router* r, Link* ifp, const QueryParams* q) {
    uint32_t per_msg = (max_message_length(ifp) - kQueryV2HeaderLen) / kAddrLen;
    const Source* s = q->sources;
    uint32_t left = q->src_count;
    int result = 0;
    do {
        uint32_t n = left < per_msg ? left : per_msg;
        write_query_header(r, ifp, q, n);
        for (uint32_t i = 0; i < n; i++, s = s->next) {
            std::memcpy(ifp->buf + kQueryV2HeaderLen + kAddrLen * i, s->address, 16);
        }
        uint32_t len = kQueryV2HeaderLen + kAddrLen * n;
        result = query_sent(send_on(ifp, q->dst, ifp->addr, len));
        left -= n;
    } while (left > 0);
    return result;
}

// Length of the record at `rec` within `left` bytes; its source count is cut to what is there.
uint32_t record_len(const uint8_t* rec, uint32_t left, uint32_t* nsrc) {
    uint32_t n = get_be16(rec + 2);
    uint32_t room = (left - kRecordHeaderLen) / kAddrLen;
    *nsrc = n < room ? n : room;
    return kRecordHeaderLen + kAddrLen * *nsrc;
}

// A record too large for one report (RFC 3810 section 5.2.15): its sources are spread over as
// many records as needed, one report each; for an EXCLUDE-type record only the first sources
// that fit are sent, because a split would exclude too little in every piece.
int send_split_record(Router* r, Link* ifp, const uint8_t* dst, const uint8_t* rec, uint32_t nsrc) {
    uint8_t* piece = ifp->buf + kReportHeaderLen;
    uint32_t per_msg = (max_message_length(ifp) - kReportHeaderLen - kRecordHeaderLen) / kAddrLen;
    bool exclude = rec[0] == static_cast<uint8_t>(RecordType::ModeIsExclude) ||
                   rec[0] == static_cast<uint8_t>(RecordType::ChangeToExclude);
    int result = 0;
    for (uint32_t done = 0; done < nsrc; done += per_msg) {
        uint32_t n = nsrc - done < per_msg ? nsrc - done : per_msg;
        std::memcpy(piece, rec, kRecordHeaderLen);
        put_be16(piece + 2, static_cast<uint16_t>(n));
        std::memcpy(piece + kRecordHeaderLen, rec + kRecordHeaderLen + kAddrLen * done,
                    kAddrLen * n);
        result = send_mld_report(r, ifp, dst, piece, 1, kRecordHeaderLen + kAddrLen * n);
        if (exclude) {
            break;
        }
    }
    return result;
}

// MLDv2: whole records packed into as few reports as fit the link.
int send_v2_report(Router* r, Link* ifp, const uint8_t* dst, const uint8_t* records, uint32_t nrec,
                   uint32_t len) {
    uint32_t room = max_message_length(ifp) - kReportHeaderLen;
    uint32_t start = 0, off = 0, count = 0;
    int result = 0;
    for (uint32_t i = 0; i < nrec && off + kRecordHeaderLen <= len; i++) {
        uint32_t nsrc;
        uint32_t rec_len = record_len(records + off, len - off, &nsrc);
        if (count > 0 && off + rec_len - start > room) {
            result = send_mld_report(r, ifp, dst, records + start, count, off - start);
            start = off;
            count = 0;
        }
        if (rec_len > room) {
            result = send_split_record(r, ifp, dst, records + off, nsrc);
            start = off + rec_len;
        } else {
            count++;
        }
        off += rec_len;
    }
    if (count > 0 || nrec == 0) {
        result = send_mld_report(r, ifp, dst, records + start, count, off - start);
    }
    return result;
}

}  // namespace

uint32_t max_message_length(const Link* ifp) {
    return ifp->buf_size - kIpOverhead;
}

int send_query(Router* r, Link* ifp, const QueryParams* q) {
    if (ifp->mld_version == 2) {
        uint32_t n = list_length(q->sources);
        if (n != q->src_count) {
            return log_message("\n Cannot send query, numSrc and list inconsistent %d %d\n",
                               static_cast<int>(n), static_cast<int>(q->src_count));
        }
        return send_v2_query(r, ifp, q);
    }
    write_query_header(r, ifp, q, 0);
    uint32_t len = kQueryV1Len;
    if (ifp->mld_version != 1) {
        log_line("MLDV2: Fatal- Invalid MLDV2 version detected");
        len = 0;
    }
    return query_sent(send_on(ifp, q->dst, ifp->addr, len));
}

uint64_t general_query_due(const Link* ifp) {
    return ifp->querier && ifp->started ? ifp->query_due_ms : kNever;
}

int send_general_query(Router* r, Link* ifp) {
    uint64_t now = now_ms();
    if (general_query_due(ifp) > now) {
        return 0;
    }
    // Start-up queries are a Startup Query Interval, a quarter of the Query Interval, apart
    // (RFC 3810 sections 9.6 and 9.7). The floor keeps a configured interval of 0 from turning
    // the loop into a query storm.
    uint64_t gap_ms = uint64_t{ifp->query_interval} * 1000u;
    if (ifp->startup_query_count != 0) {
        ifp->startup_query_count--;
        gap_ms = uint64_t{r->query_interval} * 1000u / 4u;
    }
    ifp->query_due_ms = now + (gap_ms > kMinQueryGapMs ? gap_ms : kMinQueryGapMs);
    QueryParams q{};
    std::memcpy(q.dst, kAddrAllNodes, 16);
    return send_query(r, ifp, &q);
}

int send_report(Router* r, Link* ifp, const uint8_t* dst, const uint8_t* records, uint32_t nrec,
                uint32_t len) {
    if (ifp->mld_version == 2) {
        return send_v2_report(r, ifp, dst, records, nrec, len);
    }
    if (ifp->mld_version != 1) {
        return send_mld_report(r, ifp, dst, records, nrec, len);
    }
    // An MLDv1 link hears one report or done per record (RFC 3810 section 8.3.2).
    int result = 0;
    uint32_t off = 0;
    for (uint32_t i = 0; i < nrec && off + kRecordHeaderLen <= len; i++) {
        uint32_t nsrc;
        uint32_t rec_len = record_len(records + off, len - off, &nsrc);
        result = send_mld_report(r, ifp, dst, records + off, 1, rec_len);
        off += rec_len;
    }
    return result;
}

int send_mld_report(Router* r, Link* ifp, const uint8_t* dst, const uint8_t* records, uint32_t nrec,
                    uint32_t len) {
    uint8_t* b = ifp->buf;
    std::memset(b, 0, kReportHeaderLen);
    uint8_t to[16];
    std::memcpy(to, dst, 16);
    uint32_t msg_len = 0;
    if (ifp->mld_version == 1 && len >= kRecordHeaderLen) {
        // An MLDv1 router knows no sources: a group nobody listens to any more gets a done to
        // all routers, whatever record told of the change; a group with listeners a report.
        bool leave = !group_listened(r, records + 4);
        b[0] = leave ? kTypeV1Done : kTypeV1Report;
        std::memcpy(b + 8, records + 4, 16);
        std::memcpy(to, leave ? kAddrAllRouters : records + 4, 16);
        msg_len = kQueryV1Len;
    } else if (ifp->mld_version == 2 && kReportHeaderLen + len <= ifp->buf_size) {
        b[0] = kTypeV2Report;
        put_be16(b + 6, static_cast<uint16_t>(nrec));
        std::memmove(b + kReportHeaderLen, records, len);
        msg_len = kReportHeaderLen + len;
    } else {
        log_line("MLDV2: Fatal- Invalid MLDV2 version detected");
    }
    // From the link-local address, as RFC 2710 section 3 and RFC 3810 section 5.2.13 ask: the
    // kernel would pick a global one for a report to a global-scope group.
    return report_sent(send_on(ifp, to, ifp->addr, msg_len));
}

}  // namespace mldproxy
