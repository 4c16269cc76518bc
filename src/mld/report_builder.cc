#include <cstring>

#include "base/addr.h"
#include "base/bytes.h"
#include "db/db.h"
#include "mld/mld.h"

namespace mldproxy {

namespace {

bool is_exclude_type(RecordType rec_type) {
    return rec_type == RecordType::ModeIsExclude || rec_type == RecordType::ChangeToExclude;
}

// What one report may carry: the scratch buffer, and no more records than the upstream link
// takes in one unfragmented report, so that every report is as full as the link allows.
uint32_t capacity(const ReportBuilder* rb) {
    uint32_t cap = rb->r->scratch_size;
    if (rb->r->upstream) {
        uint32_t link = max_message_length(rb->r->upstream) - kReportHeaderLen;
        cap = link < cap ? link : cap;
    }
    return cap;
}

uint32_t room(const ReportBuilder* rb) {
    return capacity(rb) - rb->len;
}

// Starts a record at the end of the buffer; false when not even its header fits.
bool start_record(ReportBuilder* rb, const uint8_t* group, RecordType rec_type) {
    if (room(rb) < kRecordHeaderLen) {
        report_flush(rb);
    }
    if (room(rb) < kRecordHeaderLen) {
        return false;
    }
    rb->len += encode_bare_record(rb->r->scratch + rb->len, group, rec_type);
    rb->nrec++;
    return true;
}

}  // namespace

int send_upstream_report(Router* r, uint32_t nrec, uint32_t len) {
    if (!r->upstream) {
        return 0;
    }
    return send_report(r, r->upstream, kAddrAllMldv2Routers, r->scratch, nrec, len);
}

void report_init(ReportBuilder* rb, Router* r) {
    rb->r = r;
    rb->len = 0;
    rb->nrec = 0;
}

void report_flush(ReportBuilder* rb) {
    if (rb->nrec > 0) {
        send_upstream_report(rb->r, rb->nrec, rb->len);
    }
    rb->len = 0;
    rb->nrec = 0;
}

void report_add(ReportBuilder* rb, const uint8_t* group, RecordType rec_type, const Source* list) {
    // A record that fits a report as a whole is never split over two; an EXCLUDE-type record
    // that fits none starts a report of its own and keeps the first sources that fit.
    uint32_t whole = kRecordHeaderLen + kAddrLen * list_length(list);
    if (whole > room(rb) && (whole <= capacity(rb) || is_exclude_type(rec_type))) {
        report_flush(rb);
    }
    if (!start_record(rb, group, rec_type)) {
        return;
    }
    uint8_t* rec = rb->r->scratch + rb->len - kRecordHeaderLen;
    for (const Source* s = list; s; s = s->next) {
        if (room(rb) < kAddrLen) {
            if (is_exclude_type(rec_type)) {
                return;  // an EXCLUDE-type record keeps the first sources that fit
            }
            report_flush(rb);
            if (!start_record(rb, group, rec_type)) {
                return;
            }
            rec = rb->r->scratch + rb->len - kRecordHeaderLen;
        }
        rb->len += append_record_source(rec, s->address);
    }
}

}  // namespace mldproxy
