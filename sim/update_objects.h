// The updates that the simulated agent has found, as objects. For files in C style, see sim/com.h.
#pragma once

#include "sim/update_catalogue.h"

namespace sim {

// A new object with one reference.
IUpdateCollection* NewCollection(const Areas& updates);
HRESULT CreateCollection(REFIID id, void** out);
const Areas& AreasOf(IUpdateCollection* collection);

}  // namespace sim
