// Building one of the library's lists without walking it for every element: the builder keeps
// the place of the list's end (the head pointer while the list is empty, else the last node's
// next pointer) and appends there. addToList sees an empty list at that place and links the
// new node in at once, so n elements cost n steps, not n * n / 2.
#pragma once

#include "tvx_toipmi.h"

namespace tvx {

class ListTail {
public:
    // The end of the list at head (null: no list, and every append fails as addToList's does).
    explicit ListTail(ListNode **head) : end_(head) { skip(); }

    // The place an appending function is handed; call skip() after it appended.
    ListNode **end() const { return end_; }
    void skip()
    {
        while (end_ && *end_) end_ = &(*end_)->next;
    }
    // addToList at the end: 1 appended, 0 nothing appended.
    int add(const void *element, uint32_t size)
    {
        const int appended = addToList(end_, element, size);
        skip();
        return appended;
    }

private:
    ListNode **end_;
};

} // namespace tvx
