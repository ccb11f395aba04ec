/* What the companion programs print quotes paths, log lines and arguments that somebody else has written. */
#pragma once

/* From here on standard output and error take control bytes for question marks, but for line ends and tabs: nothing
   that is quoted commands a terminal. When not all of standard output could be written, the program says so at its end
   and has status 1. Call it first of all in main. */
void make_output_plain();
