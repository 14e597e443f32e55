#include "scheduling.h"

#include <sched.h>

namespace {
bool batch_entered = false;
} // namespace

void enterBackgroundScheduling() {
#ifdef SCHED_BATCH
    if (sched_getscheduler(0) != SCHED_OTHER)
        return;
    const sched_param param{}; // both policies take priority 0 only
    batch_entered = sched_setscheduler(0, SCHED_BATCH, &param) == 0;
#endif
}

void leaveBackgroundScheduling() {
#ifdef SCHED_BATCH
    if (!batch_entered)
        return;
    const sched_param param{};
    if (sched_setscheduler(0, SCHED_OTHER, &param) == 0)
        batch_entered = false;
#endif
}
