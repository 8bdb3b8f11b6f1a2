/* libtrel: utility library for network device firmware. */
#ifndef LIBTREL_H
#define LIBTREL_H

#include <trel/core.h>
#include <trel/cfg.h>
#include <trel/exec.h>
#include <trel/crypto.h>
#include <trel/protocol.h>
#include <trel/ipc.h>
#include <trel/http.h>
#include <trel/telemetry.h>
#include <trel/proc.h>
#include <trel/device.h>
#include <trel/net.h>

#endif
