/* Unfinished files: their names, and whose they are. A task owns the file that it has made from the open to the rename
   or the removal; the file itself (device and inode) tells it from another of the same name. fn is the name that a
   function logs under: its caller's. */
#pragma once

#include "data.h"

#include <sys/stat.h>

/* Removes a trailing "-Kova". 0; EINVAL an empty text; ESRCH no such suffix. */
[[nodiscard]] int cutoff_segext(char* path) noexcept;
[[nodiscard]] bool is_unfinished_seg(const char* path) noexcept; /* path ends in "-Kova" */

/* Is the file at the task's unfinished name the one behind its descriptor? 0: it is, and *own is what fstat says of it;
   ESTALE: it is another's; else the errno of the look. */
[[nodiscard]] int check_own_unfinished(const dw_task* task, struct stat* own) noexcept;

/* May the order write at its unfinished name? 0: nothing is there, or what was left behind has been removed, or a task
   that has stalled writes it (spec->takes_over): that file stays until this order's own can take its place. EEXIST it
   is being written (logged); -1 error (logged). */
[[nodiscard]] int check_unfinished(const char* fn, dw_spec* spec) noexcept;
/* Around the making of a task's file: a stalled file that the order may take over is set aside, if it is still stalled.
   True: it was, and end_takeover follows, which removes it when the new one is made and puts it back when not. */
[[nodiscard]] bool begin_takeover(const char* fn, const dw_task* task) noexcept;
void end_takeover(const char* fn, const dw_task* task, bool is_made) noexcept;
/* Removes what a task that has ended earlier in this round leaves at the same name, before it is in the way. */
void clear_the_way(dw_task* task) noexcept;
/* At its end: is the file at the task's unfinished name to go? Its own is, and one that stood in its way and that
   nobody writes. Call while the task's descriptor is open. */
[[nodiscard]] bool owes_removal(const dw_task* task) noexcept;
/* Removes it (WARN); one that is gone already is no failure, any other is logged. The task has no file from then on. */
void remove_unfinished(const char* fn, dw_task* task) noexcept;
