#include "kestro/core/handler_slot.h"

#include <algorithm>
#include <vector>

namespace kestro::internal {

namespace {
// The slots whose handlers this thread is inside, innermost last. Nesting is shallow (a
// handler that calls into another slot), so a vector beats a map.
thread_local std::vector<const void*> tCalls;
}  // namespace

int callsOnThisThread(const void* slot) {
    return static_cast<int>(std::count(tCalls.begin(), tCalls.end(), slot));
}

void enterCall(const void* slot) { tCalls.push_back(slot); }

void leaveCall(const void* slot) {
    // Usually the innermost entry; a lease that renews its hold may leave out of order.
    const auto it = std::find(tCalls.rbegin(), tCalls.rend(), slot);
    if (it != tCalls.rend()) tCalls.erase(std::next(it).base());
}

}  // namespace kestro::internal
