// The library's raw line of a record, as the expectation for lines read through the controller.
#pragma once

#include <string>

#include "simsel_util.h"
#include "tvx_toipmi.h"

namespace simsel {

inline std::string rawLine(const Bytes &record)
{
    ListNode *list = nullptr;
    addEntryToRawStringList(&list, record.data());
    std::string line = list ? reinterpret_cast<const char *>(list->data) : "";
    freeList(&list);
    return line;
}

} // namespace simsel
