// Small steps shared by the record handlers: applying one list operation to every source of a
// received record or of an algebra result.
#ifndef MLDPROXYD_MLD_RECORD_OPS_H
#define MLDPROXYD_MLD_RECORD_OPS_H

#include <cstdint>

#include "db/db.h"

struct mldrt_interface;

// Adds every source of the record to list `ltype` with `timer`.
void mldrt_add_record_srcs(mldrt_router* r, mldrt_group* g, uint32_t ltype, const uint8_t* rec,
                           int32_t timer, mldrt_interface* ifp);
// Every source of the record wanted at GMI (IS_IN, ALLOW): on the include list in INCLUDE
// mode; in EXCLUDE mode moved from the excluded to the requested list.
void mldrt_want_record_srcs(mldrt_router* r, mldrt_group* g, const uint8_t* rec,
                            mldrt_interface* ifp);
// Adds every entry of a result to list `ltype`, each with the timer its entry holds.
void mldrt_add_result_srcs(mldrt_router* r, mldrt_group* g, uint32_t ltype,
                           const mldrt_src_result* res, mldrt_interface* ifp);
// Adds every entry of a result to list `ltype`, all with `timer`.
void mldrt_add_result_timer(mldrt_router* r, mldrt_group* g, uint32_t ltype,
                            const mldrt_src_result* res, int32_t timer, mldrt_interface* ifp);
// Sets the timer of every result entry that is on the group's requested list.
void mldrt_set_req_timers(mldrt_group* g, const mldrt_src_result* res, int32_t timer);
// Gives every result entry that is on the group's requested list that entry's timer: the
// sources a record names again keep their timers (RFC 3810 section 7.4, X*A).
void mldrt_take_req_timers(const mldrt_group* g, mldrt_src_result* res);
// Removes every result entry from the requested and the excluded list.
void mldrt_remove_from_req_and_exc(mldrt_router* r, mldrt_group* g, const mldrt_src_result* res,
                                   mldrt_interface* ifp);
// Q(G, sources of the result) through mldrt_update_fsm_and_send_query, when it has any.
void mldrt_query_result(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g,
                        const mldrt_src_result* res);
// Enters EXCLUDE mode: counted in the forwarding entry, filter timer GMI, and every source the
// link does not exclude forwarded to it (RFC 3810 section 6.3).
void mldrt_enter_exclude(mldrt_router* r, mldrt_group* g, mldrt_interface* ifp);

#endif
