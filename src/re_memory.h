// Whether a regular expression can be compiled without harm.
//
// The C library writes repetitions out: "+" doubles its piece, an optional repetition costs up to
// the square of its bound. "x{0,32767}" or thirty "+" in a row ask for more memory than the machine
// has.
#pragma once

// Whether regcomp() can do with 256 MB for `text` (POSIX extended syntax) and comes to an end. A
// pattern that does not surely do is tried in a child process with limits on memory and time.
bool fits_memory(const char *text) noexcept;
