// What the sbacc tool reads of the library's own knowledge, so the tool keeps
// no second copy of it.  Internal: not exported from the shared library.
#ifndef SBACC_TOOL_IFACE_H
#define SBACC_TOOL_IFACE_H

// The latest-copy rule (sbacc_ma_classify, SBACC_COPY_VERDICT): the tool
// judges copies by the very function the open and the restore use.
#include "sbacc_ma.h"

// The areas the start-up's data repair knows by name, in its own order;
// nullptr past the last.
const char* sbacc_known_area(int i);

#endif  // SBACC_TOOL_IFACE_H
