/// Elements as the records that they begin, and recorded changes: for the library and the command `uci`. The macros of
/// the public header do the same with the casts of C.
#pragma once

#include "uci.h"

template <typename Record>
Record* recordOf(uci_element* e)
{
    static_assert(offsetof(Record, e) == 0);
    return reinterpret_cast<Record*>(e);
}
template <typename Record>
const Record* recordOf(const uci_element* e)
{
    static_assert(offsetof(Record, e) == 0);
    return reinterpret_cast<const Record*>(e);
}

enum uci_change { UCI_CHANGE_SET, UCI_CHANGE_DELETE, UCI_CHANGE_ADD_SECTION, UCI_CHANGE_ADD_LIST, UCI_CHANGE_DEL_LIST };

/// An element of a package's list of changes.
struct uci_delta {
    uci_element e; ///< named by the option; null for a change to a section
    uci_change change;
    char* section;
    char* value; ///< null where the change has none
};
