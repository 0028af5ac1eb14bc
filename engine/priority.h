/*
** priority.h -- putting a thread's indexing at idle priority (priority.cpp), for the programs
** that index: the application's indexing thread and tarnwick-cli --nice.
*/
#ifndef TRN_PRIORITY_H
#define TRN_PRIORITY_H

/* Puts the calling thread at idle priority for good: SCHED_IDLE (it runs only on a core that
** nothing else wants) and the idle I/O class; the threads it starts afterwards, such as the
** embedding workers of trn_update_dir, inherit both. An unprivileged thread cannot return to
** normal priority, so call it on a thread that exists for the indexing alone, or in a program
** that only indexes. Returns true when both were set; false when either was refused (the thread
** keeps what could be set). */
bool thread_set_idle(void);

#endif /* TRN_PRIORITY_H */
