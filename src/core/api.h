// Marks a function definition as part of the library's C interface: C
// linkage, matching its declaration in the public header.  Visibility is not
// set here: the public headers declare everything between TREL_BEGIN_DECLS
// and TREL_END_DECLS with default visibility (functions and variables alike),
// the library is compiled with hidden visibility for all else, and the
// version script decides what is finally exported.
#pragma once

#define TREL_API extern "C"
