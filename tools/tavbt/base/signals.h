// Ctrl-C and its like.
#pragma once

namespace tavbt {

// The first SIGINT, SIGTERM or SIGHUP interrupts the operation of the module that waits; the second ends the program.
void Watch_Signals();
bool Is_Stopped();
void Stop_If_Asked();  // throws S_Failure when one came
int Get_StopPipe();    // becomes readable with the signal, for poll

}  // namespace tavbt
