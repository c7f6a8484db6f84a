// Seams of the Logger for tests: the clock it reads, and the rotation plan.
#pragma once

#include <time.h>

#include <vesk/Logger.h>

namespace vesk {

// Replaces the clock that timestamps, rotation planning and rotated names read;
// nullptr restores the real one.
void Logger_setClock(time_t (*clock)(void));

// Replaces the period of the flush timer of loggers made from now on; 0 restores 10 s.
void Logger_setFlushPeriod(unsigned milliseconds);

// Seconds from `now` to the next rotation for period 1 (day), 2 (week) or 3 (month).
long Logger_secondsToRotation(int period, time_t now);

}  // namespace vesk
