// A hash index from group address to record, kept beside an intrusive list. The list stays the
// record of order (dumps, merges and reports walk it); the index only answers "which record
// has this address" without a walk, so that joining or looking up one of many thousands of
// groups costs the same as one of ten. Every address is at most once in a list, so the index
// finds exactly the record a walk of the list would.
//
// An indexed record type T has `address[16]` and `T* hnext`, its link in its bucket. Buckets
// are short (the array doubles when it holds as many records as there are two buckets), so
// a record leaves its index by a walk of its bucket and carries no back links.
#ifndef MLDPROXYD_BASE_ADDRESS_INDEX_H
#define MLDPROXYD_BASE_ADDRESS_INDEX_H

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace mldproxy {

template <typename T>
struct AddressIndex {
    T** buckets;
    uint32_t size;  // a power of two; 0 while nothing is indexed
    uint32_t count;
};

constexpr uint32_t kIndexFirstSize = 16;
constexpr uint32_t kIndexLoad = 2;  // records a bucket holds on average before the array doubles

// FNV-1a over the 16 address bytes.
inline uint32_t address_hash(const uint8_t* addr) {
    uint32_t h = 2166136261u;
    for (int i = 0; i < 16; i++) {
        h = (h ^ addr[i]) * 16777619u;
    }
    return h;
}

namespace index_detail {

template <typename T>
T** bucket_of(const AddressIndex<T>* ix, const uint8_t* addr) {
    return &ix->buckets[address_hash(addr) & (ix->size - 1)];
}

// Doubles the bucket array (or makes the first one); false when memory ran out, the old array
// then stays in use.
template <typename T>
bool grow(AddressIndex<T>* ix) {
    uint32_t size = ix->size ? ix->size * 2 : kIndexFirstSize;
    auto** buckets = static_cast<T**>(calloc(size, sizeof(T*)));
    if (!buckets) {
        return false;
    }
    AddressIndex<T> bigger{buckets, size, ix->count};
    for (uint32_t i = 0; i < ix->size; i++) {
        T* next = nullptr;
        for (T* rec = ix->buckets[i]; rec; rec = next) {
            next = rec->hnext;
            T** head = bucket_of(&bigger, rec->address);
            rec->hnext = *head;
            *head = rec;
        }
    }
    free(ix->buckets);
    *ix = bigger;
    return true;
}

}  // namespace index_detail

template <typename T>
T* index_find(const AddressIndex<T>* ix, const uint8_t* addr) {
    if (ix->size == 0) {
        return nullptr;
    }
    for (T* rec = *index_detail::bucket_of(ix, addr); rec; rec = rec->hnext) {
        if (std::memcmp(rec->address, addr, 16) == 0) {
            return rec;
        }
    }
    return nullptr;
}

// False only when the index had no buckets and none could be allocated: the caller then
// treats the record as not created, so list and index never disagree.
template <typename T>
bool index_insert(AddressIndex<T>* ix, T* rec) {
    if (ix->count >= ix->size * kIndexLoad && !index_detail::grow(ix) && ix->size == 0) {
        return false;
    }
    T** head = index_detail::bucket_of(ix, rec->address);
    rec->hnext = *head;
    *head = rec;
    ix->count++;
    return true;
}

template <typename T>
void index_free(AddressIndex<T>* ix) {
    free(ix->buckets);
    ix->buckets = nullptr;
    ix->size = 0;
    ix->count = 0;
}

// Takes the record out of the index (nothing happens when it is not in it); the last one out
// frees the buckets, so an idle router holds none and nothing is left when the lists are
// emptied.
template <typename T>
void index_remove(AddressIndex<T>* ix, T* rec) {
    if (ix->size == 0) {
        return;
    }
    for (T** link = index_detail::bucket_of(ix, rec->address); *link; link = &(*link)->hnext) {
        if (*link == rec) {
            *link = rec->hnext;
            rec->hnext = nullptr;
            if (--ix->count == 0) {
                index_free(ix);
            }
            return;
        }
    }
}

}  // namespace mldproxy

#endif
