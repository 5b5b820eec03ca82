#include "kestro/network/internal/delivery.h"

#include "kestro/core/console.h"
#include "kestro/network/internal/loading_loop.h"
#include "kestro/network/internal/task_core.h"

namespace kestro::network::internal {

thread_local DeliveryBatch* DeliveryBatch::tCurrent = nullptr;
thread_local bool DeliveryBatch::tOnLoop = false;

void DeliveryBatch::handOn(Deferred d) {
    if (tCurrent) {
        tCurrent->items_.push_back(std::move(d));
    } else if (tOnLoop) {
        handOverToLoop(std::move(d));
    } else {
        postFollowUp([d = std::move(d)] { d.run(); });
    }
}

void Deferred::run() const {
    switch (kind) {
        case Kind::complete:
            core->runCompletion();
            break;
        case Kind::releaseHandler:
            core->dropHandler(false);
            break;
        case Kind::stopAndReleaseHandler:
            core->dropHandler(true);
            break;
        case Kind::work:
            runReportingThrows("Work handed to the loading thread", work);
            break;
    }
}

}  // namespace kestro::network::internal
