// A hash index from group address to record, kept beside an intrusive list. The list stays the
// record of order (dumps, merges and reports walk it); the index only answers "which record
// has this address" without a walk, so that joining or looking up one of many thousands of
// groups costs the same as one of ten. Every address is at most once in a list, so the index
// finds exactly the record a walk of the list would.
//
// An indexed record type T has `grp_addr[16]`, `T* hnext`, `T** hpprev` and
// `mldrt_addr_index<T>* hindex` (null while the record is in no index).
#ifndef MLDPROXYD_DB_ADDR_INDEX_H
#define MLDPROXYD_DB_ADDR_INDEX_H

#include <cstdint>
#include <cstdlib>
#include <cstring>

template <typename T>
struct mldrt_addr_index {
    T** buckets;
    uint32_t size;  // a power of two; 0 while nothing is indexed
    uint32_t count;
};

constexpr uint32_t MLDRT_INDEX_FIRST_SIZE = 16;

// FNV-1a over the 16 address bytes.
inline uint32_t mldrt_addr_hash(const uint8_t* addr) {
    uint32_t h = 2166136261u;
    for (int i = 0; i < 16; i++) {
        h = (h ^ addr[i]) * 16777619u;
    }
    return h;
}

namespace mldrt_index_detail {

template <typename T>
void link_bucket(T** bucket, T* rec) {
    rec->hnext = *bucket;
    if (*bucket) {
        (*bucket)->hpprev = &rec->hnext;
    }
    rec->hpprev = bucket;
    *bucket = rec;
}

// Doubles the bucket array (or makes the first one); false when memory ran out, the old array
// then stays in use.
template <typename T>
bool grow(mldrt_addr_index<T>* ix) {
    uint32_t size = ix->size ? ix->size * 2 : MLDRT_INDEX_FIRST_SIZE;
    auto** buckets = static_cast<T**>(calloc(size, sizeof(T*)));
    if (!buckets) {
        return false;
    }
    for (uint32_t i = 0; i < ix->size; i++) {
        T* next = nullptr;
        for (T* rec = ix->buckets[i]; rec; rec = next) {
            next = rec->hnext;
            link_bucket(&buckets[mldrt_addr_hash(rec->grp_addr) & (size - 1)], rec);
        }
    }
    free(ix->buckets);
    ix->buckets = buckets;
    ix->size = size;
    return true;
}

}  // namespace mldrt_index_detail

template <typename T>
T* mldrt_index_find(const mldrt_addr_index<T>* ix, const uint8_t* addr) {
    if (ix->size == 0) {
        return nullptr;
    }
    for (T* rec = ix->buckets[mldrt_addr_hash(addr) & (ix->size - 1)]; rec; rec = rec->hnext) {
        if (std::memcmp(rec->grp_addr, addr, 16) == 0) {
            return rec;
        }
    }
    return nullptr;
}

// False only when the index had no buckets and none could be allocated: the caller then
// treats the record as not created, so list and index never disagree.
template <typename T>
bool mldrt_index_insert(mldrt_addr_index<T>* ix, T* rec) {
    if (ix->count >= ix->size && !mldrt_index_detail::grow(ix) && ix->size == 0) {
        return false;
    }
    mldrt_index_detail::link_bucket(&ix->buckets[mldrt_addr_hash(rec->grp_addr) & (ix->size - 1)],
                                    rec);
    rec->hindex = ix;
    ix->count++;
    return true;
}

template <typename T>
void mldrt_index_free(mldrt_addr_index<T>* ix) {
    free(ix->buckets);
    ix->buckets = nullptr;
    ix->size = 0;
    ix->count = 0;
}

// Takes the record out of its index; the last one out frees the buckets, so an idle router
// holds none and nothing is left when the lists are emptied.
template <typename T>
void mldrt_index_remove(T* rec) {
    mldrt_addr_index<T>* ix = rec->hindex;
    if (!ix) {
        return;
    }
    *rec->hpprev = rec->hnext;
    if (rec->hnext) {
        rec->hnext->hpprev = rec->hpprev;
    }
    rec->hnext = nullptr;
    rec->hpprev = nullptr;
    rec->hindex = nullptr;
    if (--ix->count == 0) {
        mldrt_index_free(ix);
    }
}

#endif
