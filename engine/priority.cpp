/*
** priority.cpp -- indexing at idle priority, so that it never competes with what the user does.
**
** SCHED_IDLE and the I/O priority belong to a thread on Linux and are inherited by the threads it
** starts afterwards, such as the embedding workers each indexing call starts, so marking the
** thread that calls trn_update_dir covers the whole indexing.
*/
#include "priority.h"

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

/* The values of linux/ioprio.h, which not every C library installs. */
constexpr long IOPRIO_WHO_PROCESS = 1; /* with id 0: the calling thread */
constexpr long IOPRIO_CLASS_SHIFT = 13;
constexpr long IOPRIO_CLASS_IDLE = 3;

} // namespace

bool thread_set_idle(void)
{
    struct sched_param param = {};
    bool cpu = sched_setscheduler(0, SCHED_IDLE, &param) == 0;
    bool io =
        syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, 0L, IOPRIO_CLASS_IDLE << IOPRIO_CLASS_SHIFT)
        == 0;
    return cpu && io;
}
