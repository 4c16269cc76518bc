// An intrusive first-in first-out list: a record carries its own links (members Next and Pprev,
// Pprev null while the record is on no list), so queuing costs no allocation, a record is on a
// list at most once, and it leaves in constant time when it is deleted.
#ifndef MLDPROXYD_BASE_FIFO_H
#define MLDPROXYD_BASE_FIFO_H

namespace mldproxy {

template <typename T, T* T::*Next, T** T::*Pprev>
class Fifo {
  public:
    Fifo() = default;
    Fifo(const Fifo&) = delete;  // the tail points into the object itself
    Fifo& operator=(const Fifo&) = delete;

    static bool queued(const T* rec) { return rec->*Pprev != nullptr; }
    T* front() const { return head_; }

    // Appends `rec` unless it is queued already (it then keeps its place).
    void push(T* rec) {
        if (queued(rec)) {
            return;
        }
        rec->*Next = nullptr;
        rec->*Pprev = tail_;
        *tail_ = rec;
        tail_ = &(rec->*Next);
    }

    void remove(T* rec) {
        if (!queued(rec)) {
            return;
        }
        *(rec->*Pprev) = rec->*Next;
        if (rec->*Next) {
            (rec->*Next)->*Pprev = rec->*Pprev;
        } else {
            tail_ = rec->*Pprev;
        }
        rec->*Next = nullptr;
        rec->*Pprev = nullptr;
    }

    // Takes the oldest record off the list; nullptr when it is empty.
    T* pop() {
        T* rec = head_;
        if (rec) {
            remove(rec);
        }
        return rec;
    }

    void clear() {
        while (pop()) {
        }
    }

  private:
    T* head_ = nullptr;
    T** tail_ = &head_;
};

}  // namespace mldproxy

#endif
