// Seams of the Logger for tests (the clock it reads, and the rotation plan), and the
// formatting of entries that the error functions share with it.
#pragma once

#include <stdarg.h>
#include <time.h>

#include <vesk/Logger.h>

namespace vesk {

// One entry formatted as vsnprintf would, as heap text for the caller to free, its length
// in *length. Every control byte and DEL is written as \xHH, except the newlines of the
// format itself, which the server writes on purpose, and a newline that ends the entry:
// so no argument, whatever a client or a servlet put in it, can begin a line of the log.
char* Logger_formatEntry(const char* format, va_list ap, int* length);

// Replaces the clock that timestamps, rotation planning and rotated names read;
// nullptr restores the real one.
void Logger_setClock(time_t (*clock)(void));

// Replaces the period of the flush timer of loggers made from now on; 0 restores 10 s.
void Logger_setFlushPeriod(unsigned milliseconds);

// Seconds from `now` to the next rotation for period 1 (day), 2 (week) or 3 (month).
long Logger_secondsToRotation(int period, time_t now);

}  // namespace vesk
