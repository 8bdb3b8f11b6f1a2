// Marks a function definition as part of the library's exported C interface.
// The linker version script decides what is finally exported.  Exported
// variables get their visibility from their declaration in a public header.
#pragma once

#define TREL_API extern "C" __attribute__((visibility("default")))
