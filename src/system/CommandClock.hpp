// How long one second of a Command's timeout countdown lasts. Tests shorten it so that a
// timeout fires without waiting whole seconds.
#pragma once

// Sets the length of one countdown second in milliseconds (1000 by default).
void Command_setSecond(int milliseconds);
