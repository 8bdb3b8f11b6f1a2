/* libtrel: utility library for network device firmware. */
#ifndef LIBTREL_H
#define LIBTREL_H

#include <trel/core.h>

#endif
