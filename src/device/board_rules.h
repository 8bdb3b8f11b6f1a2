// Rules of board identification that need no files: firmware compatibility
// and the CPU family from "/proc/cpuinfo" text.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <trel/device.h>

namespace trel::device {

// The OUI (first three bytes) of a MAC address.
uint32_t mac_oui(const uint8_t mac[6]) noexcept;

// Raises board->fw_compat by the OUI, board-revision and BOM rules.  bomrev is
// called only for the model with the BOM table.
void apply_fw_compat(trel_board *board, uint32_t (*bomrev)()) noexcept;

// Architecture code from the "system type" and "cpu model" values (either may
// be null when the line is missing).
int classify_arch(const char *system_type, const char *cpu_model) noexcept;
// The same over the lines of an open "/proc/cpuinfo"; 43 for a null stream.
int cpuinfo_arch_type(FILE *cpuinfo) noexcept;

}  // namespace trel::device
