// The process-wide objects of the library are constructed before its
// start-up runs. On Windows the run-time library constructs them before the
// entry function is called. Elsewhere the start-up runs from a load-time
// constructor function, whose place among the objects' initialisers the
// link order would decide; a construction priority puts the objects first.
#pragma once

#if defined(__GNUC__) && !defined(_WIN32)
#define CONSTRUCTED_BEFORE_STARTUP(order) __attribute__((init_priority(order)))
#else
#define CONSTRUCTED_BEFORE_STARTUP(order)
#endif
