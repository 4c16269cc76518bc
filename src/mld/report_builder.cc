#include <cstring>

#include "core/addr.h"
#include "core/bytes.h"
#include "db/db.h"
#include "mld/mld.h"

namespace {

bool is_exclude_type(uint8_t rec_type) {
    return rec_type == MLDRT_REC_MODE_IS_EXCLUDE || rec_type == MLDRT_REC_CHANGE_TO_EXCLUDE;
}

// What one report may carry: the scratch buffer, and no more records than the upstream link
// takes in one unfragmented report, so that every report is as full as the link allows.
uint32_t capacity(const mldrt_report_builder* rb) {
    uint32_t cap = rb->r->scratch_size;
    if (rb->r->upstream) {
        uint32_t link = mldrt_max_mld_len(rb->r->upstream) - MLDRT_REPORT_HDR_LEN;
        cap = link < cap ? link : cap;
    }
    return cap;
}

uint32_t room(const mldrt_report_builder* rb) {
    return capacity(rb) - rb->len;
}

// Starts a record at the end of the buffer; false when not even its header fits.
bool start_record(mldrt_report_builder* rb, const uint8_t* group, uint8_t rec_type) {
    if (room(rb) < MLDRT_MCAST_REC_HDR_LEN) {
        mldrt_rb_flush(rb);
    }
    if (room(rb) < MLDRT_MCAST_REC_HDR_LEN) {
        return false;
    }
    rb->len += mldrt_encode_report_mcast_rec(rb->r->scratch + rb->len, group, rec_type);
    rb->nrec++;
    return true;
}

}  // namespace

int mldrt_send_upstream_report(mldrt_router* r, uint32_t nrec, uint32_t len) {
    if (!r->upstream) {
        return 0;
    }
    return mldrt_send_report(r, r->upstream, MLDRT_ADDR_ALL_MLDV2_ROUTERS, r->scratch, nrec, len);
}

void mldrt_rb_init(mldrt_report_builder* rb, mldrt_router* r) {
    rb->r = r;
    rb->len = 0;
    rb->nrec = 0;
}

void mldrt_rb_flush(mldrt_report_builder* rb) {
    if (rb->nrec > 0) {
        mldrt_send_upstream_report(rb->r, rb->nrec, rb->len);
    }
    rb->len = 0;
    rb->nrec = 0;
}

void mldrt_rb_add(mldrt_report_builder* rb, const uint8_t* group, uint8_t rec_type,
                  const mldrt_src* list) {
    // A record that fits a report as a whole is never split over two; an EXCLUDE-type record
    // that fits none starts a report of its own and keeps the first sources that fit.
    uint32_t whole = MLDRT_MCAST_REC_HDR_LEN + MLDRT_ADDR_LEN * mldrt_srclist_len(list);
    if (whole > room(rb) && (whole <= capacity(rb) || is_exclude_type(rec_type))) {
        mldrt_rb_flush(rb);
    }
    if (!start_record(rb, group, rec_type)) {
        return;
    }
    uint8_t* rec = rb->r->scratch + rb->len - MLDRT_MCAST_REC_HDR_LEN;
    for (const mldrt_src* s = list; s; s = s->next) {
        if (room(rb) < MLDRT_ADDR_LEN) {
            if (is_exclude_type(rec_type)) {
                return;  // an EXCLUDE-type record keeps the first sources that fit
            }
            mldrt_rb_flush(rb);
            if (!start_record(rb, group, rec_type)) {
                return;
            }
            rec = rb->r->scratch + rb->len - MLDRT_MCAST_REC_HDR_LEN;
        }
        rb->len += mldrt_append_src_to_mcast_rec(rec, s->src_addr);
    }
}
